#include "host/core/download.h"

#include <algorithm>
#include <string>

#include "host/core/sinks.h"

namespace host {
namespace {

/// What of a block lies in [next, end): a transfer that was tried again repeats bytes, and a
/// service that ignores the range sends too many.
std::span<const char> Wanted(int64_t offset, std::span<const char> bytes, int64_t next,
                             int64_t end) {
  const int64_t from = std::clamp<int64_t>(next - offset, 0, static_cast<int64_t>(bytes.size()));
  const int64_t to = std::clamp<int64_t>(end - offset, from, static_cast<int64_t>(bytes.size()));
  return bytes.subspan(static_cast<size_t>(from), static_cast<size_t>(to - from));
}

}  // namespace

void Download(Session& session, const Item& file, int64_t offset, int64_t length,
              const std::shared_ptr<_FS_HANDLE>& handle, const std::string& shown,
              const ByteSink& sink) {
  const std::string doing = "cannot read \"" + shown + "\"";
  const int64_t end = std::min(file.size, offset + std::min(length, file.size));
  if (offset >= end) return;
  int64_t next = offset;
  FetchSink fetch(handle, [&](int64_t at, std::span<const char> bytes) {
    if (at > next) throw Failure(doing + ": bytes are missing from the answer", "try again");
    const std::span<const char> wanted = Wanted(at, bytes, next, end);
    if (!wanted.empty()) sink(next, wanted);
    next += static_cast<int64_t>(wanted.size());
  });
  handle->content = file.content;
  HostLog::TakeLastError();
  const AERROR code =
      session.Drive().Read(file.id.c_str(), offset, end - offset, handle, &fetch, nullptr);
  fetch.Rethrow();
  if (code != AERROR::SUCCESS) throw session.Failed(doing, code);
  if (next != end)
    throw Failure(doing + ": the service sent " + std::to_string(next - offset) + " of " +
                      std::to_string(end - offset) + " bytes",
                  "try again", AERROR::FILE_READ_FAILED);
}

}  // namespace host
