// Listing folders and reading one item's metadata.
// https://developers.google.com/drive/api/reference/rest/v3/files/list
#include <algorithm>

#include "gdrive/google_drive.h"
#include "gdrive/guarded.h"
#include "gdrive/json_array.h"

namespace {

void Hand(IFileList* list, const _FS_FILE_V1& record) {
  _FS_FILE_V2 copy;
  static_cast<_FS_FILE_V1&>(copy) = record;
  list->Add(&copy);
}

/// An item is a child of the listed folder unless it names parents and none of them is the folder.
/// The query for shared items has no folder that parents could name.
bool IsElsewhere(const JsonObject& file, const std::string& folder) {
  if (!file.HasObject("/parents")) return false;
  const JsonObject parents = GetArray(file, "/parents");
  const int count = static_cast<int>(parents.GetArraySize());
  for (int i = 0; i < count; ++i) {
    if (std::string(parents[i]) == folder) return false;
  }
  return true;
}

}  // namespace

AERROR GoogleDrive::GetFileList(const char* id, IFileList* list, char**) {
  if (id == nullptr || list == nullptr) return AERROR::INVALID_PARAMETER;
  return Guarded([&] {
    if (!Auth()) return AERROR::FAILED;
    const std::string folder = id;
    if (folder == kVirtualRoot) return ListVirtualRoot(list);
    if (folder == kShared) return ListFiles(folder, "trashed = false and sharedWithMe", list);
    if (folder == kTeamDrives) return ListTeamDrives(list);
    return ListFiles(folder, "\"" + folder + "\" in parents and trashed = false", list);
  });
}

AERROR GoogleDrive::ListVirtualRoot(IFileList* list) {
  const bool withTeamDrives = useTeamDrive;
  const bool withShared = showShared;
  if (!withTeamDrives && !withShared) {
    const std::string root = RootId();
    return ListFiles(root, "\"" + root + "\" in parents and trashed = false", list);
  }
  _FS_FILE_V1 root;
  {
    const std::lock_guard guard(lock);
    root = rootRecord;
  }
  if (withTeamDrives) Hand(list, teamDrives);
  if (withShared) Hand(list, sharedFiles);
  Hand(list, root);
  return AERROR::SUCCESS;
}

AERROR GoogleDrive::ListFiles(const std::string& folder, const std::string& query,
                              IFileList* list) {
  std::string pageToken;
  const auto build = [&](std::shared_ptr<GoogleCURL> request) {
    request->SetURL(Api("/drive/v3/files").c_str());
    request->AddQuery("q", query);
    request->AddQuery("pageSize", std::to_string(listPageSize));
    request->AddQuery("includeTeamDriveItems", "true");
    request->AddQuery("supportsTeamDrives", "true");
    request->AddQuery("fields", kListFields);
    if (!pageToken.empty()) request->AddQuery("pageToken", pageToken);
    Sign(*request);
    return request->PerformGet(nullptr, nullptr);
  };
  const auto read = [&](_CURLRTN& result) {
    return Guarded([&] { return ReadPage(result, folder, list, &pageToken); });
  };
  return Query<GoogleDriveExponentialBackoff>("GetFileList", build, {}, {{200, {read, ""}}},
                                              {{CURLE_OPERATION_TIMEDOUT, AERROR::TIMEDOUT}});
}

AERROR GoogleDrive::ReadPage(_CURLRTN& result, const std::string& folder, IFileList* list,
                             std::string* pageToken) const {
  const JsonObject body(result.body.get(), result.bodyLength);
  const JsonObject files = GetArray(body, "/files");
  const int count = static_cast<int>(files.GetArraySize());
  for (int i = 0; i < count; ++i) {
    const JsonObject file = files[i];
    if (IsElsewhere(file, folder)) continue;
    _FS_FILE_V2 record;
    FillData(file, &record);
    if (std::find(record.parents.begin(), record.parents.end(), folder) == record.parents.end()) {
      record.parents.push_back(folder);
    }
    list->Add(&record);
  }
  pageToken->clear();
  if (!body.HasObject("/nextPageToken")) return AERROR::SUCCESS;
  *pageToken = std::string(body.GetObject("/nextPageToken"));
  return AERROR::RETRY;
}

AERROR GoogleDrive::ListTeamDrives(IFileList* list) {
  std::string pageToken;
  const auto build = [&](std::shared_ptr<GoogleCURL> request) {
    request->SetURL(Api("/drive/v3/teamdrives").c_str());
    request->AddQuery("includeTeamDriveItems", "true");
    request->AddQuery("supportsTeamDrives", "true");
    request->AddQuery("pageSize", "100");
    if (!pageToken.empty()) request->AddQuery("pageToken", pageToken);
    Sign(*request);
    return request->PerformGet(nullptr, nullptr);
  };
  const auto read = [&](_CURLRTN& result) {
    return Guarded([&] {
      const JsonObject body(result.body.get(), result.bodyLength);
      const JsonObject drives = GetArray(body, "/teamDrives");
      const int count = static_cast<int>(drives.GetArraySize());
      for (int i = 0; i < count; ++i) {
        _FS_FILE_V2 record;
        record.id = std::string(drives[i].GetObject("/id"));
        record.name = std::string(drives[i].GetObject("/name"));
        record.attributes = kFsFolder;
        record.parents = {kTeamDrives};
        list->Add(&record);
      }
      pageToken.clear();
      if (!body.HasObject("/nextPageToken")) return AERROR::SUCCESS;
      pageToken = std::string(body.GetObject("/nextPageToken"));
      return AERROR::RETRY;
    });
  };
  return Query<GoogleDriveExponentialBackoff>("GetFileList", build, {}, {{200, {read, ""}}},
                                              {{CURLE_OPERATION_TIMEDOUT, AERROR::TIMEDOUT}});
}

AERROR GoogleDrive::GetFileInfo(const char* id, _FS_FILE_V2* out, char**) {
  if (id == nullptr || out == nullptr) return AERROR::INVALID_PARAMETER;
  return Guarded([&] {
    const std::string item = id;
    for (const _FS_FILE_V1* folder : {&virtualRoot, &teamDrives, &sharedFiles}) {
      if (item != folder->id) continue;
      static_cast<_FS_FILE_V1&>(*out) = *folder;
      return AERROR::SUCCESS;
    }
    const auto build = [&](std::shared_ptr<GoogleCURL> request) {
      request->SetURL((Api("/drive/v3/files/") + item).c_str());
      request->AddQuery("supportsTeamDrives", "true");
      request->AddQuery("fields", kFileFields);
      Sign(*request);
      return request->PerformGet(nullptr, nullptr);
    };
    const auto read = [&](_CURLRTN& result) {
      return Guarded([&] {
        const JsonObject body(result.body.get(), result.bodyLength);
        out->size = 0;
        FillData(body, out);
        return AERROR::SUCCESS;
      });
    };
    return Query<GoogleDriveExponentialBackoff>("GetFileInfo", build, {}, {{200, {read, ""}}},
                                                {{CURLE_OPERATION_TIMEDOUT, AERROR::TIMEDOUT}});
  });
}
