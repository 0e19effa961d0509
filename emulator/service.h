// What the handlers work with.
#pragma once

#include <string>

#include "emulator/call.h"
#include "emulator/item.h"
#include "emulator/store.h"

namespace emulator {

class Channels;
class PushHub;
class Tokens;
class Uploads;

/// Members are owned by the emulator and may be used from any thread.
struct Service {
  Store& store;
  Tokens& tokens;
  Uploads& uploads;
  Channels& channels;
  PushHub& push;
};

/// The item of an id or alias ("root") as the caller may see it. Throws ApiError (404) when it
/// does not exist, is hidden from the user, or lies in a team drive and the call does not say that
/// it supports them.
Item VisibleItem(Service& service, const Call& call, const std::string& id);
/// Throws ApiError (403) when the caller has less than `role`.
void RequireRole(Service& service, const Call& call, const Item& item, Role role);

}  // namespace emulator
