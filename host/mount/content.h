// The local bytes of one version of one file: a sparse file and the map of what is there.
//
// Thread-safe. Bytes that a transfer delivers and bytes that a program writes never meet in one
// content: a program writes only to contents that are complete.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <span>
#include <string>
#include <vector>

#include "host/mount/page_map.h"
#include "host/mount/remote.h"

namespace host::mount {

/// A range of pages on its way from the service.
struct Fetch {
  int64_t firstPage = 0;
  int64_t endPage = 0;
  std::string id;
  Transfer transfer = std::make_shared<_FS_HANDLE>();
  bool begun = false;    ///< handed to the threads; else it waits for one before it to end
  bool awaited = false;  ///< a program waits for some of it
  std::atomic<bool> claimed{false};
};

class Content {
 public:
  /// Takes over the descriptor.
  Content(int64_t number, int descriptor, int64_t size);
  ~Content();
  Content(const Content&) = delete;
  Content& operator=(const Content&) = delete;

  const int64_t number;
  std::atomic<bool> placed{false};  ///< its name in the directory is on the disk

  int64_t Size() const { return size; }
  /// Grows with every change that a program makes.
  uint64_t Writes() const { return writes; }

  /// Bytes read, fewer at the end of the file, or a negative errno. The caller has made sure that
  /// the pages are there.
  ssize_t ReadAt(std::span<char> buffer, int64_t offset);
  /// The same, but -EAGAIN when a program has written since `expected` was Writes().
  ssize_t ReadUnchanged(std::span<char> buffer, int64_t offset, uint64_t expected);
  /// All bytes; nothing when they cannot be read.
  std::optional<std::string> Whole();
  /// 0 or a positive errno.
  int Write(std::span<const char> bytes, int64_t offset);
  int Truncate(int64_t newSize);
  int Sync();

  /// Stores fetched bytes; 0 or a positive errno.
  int Store(std::span<const char> bytes, int64_t offset);
  void MarkComplete();
  bool IsComplete();
  bool HasUnsavedMap();
  /// The map as it is on the disk now: syncs the bytes first. False when nothing changed since.
  bool Snapshot(std::string& bits, int64_t& bytes);

  // The map and the transfers; the reader waits on `arrived` with `mutex`.
  std::mutex mutex;
  std::condition_variable arrived;
  PageMap pages;
  std::vector<std::shared_ptr<Fetch>> fetches;
  int lastError = 0;  ///< errno of the last transfer that failed
  bool mapChanged = false;

  /// Ends what is on its way: nobody has the file open, or the mount ends.
  void AbandonFetches();

 private:
  const int descriptor;
  std::shared_mutex io;  // exclusive for changes, so that an upload never sees half of one
  std::atomic<int64_t> size;
  std::atomic<uint64_t> writes{0};
};

using ContentPtr = std::shared_ptr<Content>;

}  // namespace host::mount
