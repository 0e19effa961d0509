// Shared drives, under their present and their former name.
// https://developers.google.com/drive/api/reference/rest/v3/drives
// https://developers.google.com/drive/api/reference/rest/v3/teamdrives
#include "emulator/api_error.h"
#include "emulator/field_writer.h"
#include "emulator/handlers.h"
#include "emulator/ids.h"
#include "emulator/paging.h"
#include "emulator/times.h"

namespace emulator {

namespace {

constexpr char kDriveSchema[] =
    "kind,id,name,themeId,colorRgb,backgroundImageFile/*,backgroundImageLink,capabilities/*,"
    "createdTime,hidden,restrictions/*,orgUnitId";

struct Wording {
  const char* kind;
  const char* listKind;
  const char* members;
  const char* defaults;
};

constexpr Wording kDrive{"drive#drive", "drive#driveList", "drives", "kind,id,name"};
constexpr Wording kTeamDrive{"drive#teamDrive", "drive#teamDriveList", "teamDrives",
                             "kind,id,name"};

Json::Value DriveResource(Service& service, const Call& call, const Item& root,
                          const Wording& wording) {
  const Role role = service.store.RoleOf(call.user.n, root);
  Json::Value drive;
  drive["kind"] = wording.kind;
  drive["id"] = root.id;
  drive["name"] = root.name;
  drive["createdTime"] = Rfc3339(root.created);
  drive["hidden"] =
      service.store.Sql().Number("SELECT hidden FROM drives WHERE item = ?", 0, root.n) != 0;
  Json::Value& can = drive["capabilities"];
  can["canListChildren"] = true;
  can["canAddChildren"] = can["canEdit"] = can["canRename"] = role >= Role::kWriter;
  can["canDeleteChildren"] = can["canTrashChildren"] = role >= Role::kFileOrganizer;
  can["canManageMembers"] = role >= Role::kOrganizer;
  can["canRenameDrive"] = can["canRenameTeamDrive"] = role >= Role::kOrganizer;
  can["canDeleteDrive"] = can["canDeleteTeamDrive"] = role >= Role::kOrganizer;
  return drive;
}

Item DriveOf(Service& service, const Call& call) {
  const auto root = service.store.Find(call.captures[0]);
  if (!root || root->drive != root->n || service.store.RoleOf(call.user.n, *root) == Role::kNone) {
    throw ApiError(404, "notFound", "Shared drive not found: " + call.captures[0])
        .At("parameter", "driveId");
  }
  return *root;
}

Reply DriveReply(Service& service, const Call& call, const Item& root, const Wording& wording) {
  static const FieldMask schema = FieldMask::Parse(kDriveSchema);
  const FieldMask mask =
      SelectFields(call.Param("fields"), schema, FieldMask::Parse(wording.defaults));
  FieldWriter out(mask);
  out.Value(DriveResource(service, call, root, wording));
  return JsonReply(out.Take());
}

Reply List(Service& service, const Call& call, const Wording& wording) {
  const std::string members = wording.members;
  const FieldMask schema =
      FieldMask::Parse("kind,nextPageToken," + members + "(" + kDriveSchema + ")");
  const FieldMask mask = SelectFields(
      call.Param("fields"), schema,
      FieldMask::Parse("kind,nextPageToken," + members + "(" + wording.defaults + ")"));
  const int64_t size = call.Number("pageSize", 1, 100, 10);
  const auto work = service.store.Begin();
  const std::string scope = "drives of " + call.user.email;
  int64_t after = 0;
  if (!call.Param("pageToken").empty()) {
    after = std::get<int64_t>(ReadPageToken(call.Param("pageToken"), scope, 1)[0]);
  }
  std::vector<Item> roots = service.store.Drives(call.user.n, after, size + 1);
  Json::Value page;
  page["kind"] = wording.listKind;
  if (static_cast<int64_t>(roots.size()) > size) {
    roots.pop_back();
    page["nextPageToken"] = MakePageToken(scope, {roots.back().n});
  }
  page[members] = Json::arrayValue;
  for (const Item& root : roots) page[members].append(DriveResource(service, call, root, wording));
  FieldWriter out(mask);
  out.Value(page);
  return JsonReply(out.Take());
}

Reply Get(Service& service, const Call& call, const Wording& wording) {
  const auto work = service.store.Begin();
  return DriveReply(service, call, DriveOf(service, call), wording);
}

void RequireOrganizer(Service& service, const Call& call, const Item& root) {
  if (service.store.RoleOf(call.user.n, root) < Role::kOrganizer) {
    throw Forbidden("insufficientPermissions",
                    "The user does not have sufficient permissions for this shared drive.");
  }
}

std::string NameIn(const Json::Value& body) {
  if (!body["name"].isString() || body["name"].asString().empty()) {
    throw ApiError(400, "required", "Required: name");
  }
  return body["name"].asString();
}

Reply Create(Service& service, const Call& call, const Wording& wording) {
  const std::string request = call.Param("requestId");
  if (request.empty()) {
    throw ApiError(400, "required", "Required parameter: requestId").At("parameter", "requestId");
  }
  const std::string name = NameIn(call.Json());
  const auto work = service.store.Begin();
  // The id follows from the request's, so that a repeated request is known.
  const std::string id = RootFolderId(HashText(call.user.email + "\n" + request));
  if (service.store.Find(id)) {
    throw ApiError(409, "duplicate", "A shared drive was already created by this request.");
  }
  return DriveReply(service, call, service.store.AddDrive(name, call.user.n, id), wording);
}

Reply Update(Service& service, const Call& call, const Wording& wording) {
  const Json::Value body = call.Json();
  const auto work = service.store.Begin();
  Item root = DriveOf(service, call);
  RequireOrganizer(service, call, root);
  if (body.isMember("name")) root.name = NameIn(body);
  service.store.Save(root);
  return DriveReply(service, call, root, wording);
}

Reply Delete(Service& service, const Call& call) {
  const auto work = service.store.Begin();
  const Item root = DriveOf(service, call);
  RequireOrganizer(service, call, root);
  if (!service.store.Children(root.n).empty()) {
    throw Forbidden("cannotDeleteResourceWithChildren",
                    "A shared drive must be empty before it can be deleted.");
  }
  service.store.RemoveDrive(root);
  return NoContent();
}

Reply Hide(Service& service, const Call& call, bool hidden) {
  const auto work = service.store.Begin();
  const Item root = DriveOf(service, call);
  service.store.Sql().Run("UPDATE drives SET hidden = ? WHERE item = ?", hidden, root.n);
  return DriveReply(service, call, root, kDrive);
}

}  // namespace

Reply CreateDrive(Service& service, Call& call) { return Create(service, call, kDrive); }
Reply CreateTeamDrive(Service& service, Call& call) { return Create(service, call, kTeamDrive); }
Reply UpdateDrive(Service& service, Call& call) { return Update(service, call, kDrive); }
Reply UpdateTeamDrive(Service& service, Call& call) { return Update(service, call, kTeamDrive); }
Reply DeleteDrive(Service& service, Call& call) { return Delete(service, call); }
Reply HideDrive(Service& service, Call& call) { return Hide(service, call, true); }
Reply UnhideDrive(Service& service, Call& call) { return Hide(service, call, false); }

Reply ListDrives(Service& service, Call& call) { return List(service, call, kDrive); }
Reply ListTeamDrives(Service& service, Call& call) { return List(service, call, kTeamDrive); }
Reply GetDrive(Service& service, Call& call) { return Get(service, call, kDrive); }
Reply GetTeamDrive(Service& service, Call& call) { return Get(service, call, kTeamDrive); }

}  // namespace emulator
