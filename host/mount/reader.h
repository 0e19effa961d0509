// Reading a file of the service by ranges, several at once, into its local content.
//
// A stream is read ahead of: the window grows fourfold each time while a program reads on and is
// gone as soon as it jumps, so that a few reads here and there fetch only their pages. A program
// that begins at the start with a large read is taken for one that reads on. Several programs, or
// several threads of one, may each read a stream of one open file.
//
// Of what is wanted ahead a few ranges are on their way at a time, in order, and the end of one
// begins the next: were all begun at once, they would share the line and end together, and the
// line would stand idle for a round trip while the next ones are asked for.
//
// Thread-safe.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>

#include "host/mount/content.h"
#include "host/mount/patience.h"
#include "host/mount/task_pool.h"

namespace host::mount {

/// Where the streams of one open file have got to.
class ReadPattern {
 public:
  struct Advice {
    int64_t now = 0;    ///< bytes from the read's offset worth fetching at once
    int64_t ahead = 0;  ///< bytes after those worth fetching in the background
  };
  /// Notes a read and says what to fetch for it. Thread-safe.
  Advice Next(int64_t offset, int64_t length, int64_t fileSize);

 private:
  struct Stream {
    int64_t next = -1;    ///< where the stream continues; -1: unused
    int64_t window = 0;   ///< bytes to be ahead
    int64_t fetched = 0;  ///< up to where was already advised
    uint64_t used = 0;
  };
  Stream* Continued(int64_t offset);

  std::mutex mutex;
  std::array<Stream, 4> streams;
  uint64_t reads = 0;
};

class Reader {
 public:
  Reader(Remote& itsRemote, TaskPool& itsPool, Patience& itsPatience)
      : remote(itsRemote), pool(itsPool), patience(itsPatience) {}

  /// Bytes read or a negative errno.
  ssize_t Read(const ContentPtr& content, const std::string& id, ReadPattern& pattern,
               std::span<char> buffer, int64_t offset);
  /// Fetches all that is missing: 0 or a positive errno.
  int Complete(const ContentPtr& content, const std::string& id);

 private:
  void Want(const ContentPtr& content, const std::string& id, int64_t from, int64_t to,
            Urgency urgency);
  void Hurry(const ContentPtr& content, int64_t firstPage, int64_t endPage);
  /// As many of the ranges that wait as may be on their way.
  void BeginNext(const ContentPtr& content);
  void Begin(const ContentPtr& content, const std::shared_ptr<Fetch>& fetch, Urgency urgency);
  void Run(const ContentPtr& content, const std::shared_ptr<Fetch>& fetch);
  void Finish(const ContentPtr& content, const Fetch& fetch, int error);
  int Await(const ContentPtr& content, const std::string& id, int64_t from, int64_t to);

  Remote& remote;
  TaskPool& pool;
  Patience& patience;
};

}  // namespace host::mount
