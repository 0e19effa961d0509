// Ranged download.
// https://developers.google.com/drive/api/guides/manage-downloads
#include <algorithm>
#include <climits>
#include <cstdlib>

#include "gdrive/google_drive.h"
#include "gdrive/guarded.h"
#include "net/cache_callbacks.h"

namespace {

AERROR ReadInline(const std::string& content, long long offset, long long length,
                  IFetchCallback* callback) {
  const auto size = static_cast<long long>(content.size());
  const long long start = std::min(offset, size);
  long long extra = 0;
  callback->OnData(offset, content.data() + start,
                   static_cast<unsigned long long>(std::min(length, size - start)), &extra);
  return AERROR::SUCCESS;
}

DownloadContext NewDownload(const std::shared_ptr<_FS_HANDLE>& handle, IFetchCallback* callback) {
  DownloadContext download;
  download.staging.reset(static_cast<char*>(malloc(kStagingSize)));
  if (!download.staging) throw std::bad_alloc();
  download.handle = handle;
  download.callback = callback;
  return download;
}

void Restart(DownloadContext& download, long long offset, long long length, CURL* easy) {
  download.offset = download.start = offset;
  download.remaining = length;
  download.buffered = 0;
  download.received = 0;
  download.easy = easy;
}

}  // namespace

AERROR GoogleDrive::Read(const char* id, long long offset, long long length,
                         std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback, char**) {
  if (id == nullptr || callback == nullptr || offset < 0 || length < 0) {
    return AERROR::FILE_READ_FAILED;
  }
  const bool isInline = handle && !handle->content.empty();
  if (!isInline && !Auth()) return AERROR::FAILED;
  const AERROR code = Guarded([&] {
    if (isInline) {
      return ReadInline(handle->content, offset, length, callback);
    }
    // A range of no bytes cannot be written down; the service would send the whole file.
    if (length == 0) return AERROR::SUCCESS;
    const std::string url = Api("/drive/v3/files/") + id;
    const long long last = offset + std::min(length - 1, LLONG_MAX - offset);
    const std::string range = "bytes=" + std::to_string(offset) + "-" + std::to_string(last);
    DownloadContext download = NewDownload(handle, callback);
    const auto build = [&](std::shared_ptr<GoogleCURL> request) {
      request->AddQuery("alt", "media");
      request->SetURL(url.c_str());
      request->AddHeader("Range", range);
      Sign(*request);
      Restart(download, offset, length, request->GetCURL());
      request->SetSpeedLimit(speedLimit);
      request->BindHandleForDownload(handle);
      return request->PerformGet(reinterpret_cast<void*>(&write_callback_cache_func), &download);
    };
    const auto flush = [&](_CURLRTN&) {
      return Guarded([&] {
        if (download.buffered != 0) download.Flush();
        return AERROR::SUCCESS;
      });
    };
    return Query<GoogleDriveExponentialBackoff>(
        "Read", build, {{200, {flush, ""}}}, {},
        {{CURLE_OPERATION_TIMEDOUT, AERROR::TIMEDOUT}, {CURLE_WRITE_ERROR, AERROR::READ_CANCELED}});
  });
  const bool told = code == AERROR::SUCCESS || code == AERROR::READ_CANCELED;
  return told ? code : AERROR::FILE_READ_FAILED;
}
