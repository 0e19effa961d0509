// Upload of a whole file through a resumable session.
// https://developers.google.com/drive/api/guides/manage-uploads#resumable
#include "gdrive/google_drive.h"
#include "gdrive/guarded.h"
#include "net/cache_callbacks.h"
#include "util/strings.h"

namespace {

/// The session's address in a raw header block; empty when there is none.
std::string FindLocation(const _CURLRTN& result) {
  const std::string block(result.headers.get(), result.headerLength);
  for (const std::string& line : Split(block, "\r\n")) {
    const auto pieces = Split(line, ": ");
    if (pieces.size() == 2 && pieces[0] == "Location") return pieces[1];
  }
  return {};
}

}  // namespace

AERROR GoogleDrive::Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* cache,
                           _FS_FILE_V2* file, UPLOAD_FLAG, char** message) {
  if (parent == nullptr || cache == nullptr || file == nullptr || file->size < 0) {
    return AERROR::INVALID_PARAMETER;
  }
  return Guarded([&] {
    std::string folder = parent;
    if (IsVirtualId(folder)) return AERROR::ACCESS_DENIED;
    if (!Auth()) return AERROR::FAILED;
    if (folder.empty()) folder = RootId();
    std::string url;
    if (OpenUploadSession(folder, *file, &url) != AERROR::SUCCESS) {
      return AERROR::FILE_WRITE_FAILED;
    }
    return SendContent(url, handle, cache, file, message);
  });
}

AERROR GoogleDrive::OpenUploadSession(const std::string& parent, const _FS_FILE_V2& file,
                                      std::string* url) {
  const auto build = [&](std::shared_ptr<GoogleCURL> request) {
    const std::string base = Api("/upload/drive/v3/files");
    request->AddHeader("X-Upload-Content-Length", static_cast<long long>(file.size));
    request->AddHeader("Content-Type", kJsonType);
    request->AddQuery("uploadType", "resumable");
    request->AddQuery("supportsTeamDrives", "true");
    Sign(*request);
    JsonObject metadata = JsonObject::GetEmptyObject();
    if (file.id.empty()) {
      request->SetURL(base.c_str());
      metadata["parents"].InsertArrayItem(parent);
      metadata["name"] = file.name;
      const auto type = exportTypes.find(ToLower(Split(file.name, ".").back()));
      if (type != exportTypes.end()) {
        metadata["mimeType"] = type->second;
        request->AddHeader("X-Upload-Content-Type", type->second);
      }
    } else {
      // The item keeps its name, parents and type: only its content is replaced.
      request->SetURL((base + "/" + file.id).c_str());
      request->SetRequest("PATCH");
    }
    return request->PerformPost(metadata.ToText());
  };
  const auto read = [&](_CURLRTN& result) {
    return Guarded([&] {
      *url = FindLocation(result);
      return AERROR::SUCCESS;
    });
  };
  return Query<GoogleDriveExponentialBackoff>("Upload", build, {{200, {read, ""}}}, {},
                                              {{CURLE_OPERATION_TIMEDOUT, AERROR::TIMEDOUT}});
}

AERROR GoogleDrive::SendContent(const std::string& url, const std::shared_ptr<_FS_HANDLE>& handle,
                                ICacheIO* cache, _FS_FILE_V2* file, char** message) {
  const long long size = file->size;
  UploadContext upload;
  const auto build = [&](std::shared_ptr<GoogleCURL> request) {
    request->SetRequest("PUT");
    request->SetURL(url.c_str());
    request->AddQuery("fields", kFileFields);
    Sign(*request);
    request->RemoveQuery("cid");  // the session's address carries all that it needs
    upload = UploadContext{0, handle, cache, size};
    if (handle) handle->transferred = 0;
    request->SetSpeedLimit(speedLimit);
    request->SetPostFileSize(size);
    request->BindHandle(handle);
    request->SetSeek(reinterpret_cast<void*>(&read_callback_cache_seek_func), &upload);
    return request->PerformPost(reinterpret_cast<void*>(&read_callback_cache_func), &upload, size);
  };
  const auto complete = [&](_CURLRTN& result) {
    try {
      const JsonObject body(result.body.get(), result.bodyLength);
      const std::string id = body.GetObject("id");
      // Also when it cannot be read back: a new file without its id would be uploaded twice.
      file->id = id;
      (void)GetFileInfo(id.c_str(), file, message);
      return AERROR::SUCCESS;
    } catch (...) {
      return AERROR::FILE_WRITE_FAILED;
    }
  };
  // 308: the service does not have the whole file.
  const auto incomplete = [](_CURLRTN&) { return AERROR::FILE_WRITE_FAILED; };
  return Query<GoogleDriveExponentialBackoff>(
      "Upload", build, {{200, {complete, ""}}, {300, {incomplete, ""}}}, {},
      {{CURLE_OPERATION_TIMEDOUT, AERROR::TIMEDOUT}, {CURLE_WRITE_ERROR, AERROR::UPLOAD_CANCELED}});
}
