#include "host/core/upload.h"

#include <utility>

namespace host {
namespace {

/// The plug-in reads the record back after an upload, but an upload whose read-back failed is no
/// failure to it; a time in the record tells that it was filled.
void Confirm(Session& session, Item& file, const std::string& doing) {
  if (!file.time1.empty()) return;
  if (file.id.empty())
    throw Failure(doing + ": the service did not say what it has stored",
                  "look with `vormlane ls` before sending it again", AERROR::FILE_WRITE_FAILED);
  Perform(session, doing, [&](char** message) {
    return session.Drive().GetFileInfo(file.id.c_str(), &file, message);
  });
}

}  // namespace

Item Upload(Session& session, const std::string& folderId, Item file,
            const UploadSource::Function& read, const std::shared_ptr<_FS_HANDLE>& handle,
            const std::string& shown) {
  const std::string doing = "cannot write \"" + shown + "\"";
  const int64_t sent = file.size;
  file.time1.clear();
  UploadSource source(read);
  HostLog::TakeLastError();
  char* message = nullptr;
  const AERROR code =
      session.Drive().Upload(folderId.c_str(), handle, &source, &file, kUploadDefault, &message);
  session.Drive().FreeMsg(message);
  source.Rethrow();
  if (code != AERROR::SUCCESS) throw session.Failed(doing, code);
  Confirm(session, file, doing);
  if (file.size != sent)
    throw Failure(doing + ": the service holds " + std::to_string(file.size) + " of " +
                      std::to_string(sent) + " bytes",
                  "send it again", AERROR::FILE_WRITE_FAILED);
  return file;
}

}  // namespace host
