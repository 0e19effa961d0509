// Who may do what with a file or team drive.
// https://developers.google.com/drive/api/reference/rest/v3/permissions
#include <algorithm>

#include "emulator/api_error.h"
#include "emulator/file_resource.h"
#include "emulator/handlers.h"
#include "emulator/ids.h"
#include "emulator/paging.h"
#include "emulator/times.h"

namespace emulator {

namespace {

constexpr char kSchema[] =
    "kind,id,type,emailAddress,domain,role,displayName,photoLink,deleted,view,allowFileDiscovery,"
    "expirationTime,pendingOwner,permissionDetails/*,teamDrivePermissionDetails/*";
constexpr char kDefaults[] = "kind,id,type,role";

Reply Selected(const Call& call, const Json::Value& value, bool list) {
  const std::string members = list ? std::string("kind,nextPageToken,permissions(") : "";
  const std::string end = list ? ")" : "";
  const FieldMask mask =
      SelectFields(call.Param("fields"), FieldMask::Parse(members + kSchema + end),
                   FieldMask::Parse(members + kDefaults + end));
  FieldWriter out(mask);
  out.Value(value);
  return JsonReply(out.Take());
}

ApiError PermissionNotFound(const std::string& id) {
  return ApiError(404, "notFound", "Permission not found: " + id + ".")
      .At("parameter", "permissionId");
}

// Permissions of things in a team drive are those of the drive.
Item Holder(Service& service, const Item& item) {
  return item.drive != 0 ? *service.store.Numbered(item.drive) : item;
}

Grant GrantOf(Service& service, const Item& item, const std::string& id) {
  for (Grant& grant : AllGrants(service, item)) {
    if (grant.permissionId == id) return std::move(grant);
  }
  throw PermissionNotFound(id);
}

void RequireSharer(Service& service, const Call& call, const Item& item) {
  const Role needed = item.drive != 0 ? Role::kOrganizer : Role::kWriter;
  if (service.store.RoleOf(call.user.n, item) < needed) {
    throw Forbidden("insufficientFilePermissions",
                    "The user does not have sufficient permissions for this file.");
  }
}

std::string CheckedRole(const Json::Value& body, const Item& item) {
  const std::string role = body.get("role", "").asString();
  const bool known = RoleNamed(role) != Role::kNone;
  if (role == "owner") {
    throw Forbidden("consentRequiredForOwnershipTransfer",
                    "Consent is required to transfer ownership of a file to another user.");
  }
  if (!known || (item.drive == 0 && RoleNamed(role) > Role::kWriter)) {
    throw ApiError(400, role.empty() ? "required" : "invalid",
                   "The specified role is invalid or not supported.");
  }
  return role;
}

Grant ReadGrant(Service& service, const Json::Value& body, const Item& item) {
  Grant grant;
  grant.type = body.get("type", "").asString();
  grant.role = CheckedRole(body, item);
  grant.time = NowMilliseconds();
  if (grant.type == "user" || grant.type == "group") {
    grant.email = body.get("emailAddress", "").asString();
    if (grant.email.find('@') == std::string::npos) {
      throw ApiError(400, "invalidSharingRequest", "The specified emailAddress is invalid.");
    }
    const auto user = service.store.UserNamed(grant.email);
    grant.user = user ? user->n : 0;
    grant.permissionId =
        user ? user->permissionId : std::to_string(HashText(grant.email) | 1ULL << 63);
  } else if (grant.type == "domain") {
    grant.email = body.get("domain", "").asString();
    grant.permissionId = std::to_string(HashText(grant.email) >> 1) + "k";
  } else if (grant.type == "anyone") {
    grant.permissionId = "anyoneWithLink";
  } else {
    throw ApiError(400, "invalid", "The permission type field is required.");
  }
  return grant;
}

}  // namespace

Reply ListPermissions(Service& service, Call& call) {
  const auto size = static_cast<size_t>(call.Number("pageSize", 1, 100, 100));
  const auto work = service.store.Begin();
  const Item item = VisibleItem(service, call, call.captures[0]);
  const std::vector<Grant> grants = AllGrants(service, item);
  const std::string scope = "permissions of " + item.id;
  size_t from = 0;
  if (!call.Param("pageToken").empty()) {
    from =
        static_cast<size_t>(std::get<int64_t>(ReadPageToken(call.Param("pageToken"), scope, 1)[0]));
  }
  const size_t to = std::min(grants.size(), from + size);
  Json::Value page;
  page["kind"] = "drive#permissionList";
  page["permissions"] = Json::arrayValue;
  for (size_t i = from; i < to; ++i) {
    page["permissions"].append(PermissionResource(service, grants[i], item));
  }
  if (to < grants.size()) {
    page["nextPageToken"] = MakePageToken(scope, {static_cast<int64_t>(to)});
  }
  return Selected(call, page, true);
}

Reply GetPermission(Service& service, Call& call) {
  const auto work = service.store.Begin();
  const Item item = VisibleItem(service, call, call.captures[0]);
  return Selected(call, PermissionResource(service, GrantOf(service, item, call.captures[1]), item),
                  false);
}

Reply CreatePermission(Service& service, Call& call) {
  const Json::Value body = call.Json();
  const auto work = service.store.Begin();
  const Item item = VisibleItem(service, call, call.captures[0]);
  RequireSharer(service, call, item);
  const Grant grant = ReadGrant(service, body, item);
  if (grant.user != 0 && item.drive == 0 && grant.user == item.owner) {
    return Selected(call, PermissionResource(service, AllGrants(service, item).front(), item),
                    false);
  }
  service.store.Share(Holder(service, item), grant);
  return Selected(call, PermissionResource(service, grant, item), false);
}

Reply UpdatePermission(Service& service, Call& call) {
  const Json::Value body = call.Json();
  const auto work = service.store.Begin();
  const Item item = VisibleItem(service, call, call.captures[0]);
  RequireSharer(service, call, item);
  Grant grant = GrantOf(service, item, call.captures[1]);
  if (grant.role == "owner") throw InsufficientPermissions(item.id);
  grant.role = CheckedRole(body, item);
  service.store.Share(Holder(service, item), grant);
  return Selected(call, PermissionResource(service, grant, item), false);
}

Reply DeletePermission(Service& service, Call& call) {
  const auto work = service.store.Begin();
  const Item item = VisibleItem(service, call, call.captures[0]);
  const Grant grant = GrantOf(service, item, call.captures[1]);
  // Everybody may give up their own access.
  if (grant.user != call.user.n || grant.role == "owner") RequireSharer(service, call, item);
  if (grant.role == "owner" || grant.inherited) {
    throw Forbidden("cannotRemoveOwner", "This permission cannot be removed here.");
  }
  if (!service.store.Unshare(Holder(service, item), grant.permissionId)) {
    throw PermissionNotFound(grant.permissionId);
  }
  return NoContent();
}

}  // namespace emulator
