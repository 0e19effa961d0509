// From an item's id to the path under which the drive shows it.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "host/core/drive_tree.h"

namespace host {

/// Learns the drive's top folders when it is made (a few requests) and asks for the rest anew each
/// time. One thread at a time.
class PathFinder {
 public:
  /// Throws Failure when the top cannot be listed.
  explicit PathFinder(Session& session);

  /// Nothing when the item has gone or cannot be read.
  std::optional<DrivePath> PathOf(const std::string& id);

 private:
  Session& session;
  std::map<std::string, DrivePath> tops;  // by id
  DrivePath shared;                       // where items without a known parent are shown
};

}  // namespace host
