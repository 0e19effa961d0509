#include "host/mount/content.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace host::mount {
namespace {

/// `offset` moves on with what is written; 0 or a positive errno.
int WriteAll(int descriptor, std::span<const char> bytes, int64_t& offset) {
  while (!bytes.empty()) {
    const ssize_t count = pwrite(descriptor, bytes.data(), bytes.size(), offset);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    bytes = bytes.subspan(static_cast<size_t>(count));
    offset += count;
  }
  return 0;
}

}  // namespace

Content::Content(int64_t contentNumber, int fileDescriptor, int64_t fileSize)
    : number(contentNumber), pages(fileSize), descriptor(fileDescriptor), size(fileSize) {}

Content::~Content() { close(descriptor); }

ssize_t Content::ReadAt(std::span<char> buffer, int64_t offset) {
  std::shared_lock lock(io);
  const int64_t left = std::max<int64_t>(size - offset, 0);
  const size_t wanted = std::min(buffer.size(), static_cast<size_t>(left));
  size_t done = 0;
  while (done < wanted) {
    const ssize_t count =
        pread(descriptor, buffer.data() + done, wanted - done, offset + static_cast<int64_t>(done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -errno;
    if (count == 0) return -EIO;  // shorter than it was: somebody else cut it
    done += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(done);
}

ssize_t Content::ReadUnchanged(std::span<char> buffer, int64_t offset, uint64_t expected) {
  if (writes != expected) return -EAGAIN;
  const ssize_t count = ReadAt(buffer, offset);
  return writes == expected ? count : -EAGAIN;
}

std::optional<std::string> Content::Whole() {
  std::string bytes(static_cast<size_t>(size), '\0');
  if (ReadAt(bytes, 0) != static_cast<ssize_t>(bytes.size())) return std::nullopt;
  return bytes;
}

int Content::Write(std::span<const char> bytes, int64_t offset) {
  std::unique_lock lock(io);
  ++writes;
  const int64_t begin = offset;
  const int error = WriteAll(descriptor, bytes, offset);
  // A disk that fills up takes a part: the file has it.
  if (offset > begin) size = std::max<int64_t>(size, offset);
  return error;
}

int Content::Truncate(int64_t newSize) {
  std::unique_lock lock(io);
  ++writes;
  if (ftruncate(descriptor, newSize) != 0) return errno;
  size = newSize;
  return 0;
}

int Content::Sync() { return fdatasync(descriptor) == 0 ? 0 : errno; }

int Content::Store(std::span<const char> bytes, int64_t offset) {
  return WriteAll(descriptor, bytes, offset);
}

void Content::MarkComplete() {
  std::lock_guard lock(mutex);
  pages.Resize(size);
  pages.SetAll(Page::kPresent);
  mapChanged = true;
}

bool Content::IsComplete() {
  std::lock_guard lock(mutex);
  return pages.Complete();
}

bool Content::HasUnsavedMap() {
  std::lock_guard lock(mutex);
  return mapChanged;
}

bool Content::Snapshot(std::string& bits, int64_t& bytes) {
  {
    std::lock_guard lock(mutex);
    if (!mapChanged) return false;
    mapChanged = false;
    bits = pages.ToBits();
    bytes = std::min(pages.PresentPages() * kPageBytes, static_cast<int64_t>(size));
  }
  return Sync() == 0;
}

void Content::AbandonFetches() {
  std::lock_guard lock(mutex);
  std::erase_if(fetches, [this](const std::shared_ptr<Fetch>& fetch) {
    bool unfinished = false;
    for (int64_t page = fetch->firstPage; page < fetch->endPage; ++page) {
      if (pages.At(page) != Page::kUnderWay) continue;
      unfinished = true;
      if (!fetch->begun) pages.Set(page, Page::kAbsent);
    }
    // Not one that is through but for its last words: its connection is worth keeping.
    if (fetch->begun && unfinished) Abandon(fetch->transfer);
    return !fetch->begun;
  });
}

}  // namespace host::mount
