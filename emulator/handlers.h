// The handlers of all routes, one source per resource. Each answers one request or throws ApiError.
#pragma once

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

// drives.cpp
Reply ListDrives(Service& service, Call& call);
Reply ListTeamDrives(Service& service, Call& call);
Reply GetDrive(Service& service, Call& call);
Reply GetTeamDrive(Service& service, Call& call);

}  // namespace emulator
