#include "host/core/download.h"

#include <algorithm>
#include <string>

#include "host/core/sinks.h"

namespace host {
namespace {

constexpr int kResumes = 5;

/// What of a block lies in [next, end): a transfer that was tried again repeats bytes, and a
/// service that ignores the range sends too many.
std::span<const char> Wanted(int64_t offset, std::span<const char> bytes, int64_t next,
                             int64_t end) {
  const int64_t from = std::clamp<int64_t>(next - offset, 0, static_cast<int64_t>(bytes.size()));
  const int64_t to = std::clamp<int64_t>(end - offset, from, static_cast<int64_t>(bytes.size()));
  return bytes.subspan(static_cast<size_t>(from), static_cast<size_t>(to - from));
}

/// A file that was read in several goes must not have become another one in between.
void CheckUnchanged(Session& session, const Item& file, const std::string& doing) {
  Item now;
  Perform(session, doing, [&](char** message) {
    return session.Drive().GetFileInfo(file.id.c_str(), &now, message);
  });
  if (now.time1 != file.time1 || now.size != file.size)
    throw Failure(doing + ": it was changed meanwhile", "try again", AERROR::FILE_READ_FAILED);
}

Failure Incomplete(const std::string& doing, int64_t sent, int64_t wanted) {
  return Failure(doing + ": the service sent " + std::to_string(sent) + " of " +
                     std::to_string(wanted) + " bytes",
                 "try again", AERROR::FILE_READ_FAILED);
}

}  // namespace

void Download(Session& session, const Item& file, int64_t offset, int64_t length,
              const std::shared_ptr<_FS_HANDLE>& handle, const std::string& shown,
              const ByteSink& sink) {
  const std::string doing = "cannot read \"" + shown + "\"";
  const int64_t end = std::min(file.size, offset + std::min(length, file.size));
  int64_t next = offset;
  FetchSink fetch(handle, [&](int64_t at, std::span<const char> bytes) {
    if (at > next) throw Failure(doing + ": bytes are missing from the answer", "try again");
    const std::span<const char> wanted = Wanted(at, bytes, next, end);
    if (!wanted.empty()) sink(next, wanted);
    next += static_cast<int64_t>(wanted.size());
  });
  handle->content = file.content;
  for (int resumed = 0; next < end; ++resumed) {
    const int64_t before = next;
    HostLog::TakeLastError();
    const AERROR code =
        session.Drive().Read(file.id.c_str(), next, end - next, handle, &fetch, nullptr);
    fetch.Rethrow();
    // A transfer that broke off is taken up where it ended, as long as that leads anywhere.
    const bool hopeless = next == before || resumed == kResumes || handle->status >= 3;
    if (code != AERROR::SUCCESS && hopeless) throw session.Failed(doing, code);
    if (next < end && hopeless) throw Incomplete(doing, next - offset, end - offset);
    if (next == end && resumed > 0) CheckUnchanged(session, file, doing);
  }
}

}  // namespace host
