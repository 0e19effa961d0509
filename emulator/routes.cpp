#include "emulator/routes.h"

#include <algorithm>

#include "emulator/handlers.h"

namespace emulator {

namespace {

std::string_view NextSegment(std::string_view& path) {
  if (!path.empty() && path.front() == '/') path.remove_prefix(1);
  const size_t end = std::min(path.find('/'), path.size());
  const std::string_view segment = path.substr(0, end);
  path.remove_prefix(end);
  return segment;
}

bool MatchPath(std::string_view pattern, std::string_view path,
               std::vector<std::string>& captures) {
  captures.clear();
  while (!pattern.empty() && !path.empty()) {
    const std::string_view wanted = NextSegment(pattern), given = NextSegment(path);
    if (wanted.front() == '{') {
      if (given.empty()) return false;
      captures.emplace_back(given);
    } else if (wanted != given) {
      return false;
    }
  }
  return (pattern.empty() || pattern == "/") && (path.empty() || path == "/");
}

bool MatchParameter(std::string_view wanted, const httplib::Request& request) {
  const size_t equals = wanted.find('=');
  const std::string name(wanted.substr(0, equals));
  if (equals == std::string_view::npos) return name.empty() || request.has_param(name);
  return request.get_param_value(name) == wanted.substr(equals + 1);
}

}  // namespace

const std::vector<Route>& ApiRoutes() {
  static const char* const kFiles = "/drive/v3/files";
  static const char* const kFile = "/drive/v3/files/{fileId}";
  static const char* const kUploads = "/upload/drive/v3/files";
  static const char* const kUpload = "/upload/drive/v3/files/{fileId}";
  static const char* const kDrive = "/drive/v3/drives/{driveId}";
  static const char* const kTeamDrive = "/drive/v3/teamdrives/{driveId}";
  static const char* const kPermissions = "/drive/v3/files/{fileId}/permissions";
  static const char* const kPermission = "/drive/v3/files/{fileId}/permissions/{permissionId}";
  static const char* const kContent = "drive.upload.content";
  static const char* const kStart = "drive.upload.start";
  static const char* const kResumable = "uploadType=resumable";
  static const std::vector<Route> routes{
      {"GET", "/drive/v2/about", "drive.about.get.v2", AboutV2},
      {"GET", "/drive/v3/about", "drive.about.get", AboutV3},
      {"GET", kFiles, "drive.files.list", ListFiles},
      {"POST", kFiles, "drive.files.create", CreateFile},
      {"GET", "/drive/v3/files/generateIds", "drive.files.generateIds", GenerateIds},
      {"DELETE", "/drive/v3/files/trash", "drive.files.emptyTrash", EmptyTrash},
      {"GET", kFile, "drive.files.get.media", GetMedia, "alt=media"},
      {"GET", kFile, "drive.files.get", GetFile},
      {"PATCH", kFile, "drive.files.update", UpdateFile},
      {"DELETE", kFile, "drive.files.delete", DeleteFile},
      {"POST", "/drive/v3/files/{fileId}/copy", "drive.files.copy", CopyFile},
      {"GET", "/drive/v3/files/{fileId}/export", "drive.files.export", ExportFile},
      {"POST", "/drive/v3/files/{fileId}/watch", "drive.files.watch", WatchFile},
      {"PUT", kUploads, kContent, UploadContent, "upload_id", false, true},
      {"PUT", kUpload, kContent, UploadContent, "upload_id", false, true},
      {"POST", kUploads, kContent, UploadContent, "upload_id", false, true},
      {"POST", kUpload, kContent, UploadContent, "upload_id", false, true},
      {"PATCH", kUpload, kContent, UploadContent, "upload_id", false, true},
      {"DELETE", kUploads, "drive.upload.cancel", CancelUpload, "upload_id", false},
      {"DELETE", kUpload, "drive.upload.cancel", CancelUpload, "upload_id", false},
      {"POST", kUploads, kStart, StartUpload, kResumable},
      {"PATCH", kUpload, kStart, StartUpdate, kResumable},
      {"PUT", kUpload, kStart, StartUpdate, kResumable},
      {"POST", kUploads, "drive.files.create.media", CreateWithContent},
      {"PATCH", kUpload, "drive.files.update.media", UpdateWithContent},
      {"GET", "/drive/v3/changes/startPageToken", "drive.changes.getStartPageToken",
       StartPageToken},
      {"GET", "/drive/v3/changes", "drive.changes.list", ListChanges},
      {"POST", "/drive/v3/changes/watch", "drive.changes.watch", WatchChanges},
      {"POST", "/drive/v3/channels/stop", "drive.channels.stop", StopChannel},
      {"GET", "/drive/v3/drives", "drive.drives.list", ListDrives},
      {"POST", "/drive/v3/drives", "drive.drives.create", CreateDrive},
      {"GET", kDrive, "drive.drives.get", GetDrive},
      {"PATCH", kDrive, "drive.drives.update", UpdateDrive},
      {"DELETE", kDrive, "drive.drives.delete", DeleteDrive},
      {"POST", "/drive/v3/drives/{driveId}/hide", "drive.drives.hide", HideDrive},
      {"POST", "/drive/v3/drives/{driveId}/unhide", "drive.drives.unhide", UnhideDrive},
      {"GET", "/drive/v3/teamdrives", "drive.teamdrives.list", ListTeamDrives},
      {"POST", "/drive/v3/teamdrives", "drive.teamdrives.create", CreateTeamDrive},
      {"GET", kTeamDrive, "drive.teamdrives.get", GetTeamDrive},
      {"PATCH", kTeamDrive, "drive.teamdrives.update", UpdateTeamDrive},
      {"DELETE", kTeamDrive, "drive.teamdrives.delete", DeleteDrive},
      {"GET", kPermissions, "drive.permissions.list", ListPermissions},
      {"POST", kPermissions, "drive.permissions.create", CreatePermission},
      {"GET", kPermission, "drive.permissions.get", GetPermission},
      {"PATCH", kPermission, "drive.permissions.update", UpdatePermission},
      {"DELETE", kPermission, "drive.permissions.delete", DeletePermission},
      {"GET", "/o/oauth2/v2/auth", "oauth.auth", ConsentPage, "", false},
      {"POST", "/o/oauth2/v2/auth", "oauth.consent", ConsentAnswer, "", false},
      {"POST", "/token", "oauth.token", IssueTokens, "", false},
      {"POST", "/revoke", "oauth.revoke", RevokeToken, "", false},
  };
  return routes;
}

const std::vector<Route>& PushRoutes() {
  static const std::vector<Route> routes{
      {"POST", "/api/v1/change_subscriptions/", "push.subscribe", Subscribe, "", false},
      {"POST", "/webhook/{channel}", "push.webhook", ReceiveNotice, "", false},
  };
  return routes;
}

bool IsMethodName(std::string_view name) {
  const auto named = [name](const Route& route) { return route.name == name; };
  return std::any_of(ApiRoutes().begin(), ApiRoutes().end(), named) ||
         std::any_of(PushRoutes().begin(), PushRoutes().end(), named);
}

const Route* FindRoute(const std::vector<Route>& routes, const httplib::Request& request,
                       std::vector<std::string>& captures) {
  const std::string_view method =
      request.method == "HEAD" ? std::string_view("GET") : request.method;
  for (const Route& route : routes) {
    if (method == route.httpMethod && MatchPath(route.pattern, request.path, captures) &&
        MatchParameter(route.parameter, request)) {
      return &route;
    }
  }
  return nullptr;
}

}  // namespace emulator
