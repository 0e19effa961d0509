#include "emulator/file_resource.h"

#include <algorithm>
#include <array>

#include "emulator/times.h"

namespace emulator {

namespace {

constexpr char kUserSchema[] = "kind,displayName,photoLink,me,permissionId,emailAddress";
constexpr char kDefaultFields[] = "kind,id,name,mimeType";
// A larger content's MD5 would take seconds of a request's time.
constexpr int64_t kLargestMd5 = 1LL << 30;

std::string Replaced(std::string text, const std::string& what, const std::string& with) {
  for (size_t at = text.find(what); at != std::string::npos;
       at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
  return text;
}

std::string FileSchemaText() {
  static const std::string text = Replaced(
      "kind,id,name,mimeType,description,starred,trashed,explicitlyTrashed,trashingUser(USER),"
      "trashedTime,parents,properties/*,appProperties/*,spaces,version,webContentLink,webViewLink,"
      "iconLink,hasThumbnail,thumbnailLink,thumbnailVersion,viewedByMe,viewedByMeTime,createdTime,"
      "modifiedTime,modifiedByMeTime,modifiedByMe,sharedWithMeTime,sharingUser(USER),owners(USER),"
      "teamDriveId,driveId,lastModifyingUser(USER),shared,ownedByMe,capabilities/*,"
      "viewersCanCopyContent,copyRequiresWriterPermission,writersCanShare,"
      "permissions(kind,id,type,emailAddress,domain,role,displayName,photoLink,deleted,view,"
      "allowFileDiscovery,expirationTime,pendingOwner,permissionDetails/*,"
      "teamDrivePermissionDetails/*),permissionIds,hasAugmentedPermissions,folderColorRgb,"
      "originalFilename,fullFileExtension,fileExtension,md5Checksum,sha1Checksum,sha256Checksum,"
      "size,quotaBytesUsed,headRevisionId,contentHints/*,imageMediaMetadata/*,videoMediaMetadata/*,"
      "isAppAuthorized,exportLinks/*,shortcutDetails(targetId,targetMimeType,targetResourceKey),"
      "contentRestrictions/*,labelInfo/*,linkShareMetadata/"
      "*,resourceKey,inheritedPermissionsDisabled",
      "USER", kUserSchema);
  return text;
}

std::string Extension(const std::string& name) {
  const size_t dot = name.rfind('.');
  return dot == std::string::npos ? "" : name.substr(dot + 1);
}

/// The members that are kept as written: description, properties, ...
Json::Value Extra(const Item& item) {
  return item.extra.empty() ? Json::Value(Json::objectValue) : ParseObject(item.extra);
}

struct GoogleKind {
  std::string_view name;
  const char* path;
  std::array<const char*, 3> exports;
};

constexpr std::array<GoogleKind, 6> kGoogleKinds{{
    {"document", "document", {"text/plain", "application/pdf", "text/html"}},
    {"spreadsheet", "spreadsheets", {"text/csv", "application/pdf", nullptr}},
    {"presentation", "presentation", {"text/plain", "application/pdf", nullptr}},
    {"drawing", "drawings", {"image/svg+xml", "image/png", "application/pdf"}},
    {"script", "script", {"application/vnd.google-apps.script+json", nullptr, nullptr}},
    {"form", "forms", {nullptr, nullptr, nullptr}},
}};

const GoogleKind* KindOf(const std::string& mimeType) {
  if (!GoogleType(mimeType)) return nullptr;
  const std::string_view name = std::string_view(mimeType).substr(28);
  for (const GoogleKind& kind : kGoogleKinds) {
    if (kind.name == name) return &kind;
  }
  return nullptr;
}

std::string ViewLink(const Item& item) {
  if (item.Folder()) return "https://drive.google.com/drive/folders/" + item.id;
  if (const GoogleKind* kind = KindOf(item.mimeType)) {
    return std::string("https://docs.google.com/") + kind->path + "/d/" + item.id +
           "/edit?usp=drivesdk";
  }
  return "https://drive.google.com/file/d/" + item.id + "/view?usp=drivesdk";
}

Json::Value Capabilities(const Item& item, Role role) {
  const bool writes = role >= Role::kWriter;
  const bool owns = role == Role::kOwner || (item.drive != 0 && role >= Role::kFileOrganizer);
  Json::Value can;
  can["canEdit"] = can["canRename"] = can["canModifyContent"] = writes;
  can["canAddChildren"] = writes && item.Folder();
  can["canListChildren"] = item.Folder();
  can["canRemoveChildren"] = (item.drive != 0 ? owns : writes) && item.Folder();
  can["canShare"] = can["canReadRevisions"] = writes;
  can["canTrash"] = can["canUntrash"] = item.drive != 0 ? writes : owns;
  can["canDelete"] = can["canMoveItemOutOfTeamDrive"] = can["canMoveItemOutOfDrive"] = owns;
  can["canCopy"] = !item.Folder();
  can["canDownload"] = item.HasContent();
  can["canComment"] = role >= Role::kCommenter;
  can["canChangeCopyRequiresWriterPermission"] = can["canChangeViewersCanCopyContent"] = writes;
  return can;
}

}  // namespace

FieldMask WithFileSchema(std::string text) {
  return FieldMask::Parse(Replaced(std::move(text), "FILE", FileSchemaText()));
}

const FieldMask& FileSchema() {
  static const FieldMask schema = WithFileSchema("FILE");
  return schema;
}

Json::Value UserResource(const User& user, const User& viewer) {
  Json::Value resource;
  resource["kind"] = "drive#user";
  resource["displayName"] = user.name;
  resource["me"] = user.n == viewer.n;
  resource["permissionId"] = user.permissionId;
  resource["emailAddress"] = user.email;
  return resource;
}

std::vector<std::string> ExportTypes(const std::string& mimeType) {
  std::vector<std::string> types;
  if (const GoogleKind* kind = KindOf(mimeType)) {
    for (const char* type : kind->exports) {
      if (type != nullptr) types.emplace_back(type);
    }
  }
  return types;
}

std::vector<Grant> AllGrants(Service& service, const Item& item) {
  std::vector<Grant> grants = service.store.Grants(item);
  if (item.drive == 0) {
    const User owner = service.store.UserNumbered(item.owner);
    grants.insert(grants.begin(),
                  {owner.permissionId, owner.n, "user", "owner", owner.email, false, item.created});
  }
  return grants;
}

Json::Value PermissionResource(Service& service, const Grant& grant, const Item& item) {
  Json::Value resource;
  resource["kind"] = "drive#permission";
  resource["id"] = grant.permissionId;
  resource["type"] = grant.type;
  resource["role"] = grant.role;
  if (grant.type == "user" || grant.type == "group") {
    resource["emailAddress"] = grant.email;
    resource["displayName"] =
        grant.user != 0 ? service.store.UserNumbered(grant.user).name : grant.email;
    resource["deleted"] = false;
    resource["pendingOwner"] = false;
  } else {
    resource["allowFileDiscovery"] = false;
    if (grant.type == "domain") resource["domain"] = grant.email;
  }
  if (item.drive != 0) {
    Json::Value detail;
    detail["permissionType"] = detail["teamDrivePermissionType"] = "member";
    detail["role"] = grant.role;
    detail["inherited"] = item.n != item.drive;
    resource["permissionDetails"].append(detail);
    resource["teamDrivePermissionDetails"].append(detail);
  }
  return resource;
}

const User& FileWriter::Person(int64_t number) {
  const auto [found, fresh] = people.try_emplace(number);
  if (fresh) found->second = service.store.UserNumbered(number);
  return found->second;
}

void FileWriter::Write(const Item& item, FieldWriter& out) {
  out.BeginObject();
  WriteAbout(item, out);
  WriteTimes(item, out);
  WriteLinks(item, out);
  WriteContent(item, out);
  WritePeople(item, out);
  WriteAccess(item, out);
  out.EndObject();
}

void FileWriter::WriteAbout(const Item& item, FieldWriter& out) {
  out.Text("kind", "drive#file");
  out.Text("id", item.id);
  out.Text("name", item.name);
  out.Text("mimeType", item.mimeType);
  out.Bool("starred", item.starred);
  out.Bool("trashed", item.trashed != kNotTrashed);
  out.Bool("explicitlyTrashed", item.trashed == kTrashedItself);
  WriteParents(item, out);
  if (out.Key("spaces")) {
    out.BeginArray();
    out.Text("drive");
    out.EndArray();
  }
  out.Text("version", std::to_string(item.version));
  if (item.extra.empty()) return;
  const Json::Value extra = Extra(item);
  for (auto member = extra.begin(); member != extra.end(); ++member) {
    if (out.Key(member.name())) out.Value(*member);
  }
}

void FileWriter::WriteTimes(const Item& item, FieldWriter& out) {
  if (out.Key("createdTime")) out.Text(Rfc3339(item.created));
  if (out.Key("modifiedTime")) out.Text(Rfc3339(item.modified));
  const bool mine = item.modifier == call.user.n;
  out.Bool("modifiedByMe", mine);
  if (mine && out.Key("modifiedByMeTime")) out.Text(Rfc3339(item.modified));
  out.Bool("viewedByMe", mine);
  if (mine && out.Key("viewedByMeTime")) out.Text(Rfc3339(item.modified));
  if (item.trashedTime != 0 && out.Key("trashedTime")) out.Text(Rfc3339(item.trashedTime));
}

void FileWriter::WriteLinks(const Item& item, FieldWriter& out) {
  if (out.Key("webViewLink")) out.Text(ViewLink(item));
  if (out.Key("iconLink")) {
    out.Text("https://drive-thirdparty.googleusercontent.com/16/type/" + item.mimeType);
  }
  if (item.HasContent() && out.Key("webContentLink")) {
    out.Text("https://drive.google.com/uc?id=" + item.id + "&export=download");
  }
  const auto types =
      GoogleType(item.mimeType) ? ExportTypes(item.mimeType) : std::vector<std::string>();
  if (types.empty() || !out.Key("exportLinks")) return;
  out.BeginObject();
  for (const std::string& type : types) {
    if (out.Key(type)) {
      out.Text(call.baseUrl + "/drive/v3/files/" + item.id + "/export?mimeType=" + type);
    }
  }
  out.EndObject();
}

void FileWriter::WriteContent(const Item& item, FieldWriter& out) {
  out.Bool("hasThumbnail", false);
  if (out.Key("thumbnailVersion")) out.Text("0");
  if (out.Key("quotaBytesUsed")) out.Text(std::to_string(std::max<int64_t>(item.size, 0)));
  if (!item.HasContent()) return;
  if (out.Key("size")) out.Text(std::to_string(item.size));
  if (item.size <= kLargestMd5 && out.Key("md5Checksum")) out.Text(service.store.Md5(item));
  if (out.Key("headRevisionId")) {
    out.Text("0B" + item.id.substr(1, 20) + std::to_string(item.contentVersion));
  }
  out.Text("originalFilename", item.name);
  if (out.Key("fileExtension")) out.Text(Extension(item.name));
  if (out.Key("fullFileExtension")) out.Text(Extension(item.name));
}

void FileWriter::WriteUser(int64_t number, FieldWriter& out) {
  out.Value(UserResource(Person(number), call.user));
}

void FileWriter::WritePeople(const Item& item, FieldWriter& out) {
  if (item.drive == 0 && out.Key("owners")) {
    out.BeginArray();
    WriteUser(item.owner, out);
    out.EndArray();
  }
  if (item.drive == 0) out.Bool("ownedByMe", item.owner == call.user.n);
  if (item.modifier != 0 && out.Key("lastModifyingUser")) WriteUser(item.modifier, out);
  if (item.owner == call.user.n || item.drive != 0 || !item.shared) return;
  if (!out.Selects("sharedWithMeTime") && !out.Selects("sharingUser")) return;
  const auto grant = service.store.DirectGrant(call.user.n, item.n);
  if (!grant) return;
  if (out.Key("sharedWithMeTime")) out.Text(Rfc3339(grant->time));
  if (out.Key("sharingUser")) WriteUser(item.owner, out);
}

void FileWriter::WriteAccess(const Item& item, FieldWriter& out) {
  out.Bool("shared", item.shared);
  out.Bool("writersCanShare", true);
  out.Bool("viewersCanCopyContent", true);
  out.Bool("copyRequiresWriterPermission", false);
  out.Bool("isAppAuthorized", true);
  if (item.drive != 0 && (out.Selects("driveId") || out.Selects("teamDriveId"))) {
    const std::string id = item.n == item.drive ? item.id : service.store.Numbered(item.drive)->id;
    out.Text("driveId", id);
    out.Text("teamDriveId", id);
  }
  if (out.Key("capabilities")) {
    out.Value(Capabilities(item, service.store.RoleOf(call.user.n, item)));
  }
  if (!out.Selects("permissions") && !out.Selects("permissionIds")) return;
  const bool listed = service.store.RoleOf(call.user.n, item) >= Role::kWriter;
  if (listed && item.drive == 0 && out.Key("permissions")) {
    out.BeginArray();
    for (const Grant& grant : AllGrants(service, item)) {
      out.Value(PermissionResource(service, grant, item));
    }
    out.EndArray();
  }
  if (listed && out.Key("permissionIds")) {
    out.BeginArray();
    for (const Grant& grant : AllGrants(service, item)) out.Text(grant.permissionId);
    out.EndArray();
  }
}

// Parents that the viewer has no access to are left out.
void FileWriter::WriteParents(const Item& item, FieldWriter& out) {
  if (!out.Selects("parents")) return;
  std::vector<std::string> ids = item.ParentIds();
  if (item.owner != call.user.n && item.drive == 0) {
    std::erase_if(ids, [this](const std::string& id) {
      const auto [found, fresh] = knownParents.try_emplace(id, false);
      if (fresh) {
        const auto parent = service.store.Find(id);
        found->second = parent && service.store.RoleOf(call.user.n, *parent) != Role::kNone;
      }
      return !found->second;
    });
  }
  if (ids.empty() || !out.Key("parents")) return;
  out.BeginArray();
  for (const std::string& id : ids) out.Text(id);
  out.EndArray();
}

Json::Value OwnersView(Service& service, const Item& item) {
  const httplib::Request request;
  Call call(request);
  const std::vector<Grant> grants = service.store.Grants(item);
  call.user = service.store.UserNumbered(item.drive == 0  ? item.owner
                                         : grants.empty() ? 0
                                                          : grants.front().user);
  FieldWriter out(FieldMask::All());
  FileWriter(service, call).Write(item, out);
  return ParseObject(out.Take());
}

std::string EntityTag(const Item& item) {
  return "\"" + item.id.substr(0, 12) + "/" + std::to_string(item.version) + "\"";
}

Reply FileReply(Service& service, const Call& call, const Item& item) {
  static const FieldMask defaults = FieldMask::Parse(kDefaultFields);
  const FieldMask mask = SelectFields(call.Param("fields"), FileSchema(), defaults);
  FieldWriter out(mask);
  FileWriter(service, call).Write(item, out);
  return JsonReply(out.Take());
}

}  // namespace emulator
