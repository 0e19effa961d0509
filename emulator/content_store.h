// The bytes of files: one file on disk for each stored content, none for synthetic ones. Contents
// never change once stored, so they are read without any lock.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace emulator {

/// A range of bytes that can be read at any place, from any thread.
class ContentSource {
 public:
  virtual ~ContentSource() = default;
  /// Exactly `length` bytes from `offset`; false when the content is not that long.
  virtual bool Read(int64_t offset, char* out, size_t length) const = 0;
};

/// A content being written, front to back.
class ContentWriter {
 public:
  ContentWriter(std::filesystem::path file, int64_t number);
  ~ContentWriter();
  ContentWriter(const ContentWriter&) = delete;
  ContentWriter& operator=(const ContentWriter&) = delete;

  void Write(const char* data, size_t size);
  int64_t Size() const { return size; }
  std::string Md5() const;
  int64_t Number() const { return number; }
  /// Keeps the content; without it the destructor deletes the file.
  void Keep() { kept = true; }
  void StartOver();

 private:
  struct Digest;
  std::filesystem::path path;
  int64_t number;
  int fd;
  int64_t size = 0;
  bool kept = false;
  std::unique_ptr<Digest> digest;
};

class ContentStore {
 public:
  /// An empty `directory` means one of its own that goes when this object goes.
  explicit ContentStore(std::filesystem::path directory);
  ~ContentStore();
  ContentStore(const ContentStore&) = delete;
  ContentStore& operator=(const ContentStore&) = delete;

  /// `number` must be unused.
  std::unique_ptr<ContentWriter> Create(int64_t number);
  /// Null when there is no such content.
  std::shared_ptr<ContentSource> Open(int64_t number) const;
  static std::shared_ptr<ContentSource> Synthetic(uint64_t seed);
  /// Readers that have it open keep reading.
  void Remove(int64_t number);

 private:
  std::filesystem::path Path(int64_t number) const;

  std::filesystem::path directory;
  bool temporary;
};

/// Hexadecimal MD5 of the first `size` bytes.
std::string Md5Of(const ContentSource& source, int64_t size);

}  // namespace emulator
