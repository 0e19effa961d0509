// Resumable upload sessions.
// https://developers.google.com/drive/api/guides/manage-uploads#resumable
#pragma once

#include <json/json.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "emulator/content_store.h"
#include "emulator/metadata.h"
#include "emulator/store.h"

namespace emulator {

/// Bytes are committed in pieces of this size; only the last piece may be shorter.
inline constexpr int64_t kUploadGranule = 256 * 1024;

/// One upload on its way. Locked by whoever works on it.
class UploadSession {
 public:
  UploadSession(Store& store, int64_t user) : owner(user), writer(NewWriter(store)) {}

  /// Adds bytes after what has arrived so far.
  void Append(const char* data, size_t size);
  /// Commits what has arrived, the last short piece included.
  void CommitAll();
  /// Forgets what has arrived since the last whole piece, as the service does when a request
  /// breaks.
  void DropRest() { pending.clear(); }
  void StartOver();
  int64_t Committed() const { return writer->Size(); }
  int64_t Arrived() const { return writer->Size() + static_cast<int64_t>(pending.size()); }
  /// What has been committed, for a file to be made of it.
  NewContent Content() const;
  /// The file is made and the content its own. The session only tells of it from now on.
  void Finish(const std::string& id);
  /// Forgets what has arrived, if anything waits to become a file.
  void Cancel();

  std::mutex mutex;
  const int64_t owner;  ///< user number
  std::string fileId;   ///< of the file to update; empty: a new file
  Json::Value metadata;
  std::string mimeType;  ///< X-Upload-Content-Type
  int64_t total = -1;    ///< bytes; -1: not announced yet
  int64_t expires = 0;   ///< milliseconds since the epoch
  std::string resultId;  ///< of the file, once the upload is complete
  bool cancelled = false;

 private:
  static std::unique_ptr<ContentWriter> NewWriter(Store& store) {
    return store.Contents().Create(store.NewBlob());
  }

  std::unique_ptr<ContentWriter> writer;  ///< empty once finished or cancelled
  std::string pending;                    ///< less than a granule
};

/// Any thread. Sessions do not outlive the process.
class Uploads {
 public:
  /// Returns the session's id.
  std::string Add(std::shared_ptr<UploadSession> session);
  /// Null when there is none (any more).
  std::shared_ptr<UploadSession> Find(const std::string& id);
  /// Makes every session that exists unknown, as after a week.
  void ExpireAll();

 private:
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<UploadSession>> sessions;
};

}  // namespace emulator
