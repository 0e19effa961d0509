// Open files: reading through the cache, writing to the local disk, and the moment when what was
// written becomes owed to the service.
//
// The first write completes the local bytes and notes in the journal that an edit is under way;
// close and fsync put bytes and journal row on the disk before they return, and only then may the
// upload queue send them. A killed host finds in the journal which edits were never closed.
//
// Thread-safe. Functions return 0, a count, or a negative errno.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/mount/content_store.h"
#include "host/mount/reader.h"
#include "host/mount/settings.h"
#include "host/mount/tree.h"

namespace host::mount {

/// What the files need of the upload queue.
class Owed {
 public:
  /// A commit is owed to the service; `heldOpen`: a program may go on writing.
  virtual void Committed(Inode ino, bool heldOpen) = 0;
  /// Waits until the service has it: 0 or a positive errno.
  virtual int AwaitSettled(Inode ino) = 0;

 protected:
  ~Owed() = default;
};

/// An inode that somebody has open. Shared by all its open files.
struct Node {
  explicit Node(Inode number) : ino(number) {}

  const Inode ino;
  std::mutex mutex;  // taken before the mutex of State; guards all below but the atomics
  ContentPtr content;
  std::string id;         ///< Drive id that the content is fetched from
  bool editing = false;   ///< the journal knows that an edit is under way
  bool timesSet = false;  ///< the time was set on purpose since the last write
  int handles = 0;
  int writers = 0;
  std::atomic<bool> changed{false};   ///< written since the last commit
  std::atomic<bool> outdated{false};  ///< the service has another version
  std::atomic<int64_t> size{0};       ///< both valid while `changed`
  std::atomic<int64_t> mtime{0};
};

struct OpenFile {
  std::shared_ptr<Node> node;
  bool writes = false;
  bool made = false;  ///< the content comes from the record
  std::string inlineContent;
  ReadPattern pattern;
};

class Files {
 public:
  Files(State& itsState, Tree& itsTree, ContentStore& itsStore, Reader& itsReader, Owed& itsOwed,
        const Settings& itsSettings)
      : state(itsState),
        tree(itsTree),
        store(itsStore),
        reader(itsReader),
        owed(itsOwed),
        settings(itsSettings) {}

  /// `flags` as of open(2).
  int Open(Inode ino, int flags, std::unique_ptr<OpenFile>& file);
  int Create(Inode parent, const std::string& name, int flags, Item& item,
             std::unique_ptr<OpenFile>& file);
  ssize_t Read(OpenFile& file, std::span<char> buffer, int64_t offset);
  ssize_t Write(OpenFile& file, std::span<const char> bytes, int64_t offset);
  int Truncate(Inode ino, int64_t size);
  int SetTime(Inode ino, int64_t nanoseconds);
  int Flush(OpenFile& file);
  int Fsync(OpenFile& file);
  void Release(std::unique_ptr<OpenFile> file);
  /// As if everything that is open were closed now: the mount ends, nobody will close it any more.
  void CommitAll();
  /// Tries again to keep what was left in files whose last close failed for want of room.
  void RetryRefused();

  /// Size and time as programs must see them now, also while the file is being written.
  void Overlay(Item& item);
  /// The service has another version of the item.
  void Outdated(Inode ino);
  /// Fetches everything of a file: 0 or a negative errno.
  int Keep(Inode ino);
  int OpenCount();

 private:
  using NodePtr = std::shared_ptr<Node>;

  NodePtr Acquire(Inode ino, bool writes);
  void Drop(const NodePtr& node, bool writes);
  NodePtr Find(Inode ino);
  int Load(Node& node);
  int BeginEdit(Node& node);
  int BeginLocked(Node& node, bool& settled);
  int Settle(Node& node);
  int Replace(Node& node);
  void LeaveOpen(std::unique_ptr<OpenFile> file);
  int Resize(Node& node, int64_t size);
  int Commit(Node& node);
  int CommitLocked(Node& node, const std::optional<std::string>& bytes);
  int TryCommit(Node& node);
  bool MayCommit(const OpenFile& file);
  void NoteWrite(Node& node);

  State& state;
  Tree& tree;
  ContentStore& store;
  Reader& reader;
  Owed& owed;
  const Settings& settings;
  std::mutex mutex;  // a leaf
  std::map<Inode, NodePtr> nodes;
  std::vector<std::unique_ptr<OpenFile>> refused;
};

}  // namespace host::mount
