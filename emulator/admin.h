// The admin port: what DriveEmulator offers, over HTTP, for tests in other processes.
//
// - GET /faults: what has not been used up; POST: a fault or an array of them, as JSON with the
//   members of Fault; DELETE
// - GET /journal[?method=NAME]: requests that have ended; &count=true: only how many were begun;
//   DELETE
// - GET /tree[?user=EMAIL]
// - GET /items/ID: the File resource; GET /items/ID/content; DELETE /items/ID
// - POST /items {"path", "content" or "size", "user"}: answers {"id"}
// - POST /children {"parent", "count", "prefix"}
// - POST /tokens[?user=EMAIL]: answers {"accessToken", "refreshToken"}
// - POST /expire-tokens, POST /revoke-tokens
// - POST /users {"email", "name"}
// - POST /quota {"user", "total"}
// - POST /shape {"roundTrip": milliseconds, "bandwidth": bytes per second}
// - POST /push {"behaviour": "accept"|"refuse"|"stall"|"drop"|"flood"}; DELETE /push: drops the
//   open connections
// - GET /status: addresses and counts
#pragma once

#include <memory>

#include "emulator/drive_emulator.h"
#include "emulator/http_server.h"

namespace emulator {

/// Serves `emulator`, which must outlive the server, on 127.0.0.1 alone: it asks for no password.
std::unique_ptr<HttpServer> ServeAdmin(DriveEmulator& emulator, int port);

}  // namespace emulator
