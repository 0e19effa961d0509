// The account record.
// https://developers.google.com/drive/api/reference/rest/v2/about
// https://developers.google.com/drive/api/reference/rest/v3/about
#include "emulator/api_error.h"
#include "emulator/file_resource.h"
#include "emulator/handlers.h"

namespace emulator {

namespace {

constexpr char kV2Schema[] =
    "kind,etag,selfLink,name,user(kind,displayName,picture/*,isAuthenticatedUser,permissionId,"
    "emailAddress),quotaBytesTotal,quotaBytesUsed,quotaBytesUsedAggregate,quotaBytesUsedInTrash,"
    "quotaBytesByService(serviceName,bytesUsed),quotaType,largestChangeId,remainingChangeIds,"
    "rootFolderId,domainSharingPolicy,permissionId,importFormats/*,exportFormats/*,"
    "additionalRoleInfo/*,features/*,maxUploadSizes/*,isCurrentAppInstalled,languageCode,"
    "folderColorPalette,teamDriveThemes/*,driveThemes/*,canCreateTeamDrives,canCreateDrives";
constexpr char kV3Schema[] =
    "kind,user(kind,displayName,photoLink,me,permissionId,emailAddress),"
    "storageQuota(limit,usage,usageInDrive,usageInDriveTrash),importFormats/*,exportFormats/*,"
    "maxImportSizes/*,maxUploadSize,appInstalled,folderColorPalette,teamDriveThemes/*,"
    "driveThemes/*,canCreateTeamDrives,canCreateDrives";
constexpr char kLargestUpload[] = "5242880000000";

int64_t UsedInTrash(Service& service, int64_t user) {
  return service.store.Sql().Number(
      "SELECT coalesce(sum(max(size, 0)), 0) FROM items WHERE trashed <> 0 AND owner = ?", 0, user);
}

Reply Selected(const Call& call, const char* schema, const FieldMask& defaults,
               const Json::Value& value) {
  const FieldMask known = FieldMask::Parse(schema);
  const FieldMask mask = SelectFields(call.Param("fields"), known, defaults);
  FieldWriter out(mask);
  out.Value(value);
  return JsonReply(out.Take());
}

}  // namespace

Reply AboutV2(Service& service, Call& call) {
  const auto work = service.store.Begin();
  const User user = service.store.UserNumbered(call.user.n);
  Json::Value about;
  about["kind"] = "drive#about";
  about["name"] = user.name;
  about["user"]["kind"] = "drive#user";
  about["user"]["displayName"] = user.name;
  about["user"]["isAuthenticatedUser"] = true;
  about["user"]["permissionId"] = user.permissionId;
  about["user"]["emailAddress"] = user.email;
  about["quotaBytesTotal"] = std::to_string(user.quota);
  about["quotaBytesUsed"] = std::to_string(user.used);
  about["quotaBytesUsedAggregate"] = std::to_string(user.used);
  about["quotaBytesUsedInTrash"] = std::to_string(UsedInTrash(service, user.n));
  about["quotaBytesByService"][0]["serviceName"] = "DRIVE";
  about["quotaBytesByService"][0]["bytesUsed"] = std::to_string(user.used);
  about["quotaType"] = "LIMITED";
  about["largestChangeId"] = std::to_string(service.store.LastChange());
  about["rootFolderId"] = user.rootId;
  about["domainSharingPolicy"] = "allowed";
  about["permissionId"] = user.permissionId;
  about["languageCode"] = "en";
  about["isCurrentAppInstalled"] = true;
  about["canCreateTeamDrives"] = about["canCreateDrives"] = true;
  return Selected(call, kV2Schema, FieldMask::All(), about);
}

Reply AboutV3(Service& service, Call& call) {
  if (!call.Has("fields")) {
    throw ApiError(400, "required", "The 'fields' parameter is required for this method.")
        .At("parameter", "fields");
  }
  const auto work = service.store.Begin();
  const User user = service.store.UserNumbered(call.user.n);
  const int64_t trash = UsedInTrash(service, user.n);
  Json::Value about;
  about["kind"] = "drive#about";
  about["user"] = UserResource(user, user);
  about["storageQuota"]["limit"] = std::to_string(user.quota);
  about["storageQuota"]["usage"] = std::to_string(user.used);
  about["storageQuota"]["usageInDrive"] = std::to_string(user.used);
  about["storageQuota"]["usageInDriveTrash"] = std::to_string(trash);
  about["importFormats"]["text/plain"].append("application/vnd.google-apps.document");
  about["importFormats"]["text/csv"].append("application/vnd.google-apps.spreadsheet");
  for (const char* kind : {"document", "spreadsheet", "presentation", "drawing", "script"}) {
    const std::string type = std::string("application/vnd.google-apps.") + kind;
    for (const std::string& format : ExportTypes(type)) about["exportFormats"][type].append(format);
  }
  about["maxUploadSize"] = kLargestUpload;
  about["appInstalled"] = true;
  about["canCreateTeamDrives"] = about["canCreateDrives"] = true;
  return Selected(call, kV3Schema, FieldMask::All(), about);
}

}  // namespace emulator
