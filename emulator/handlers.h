// The handlers of all routes, one source per resource. Each answers one request or throws ApiError.
#pragma once

#include <string>

#include "emulator/call.h"
#include "emulator/service.h"

namespace emulator {

// about.cpp
Reply AboutV2(Service& service, Call& call);
Reply AboutV3(Service& service, Call& call);

// files_list.cpp
Reply ListFiles(Service& service, Call& call);

// files_read.cpp
Reply GetFile(Service& service, Call& call);
Reply GetMedia(Service& service, Call& call);
Reply ExportFile(Service& service, Call& call);
Reply GenerateIds(Service& service, Call& call);

// files_write.cpp
Reply CreateFile(Service& service, Call& call);
Reply UpdateFile(Service& service, Call& call);
Reply DeleteFile(Service& service, Call& call);
Reply CopyFile(Service& service, Call& call);
Reply EmptyTrash(Service& service, Call& call);

// upload_requests.cpp
Reply StartUpload(Service& service, Call& call);
Reply StartUpdate(Service& service, Call& call);
Reply UploadContent(Service& service, Call& call);
Reply CancelUpload(Service& service, Call& call);
Reply CreateWithContent(Service& service, Call& call);
Reply UpdateWithContent(Service& service, Call& call);

// changes.cpp
Reply StartPageToken(Service& service, Call& call);
Reply ListChanges(Service& service, Call& call);
/// The change number that "pageToken" names. Throws ApiError when it is absent, or of the future.
int64_t ChangeToken(Service& service, const Call& call);

// channel_requests.cpp
Reply WatchChanges(Service& service, Call& call);
Reply WatchFile(Service& service, Call& call);
Reply StopChannel(Service& service, Call& call);

// push_requests.cpp
Reply Subscribe(Service& service, Call& call);
Reply ReceiveNotice(Service& service, Call& call);
/// The only token that the push service knows.
std::string PushToken();

// drives.cpp
Reply ListDrives(Service& service, Call& call);
Reply ListTeamDrives(Service& service, Call& call);
Reply GetDrive(Service& service, Call& call);
Reply GetTeamDrive(Service& service, Call& call);
Reply CreateDrive(Service& service, Call& call);
Reply CreateTeamDrive(Service& service, Call& call);
Reply UpdateDrive(Service& service, Call& call);
Reply UpdateTeamDrive(Service& service, Call& call);
Reply DeleteDrive(Service& service, Call& call);
Reply HideDrive(Service& service, Call& call);
Reply UnhideDrive(Service& service, Call& call);

// permissions.cpp
Reply ListPermissions(Service& service, Call& call);
Reply GetPermission(Service& service, Call& call);
Reply CreatePermission(Service& service, Call& call);
Reply UpdatePermission(Service& service, Call& call);
Reply DeletePermission(Service& service, Call& call);

// oauth.cpp
Reply ConsentPage(Service& service, Call& call);
Reply ConsentAnswer(Service& service, Call& call);
Reply IssueTokens(Service& service, Call& call);
Reply RevokeToken(Service& service, Call& call);

}  // namespace emulator
