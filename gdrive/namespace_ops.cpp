// Rename, move, make folders, delete and set times.
// https://developers.google.com/drive/api/reference/rest/v3/files
#include "gdrive/google_drive.h"
#include "gdrive/guarded.h"
#include "net/memory_callbacks.h"

namespace {

const TransferErrorMap kTimeout{{CURLE_OPERATION_TIMEDOUT, AERROR::TIMEDOUT}};

/// Posts a body that libcurl cannot rewind. It would send a request again whose connection broke
/// before the answer, as if it had never arrived; of a folder that would make two.
_CURLRTN PostOnce(CURLImpl& request, const std::string& body) {
  MemorySource source{body.data(), 0, static_cast<long long>(body.size())};
  return request.PerformPost(reinterpret_cast<void*>(&read_callback_buf_func), &source,
                             source.length);
}

}  // namespace

AERROR GoogleDrive::Rename(const char* id, const char* newName, _FS_FILE_V2* file, char** message) {
  if (id == nullptr || newName == nullptr || file == nullptr) return AERROR::INVALID_PARAMETER;
  return Guarded([&] {
    const std::string item = id;
    const std::string name = newName;
    if (IsVirtualId(item)) return AERROR::ACCESS_DENIED;
    const auto build = [&](std::shared_ptr<GoogleCURL> request) {
      request->SetRequest("PATCH");
      request->SetURL((Api("/drive/v3/files/") + item).c_str());
      request->AddHeader("Content-Type", kJsonType);
      request->AddQuery("supportsTeamDrives", "true");
      Sign(*request);
      JsonObject body = JsonObject::GetEmptyObject();
      body["name"] = name;
      return request->PerformPost(body.ToText());
    };
    const auto refresh = [&](_CURLRTN&) { return GetFileInfo(item.c_str(), file, message); };
    return Query<GoogleDriveExponentialBackoff>("Rename", build, {{200, {refresh, ""}}}, {},
                                                kTimeout);
  });
}

AERROR GoogleDrive::Move(const char* source, const char* destination, _FS_FILE_V2* file,
                         char** message) {
  if (source == nullptr || destination == nullptr || file == nullptr) {
    return AERROR::INVALID_PARAMETER;
  }
  return Guarded([&] {
    const std::string target = destination;
    if (IsVirtualId(source) || IsVirtualId(target) || IsVirtualId(file->parent_id)) {
      return AERROR::ACCESS_DENIED;
    }
    return DoParentWork(file, file->parent_id.c_str(), target.c_str(), message);
  });
}

AERROR GoogleDrive::MoveDir(const char* source, const char* destination, _FS_FILE_V2* file,
                            char** message) {
  return Move(source, destination, file, message);
}

AERROR GoogleDrive::CreateDirectory(const char* parent, _FS_FILE_V2* file, char**) {
  if (parent == nullptr || file == nullptr) return AERROR::INVALID_PARAMETER;
  return Guarded([&] {
    std::string folder = parent;
    if (IsVirtualId(folder)) return AERROR::ACCESS_DENIED;
    if (folder.empty()) folder = RootId();
    const auto build = [&](std::shared_ptr<GoogleCURL> request) {
      request->SetURL(Api("/drive/v3/files").c_str());
      request->SetRequest("POST");
      request->AddHeader("Content-Type", kJsonType);
      request->AddQuery("fields", kFileFields);
      request->AddQuery("supportsTeamDrives", "true");
      Sign(*request);
      JsonObject body = JsonObject::GetEmptyObject();
      body["parents"].InsertArrayItem(folder);
      body["name"] = file->name;
      body["mimeType"] = kFolderMimeType;
      return PostOnce(*request, body.ToText());
    };
    const auto read = [&](_CURLRTN& result) {
      return Guarded([&] {
        const JsonObject body(result.body.get(), result.bodyLength);
        FillData(body.GetObject("/"), file);
        return AERROR::SUCCESS;
      });
    };
    const auto refused = [](_CURLRTN&) { return AERROR::CAN_NOT_MAKE; };
    return Query<GoogleDriveExponentialBackoff>(
        "CreateDirectory", build, {{200, {read, ""}}, {400, {refused, ""}}, {500, {refused, ""}}},
        {}, kTimeout);
  });
}

AERROR GoogleDrive::Delete(_FS_FILE_V2* file, char** message) {
  if (file == nullptr) return AERROR::INVALID_PARAMETER;
  return Guarded([&] {
    const std::string item = file->id;
    if (IsVirtualId(item)) return AERROR::ACCESS_DENIED;
    // An item that also stands elsewhere is only taken out of the folder that the host sees it in.
    if (file->parents.size() >= 2) {
      return DoParentWork(file, file->parent_id.c_str(), nullptr, message);
    }
    const auto build = [&](std::shared_ptr<GoogleCURL> request) {
      request->SetRequest("DELETE");
      request->SetURL((Api("/drive/v3/files/") + item).c_str());
      request->AddQuery("supportsTeamDrives", "true");
      Sign(*request);
      return request->PerformGet(nullptr, nullptr);
    };
    return Query<GoogleDriveExponentialBackoff>("Delete", build, {}, {}, kTimeout);
  });
}

AERROR GoogleDrive::DeleteDirectory(_FS_FILE_V2* file, char** message) {
  return Delete(file, message);
}

AERROR GoogleDrive::SetFileTime(const char* id, std::string creation, std::string,
                                std::string modification, _FS_FILE_V2* file, char**) {
  if (id == nullptr || file == nullptr) return AERROR::INVALID_PARAMETER;
  return Guarded([&] {
    const std::string item = id;
    if (IsVirtualId(item)) return AERROR::ACCESS_DENIED;
    const auto build = [&](std::shared_ptr<GoogleCURL> request) {
      request->SetRequest("PATCH");
      request->SetURL((Api("/drive/v3/files/") + item).c_str());
      request->AddHeader("Content-Type", kJsonType);
      request->AddQuery("fields", kFileFields);
      request->AddQuery("setModifiedDate", "true");
      request->AddQuery("supportsTeamDrives", "true");
      Sign(*request);
      JsonObject body = JsonObject::GetEmptyObject();
      if (!creation.empty()) body["createdTime"] = creation;
      if (!modification.empty()) body["modifiedTime"] = modification;
      return request->PerformPost(body.ToText());
    };
    const auto read = [&](_CURLRTN& result) {
      return Guarded([&] {
        const JsonObject body(result.body.get(), result.bodyLength);
        FillData(body.GetObject("/"), file);
        return AERROR::SUCCESS;
      });
    };
    return Query<GoogleDriveExponentialBackoff>("SetFileTime", build, {{200, {read, ""}}}, {},
                                                kTimeout);
  });
}
