#include "host/core/path_finder.h"

#include <algorithm>
#include <vector>

namespace host {
namespace {

constexpr int kDeepestPath = 100;
constexpr char kTeamDrives[] = "teamdrive";
constexpr char kShared[] = "shared";

}  // namespace

PathFinder::PathFinder(Session& openSession) : session(openSession) {
  DriveTree tree(session);
  const DrivePath top;
  const Item root = tree.Find(top);
  tops[root.id] = top;
  if (!IsMadeUpFolder(root)) return;
  for (const Item& item : tree.Children(root, top)) {
    const DrivePath path = top.Child(item.name);
    tops[item.id] = path;
    if (item.id == kShared) shared = path;
    if (item.id != kTeamDrives) continue;
    for (const Item& drive : tree.Children(item, path)) tops[drive.id] = path.Child(drive.name);
  }
}

std::optional<DrivePath> PathFinder::PathOf(const std::string& id) {
  std::vector<std::string> names;
  std::string at = id;
  auto top = tops.find(at);
  for (int depth = 0; top == tops.end() && depth < kDeepestPath; ++depth) {
    Item item;
    char* message = nullptr;
    const AERROR code = session.Drive().GetFileInfo(at.c_str(), &item, &message);
    session.Drive().FreeMsg(message);
    // A parent that may not be read stands above what was shared.
    if (code != AERROR::SUCCESS && names.empty()) return std::nullopt;
    if (code != AERROR::SUCCESS) break;
    names.push_back(item.name);
    if (item.parents.empty()) break;
    at = item.parents.back();
    top = tops.find(at);
  }
  DrivePath path = top == tops.end() ? shared : top->second;
  path.names.insert(path.names.end(), names.rbegin(), names.rend());
  return path;
}

}  // namespace host
