// Faults and journal entries as JSON, for the admin port.
#pragma once

#include <json/json.h>

#include "emulator/drive_emulator.h"

namespace emulator {

Json::Value FaultToJson(const Fault& fault);
/// Throws std::invalid_argument for a member that Fault does not have or of another kind.
Fault FaultFromJson(const Json::Value& value);
Json::Value EntryToJson(const JournalEntry& entry);

}  // namespace emulator
