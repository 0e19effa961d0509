#include "host/mount/page_map.h"

#include <algorithm>

namespace host::mount {

void PageMap::Set(int64_t page, Page value) {
  Page& slot = pages[static_cast<size_t>(page)];
  present += (value == Page::kPresent) - (slot == Page::kPresent);
  slot = value;
}

bool PageMap::Has(int64_t firstPage, int64_t endPage) const {
  return std::all_of(pages.begin() + firstPage, pages.begin() + std::min(endPage, Pages()),
                     [](Page page) { return page == Page::kPresent; });
}

void PageMap::Resize(int64_t fileSize) {
  pages.resize(static_cast<size_t>(PagesIn(fileSize)), Page::kAbsent);
  present = std::count(pages.begin(), pages.end(), Page::kPresent);
}

void PageMap::SetAll(Page value) {
  std::fill(pages.begin(), pages.end(), value);
  present = value == Page::kPresent ? Pages() : 0;
}

std::string PageMap::ToBits() const {
  std::string bits((pages.size() + 7) / 8, '\0');
  for (size_t page = 0; page < pages.size(); ++page)
    if (pages[page] == Page::kPresent)
      bits[page / 8] = static_cast<char>(bits[page / 8] | (1 << (page % 8)));
  return bits;
}

void PageMap::FromBits(const std::string& bits) {
  for (size_t page = 0; page < pages.size() && page / 8 < bits.size(); ++page)
    if ((bits[page / 8] >> (page % 8) & 1) != 0) Set(static_cast<int64_t>(page), Page::kPresent);
}

}  // namespace host::mount
