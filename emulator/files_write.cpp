// files.create, update, delete, copy and emptyTrash, without content
// https://developers.google.com/drive/api/reference/rest/v3/files
#include "emulator/api_error.h"
#include "emulator/file_resource.h"
#include "emulator/handlers.h"
#include "emulator/metadata.h"
#include "emulator/times.h"

namespace emulator {

namespace {

// In a team drive the file organizer does what the owner does elsewhere.
void RequireDeleter(Service& service, const Call& call, const Item& item) {
  RequireRole(service, call, item, item.drive != 0 ? Role::kFileOrganizer : Role::kOwner);
}

}  // namespace

Reply CreateFile(Service& service, Call& call) {
  const Json::Value metadata = call.Json();
  const auto work = service.store.Begin();
  return FileReply(service, call, CreateFromMetadata(service, call, metadata, nullptr));
}

Reply UpdateFile(Service& service, Call& call) {
  const Json::Value metadata = call.Json();
  const auto work = service.store.Begin();
  return FileReply(service, call, UpdateFromMetadata(service, call, metadata, nullptr));
}

Reply DeleteFile(Service& service, Call& call) {
  const auto work = service.store.Begin();
  const Item item = VisibleItem(service, call, call.captures[0]);
  if (item.root) throw InsufficientPermissions(item.id);
  RequireDeleter(service, call, item);
  service.store.Remove(item);
  return NoContent();
}

Reply CopyFile(Service& service, Call& call) {
  Json::Value metadata = call.Json();
  const auto work = service.store.Begin();
  const Item original = VisibleItem(service, call, call.captures[0]);
  if (original.Folder()) {
    throw Forbidden("cannotCopyFile", "This file cannot be copied by the user.");
  }
  if (!metadata.isMember("name")) metadata["name"] = "Copy of " + original.name;
  if (!metadata.isMember("mimeType")) metadata["mimeType"] = original.mimeType;
  if (!metadata.isMember("modifiedTime")) metadata["modifiedTime"] = Rfc3339(original.modified);
  if (!metadata.isMember("parents")) {
    for (const Item& parent : service.store.Parents(original)) {
      if (service.store.RoleOf(call.user.n, parent) >= Role::kWriter) {
        metadata["parents"].append(parent.id);
      }
    }
  }
  const NewContent content{original.blob, std::max<int64_t>(original.size, 0),
                           service.store.Md5(original), original.mimeType};
  return FileReply(service, call, CreateFromMetadata(service, call, metadata, &content));
}

Reply EmptyTrash(Service& service, Call& call) {
  const auto work = service.store.Begin();
  int64_t drive = 0;
  if (!call.DriveId().empty()) drive = VisibleItem(service, call, call.DriveId()).n;
  std::vector<std::string> ids;
  {
    Statement row = service.store.Sql().Query(
        "SELECT id FROM items WHERE trashed = 2 AND drive = ? AND (drive <> 0 OR owner = ?)", drive,
        call.user.n);
    while (row.Step()) ids.push_back(row.Text(0));
  }
  for (const std::string& id : ids) {
    // An earlier one may have taken it along.
    if (const auto item = service.store.Find(id)) service.store.Remove(*item);
  }
  return NoContent();
}

}  // namespace emulator
