// Following remote changes by polling.
// https://developers.google.com/drive/api/guides/manage-changes
#include <unordered_set>
#include <vector>

#include "gdrive/google_drive.h"
#include "gdrive/guarded.h"
#include "gdrive/json_array.h"
#include "gdrive/push_connection.h"
#include "gdrive/thread_mark.h"

namespace {

/// A service that reports changes without ever moving the cursor would hold a poll for ever.
constexpr int kRoundsWithoutProgress = 1000;

/// Distinct ids in the order of their first insertion.
class IdList {
 public:
  void Add(const std::string& id) {
    if (known.insert(id).second) ids.push_back(id);
  }
  auto begin() const { return ids.begin(); }
  auto end() const { return ids.end(); }

 private:
  std::vector<std::string> ids;
  std::unordered_set<std::string> known;
};

void AddAffectedFolders(const JsonObject& change, IdList* folders) {
  if (!change.HasObject("/file")) return;  // removed: the entry does not say from where
  const JsonObject file = change.GetObject("/file");
  const std::string id = file.GetObject("id");
  const std::string mimeType = file.GetObject("mimeType");
  if (file.HasObject("parents")) {
    const JsonObject parents = GetArray(file, "parents");
    for (int i = static_cast<int>(parents.GetArraySize()) - 1; i >= 0; --i) {
      folders->Add(parents[i]);
    }
  }
  if (mimeType == kFolderMimeType) folders->Add(id);
}

}  // namespace

std::string GoogleDrive::Cursor() const {
  const std::lock_guard guard(lock);
  return lastChangeId;
}

/// Persisted at once, so that a restarted host goes on from here.
void GoogleDrive::MoveCursor(const std::string& token) {
  {
    const std::lock_guard guard(lock);
    lastChangeId = token;
  }
  SetProfileValue("lastchangeid", token, 0);
}

void GoogleDrive::GetLargestChangeId() {
  const std::string stored = ProfileValue("lastchangeid");
  if (stored.empty()) {
    (void)FetchChanges([](const JsonObject&) {});
    return;
  }
  const std::lock_guard guard(lock);
  lastChangeId = stored;
}

std::string GoogleDrive::GetChangeList(int) {
  JsonObject all("{\"changes\":[]}");
  JsonObject changes = all["changes"];
  (void)FetchChanges([&](const JsonObject& change) { changes.InsertArrayItem(change); });
  return all.ToText();
}

AERROR GoogleDrive::FetchChanges(const ChangeVisitor& visit) {
  std::unordered_set<std::string> asked;
  const auto build = [&](std::shared_ptr<GoogleCURL> request) {
    const std::string cursor = Cursor();
    asked.insert(cursor);
    if (cursor.empty()) {
      request->SetURL(Api("/drive/v3/changes/startPageToken").c_str());
    } else {
      request->SetURL(Api("/drive/v3/changes").c_str());
      request->AddQuery("pageToken", cursor);
      request->AddQuery("fields", "changes/file,newStartPageToken,nextPageToken");
    }
    Sign(*request);
    return request->PerformGet(nullptr, nullptr);
  };
  const auto read = [&](_CURLRTN& result) {
    return Guarded([&] { return ReadChangePage(result, asked, visit); });
  };
  return Query<GoogleDriveExponentialBackoff>("GetChangeList", build, {{200, {read, ""}}}, {}, {});
}

AERROR GoogleDrive::ReadChangePage(_CURLRTN& result, const std::unordered_set<std::string>& asked,
                                   const ChangeVisitor& visit) {
  const JsonObject body(result.body.get(), result.bodyLength);
  // Looked at before the cursor moves past it.
  const bool hasChanges = body.HasObject("/changes");
  if (hasChanges) (void)GetArray(body, "/changes");
  for (const char* name : {"/newStartPageToken", "/startPageToken"}) {
    if (body.HasObject(name)) MoveCursor(body.GetObject(name));
  }
  if (hasChanges) {
    const JsonObject changes = body.GetObject("/changes");
    const int count = static_cast<int>(changes.GetArraySize());
    for (int i = 0; i < count; ++i) visit(changes[i]);
  }
  if (!body.HasObject("/nextPageToken")) return AERROR::SUCCESS;
  MoveCursor(body.GetObject("/nextPageToken"));
  // Pages that lead back to one another would be fetched for ever.
  return asked.count(Cursor()) != 0 ? AERROR::SUCCESS : AERROR::RETRY;
}

AERROR GoogleDrive::GetChanges(IFileChanges* sink, char**) {
  if (sink == nullptr) return AERROR::INVALID_PARAMETER;
  // A sink may ask for a poll of its own; what it would find is on its way already.
  if (pollingThread == std::this_thread::get_id()) return AERROR::SUCCESS;
  if (!Auth()) return AERROR::FAILED;
  {
    const std::lock_guard guard(changeLock);
    if (releaseRequested) return AERROR::SUCCESS;  // in the poll that this one waited for
    const ThreadMark mark(pollingThread);
    (void)Guarded([&] {
      CollectChanges(sink);
      return AERROR::SUCCESS;
    });
    if (!releaseRequested) return AERROR::SUCCESS;
  }
  EndAfterPoll();
  return AERROR::SUCCESS;
}

/// Ends the object after a poll whose sink released it.
void GoogleDrive::EndAfterPoll() {
  std::shared_ptr<PushConnection> closing;
  {
    const std::lock_guard guard(pushLock);
    closing = push;
  }
  if (closing) closing->Close();
  delete this;
}

void GoogleDrive::CollectChanges(IFileChanges* sink) {
  IdList folders;
  std::unordered_set<std::string> cursors{Cursor()};
  int idleRounds = 0;
  bool changed = true;
  while (changed && idleRounds < kRoundsWithoutProgress) {
    changed = false;
    (void)FetchChanges([&](const JsonObject& change) {
      changed = true;
      // One malformed entry must not hide the others.
      (void)Guarded([&] {
        AddAffectedFolders(change, &folders);
        return AERROR::SUCCESS;
      });
    });
    idleRounds = cursors.insert(Cursor()).second ? 0 : idleRounds + 1;
  }
  for (const std::string& id : folders) {
    if (releaseRequested) return;  // by the sink itself
    // A sink that fails on one folder still hears of the others.
    (void)Guarded([&] {
      sink->Changed(id.c_str());
      return AERROR::SUCCESS;
    });
  }
}
