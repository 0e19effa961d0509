#include "host/core/sinks.h"

namespace host {

void ChangeSink::Changed(const char* folderId) noexcept {
  if (folderId == nullptr) return;
  std::lock_guard lock(mutex);
  try {
    function(folderId);
  } catch (...) {
    // One folder that could not be handled must not hide the next.
  }
}

void FetchSink::OnData(long long offset, const char* data, unsigned long long length, long long*) {
  const bool taken = exception.Guard([&] { function(offset, {data, length}); });
  if (!taken && handle) handle->status = 3;
}

int32_t UploadSource::Read(CacheReadRequest* request) {
  const bool given = exception.Guard([&] {
    request->read =
        function(request->offset, {static_cast<char*>(request->buffer), request->wanted});
  });
  return given ? 0 : static_cast<int32_t>(AERROR::FILE_READ_FAILED);
}

}  // namespace host
