// Which pages of a file are there: the unit in which presence is kept and ranges are fetched.
//
// A block of 512 KiB is what streams are fetched in; a page is what a random read must at least
// fetch, so that reading a little of a large file stays little. Not thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace host::mount {

inline constexpr int64_t kPageBytes = 64 * 1024;
inline constexpr int64_t kBlockBytes = 512 * 1024;

enum class Page : uint8_t { kAbsent, kUnderWay, kPresent };

class PageMap {
 public:
  explicit PageMap(int64_t fileSize) { Resize(fileSize); }

  int64_t Pages() const { return static_cast<int64_t>(pages.size()); }
  Page At(int64_t page) const { return pages[static_cast<size_t>(page)]; }
  void Set(int64_t page, Page value);
  bool Has(int64_t firstPage, int64_t endPage) const;
  bool Complete() const { return present == Pages(); }
  int64_t PresentPages() const { return present; }

  /// New pages are absent.
  void Resize(int64_t fileSize);
  void SetAll(Page value);

  /// One bit for every page, set where it is present.
  std::string ToBits() const;
  void FromBits(const std::string& bits);

  static int64_t PageOf(int64_t offset) { return offset / kPageBytes; }
  static int64_t PagesIn(int64_t bytes) { return (bytes + kPageBytes - 1) / kPageBytes; }

 private:
  std::vector<Page> pages;
  int64_t present = 0;
};

}  // namespace host::mount
