#include "host/core/drive_tree.h"

#include <fnmatch.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <tuple>
#include <utility>

#include "host/core/failure.h"
#include "host/core/sinks.h"

namespace host {
namespace {

constexpr size_t kListingsAtOnce = 8;
constexpr char kIdMark[] = "id:";
constexpr char kVirtualRoot[] = "virtual_root";

std::string Escaped(const std::string& name) {
  std::string text;
  for (const char c : name) {
    if (c == '/' || c == '\\') text += '\\';
    text += c;
  }
  return text;
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

bool IsEscape(const std::string& text, size_t at) {
  return text[at] == '\\' && at + 1 < text.size() && (text[at + 1] == '/' || text[at + 1] == '\\');
}

Failure Missing(const DrivePath& at, const std::string& name) {
  return Failure("cannot find " + Quoted(at.Child(name).Text()) + ": there is no " + Quoted(name) +
                     " in " + Quoted(at.Text()),
                 "look with `vormlane ls \"" + at.Text() + "\"`", AERROR::FILE_NOT_FOUND);
}

Failure Ambiguous(const DrivePath& path, const std::vector<Item>& items) {
  std::string ids;
  for (const Item& item : items) ids += (ids.empty() ? "id:" : ", id:") + item.id;
  return Failure(Quoted(path.Text()) + " names " + std::to_string(items.size()) + " items",
                 "say which one: " + ids, AERROR::INVALID_NAME);
}

Failure NotAFolder(const DrivePath& path) {
  return Failure(Quoted(path.Text()) + " is not a folder", "look with `vormlane stat`",
                 AERROR::INVALID_DIRECTORY);
}

/// A folder of a walk that has yet to be listed.
struct Pending {
  Branch* branch;
  DrivePath path;
  std::vector<std::string> above;  // ids of the folders that it stands in, itself included
};

/// Runs `work` on each element, several at once; throws what the first failed one threw.
template <typename Element, typename Work>
void ForEachAtOnce(std::vector<Element>& elements, size_t atOnce, Work&& work) {
  std::atomic<size_t> next{0};
  std::mutex mutex;
  std::exception_ptr failure;
  const auto run = [&] {
    for (size_t i = next++; i < elements.size(); i = next++) {
      try {
        work(elements[i]);
      } catch (...) {
        std::lock_guard lock(mutex);
        if (!failure) failure = std::current_exception();
        next = elements.size();
      }
    }
  };
  {
    std::vector<std::jthread> threads;
    for (size_t i = 0; i < std::min(elements.size(), atOnce); ++i) threads.emplace_back(run);
  }
  if (failure) std::rethrow_exception(failure);
}

/// The folders among a listed folder's children.
void AppendFolders(const Pending& listed, std::vector<Pending>& folders) {
  for (Branch& child : listed.branch->children) {
    const std::string& id = child.item.id;
    // A folder that stands below itself would never end.
    const bool loops =
        std::find(listed.above.begin(), listed.above.end(), id) != listed.above.end();
    if (!IsFolder(child.item) || loops) continue;
    folders.push_back({&child, listed.path.Child(child.item.name), listed.above});
    folders.back().above.push_back(id);
  }
}

}  // namespace

DrivePath DrivePath::Parse(const std::string& text) {
  DrivePath path;
  std::string name;
  const auto end = [&] {
    if (!name.empty()) path.names.push_back(std::exchange(name, {}));
  };
  for (size_t i = 0; i < text.size(); ++i) {
    if (IsEscape(text, i)) {
      name += text[++i];
    } else if (text[i] == '/') {
      end();
    } else {
      name += text[i];
    }
  }
  end();
  if (text.rfind(kIdMark, 0) == 0 && !path.names.empty()) {
    path.startId = path.names[0].substr(sizeof kIdMark - 1);
    path.names.erase(path.names.begin());
    if (path.startId.empty()) throw Failure("\"id:\" names nothing", "say id:ID");
  }
  return path;
}

std::string DrivePath::Text() const {
  std::string text = startId.empty() ? "" : kIdMark + startId;
  for (const std::string& name : names) text += "/" + Escaped(name);
  return text.empty() ? "/" : text;
}

DrivePath DrivePath::Parent() const {
  DrivePath parent = *this;
  if (!parent.names.empty()) parent.names.pop_back();
  return parent;
}

DrivePath DrivePath::Child(const std::string& name) const {
  DrivePath child = *this;
  child.names.push_back(name);
  return child;
}

bool IsPattern(const std::string& name) { return name.find_first_of("*?[") != std::string::npos; }

bool Matches(const std::string& pattern, const std::string& name) {
  return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

Item DriveTree::Get(const std::string& id, const std::string& shown) {
  Item item;
  Perform(session, "cannot find " + Quoted(shown),
          [&](char** message) { return session.Drive().GetFileInfo(id.c_str(), &item, message); });
  // The last of the record's parents is the first that the service names.
  if (item.parent_id.empty() && !item.parents.empty()) item.parent_id = item.parents.back();
  return item;
}

Item DriveTree::Start(const DrivePath& path) {
  if (!path.startId.empty()) return Get(path.startId, kIdMark + path.startId);
  Item root;
  root.id = session.RootId();
  root.attributes = kFsFolder | (root.id == kVirtualRoot ? kFsSynthesised : 0u);
  return root;
}

std::optional<Item> DriveTree::Step(const Item& folder, const DrivePath& at,
                                    const std::string& name) {
  if (!IsFolder(folder)) throw NotAFolder(at);
  std::vector<Item> found = Children(folder, at);
  std::erase_if(found, [&](const Item& item) { return item.name != name; });
  if (found.size() > 1) throw Ambiguous(at.Child(name), found);
  return found.empty() ? std::nullopt : std::optional(found[0]);
}

std::optional<Item> DriveTree::FindIfThere(const DrivePath& path) {
  if (path.names.empty()) return Start(path);
  return FindPlace(path).existing;
}

Item DriveTree::Find(const DrivePath& path) {
  Item item = Start(path);
  DrivePath at{path.startId, {}};
  for (const std::string& name : path.names) {
    auto next = Step(item, at, name);
    if (!next) throw Missing(at, name);
    item = std::move(*next);
    at = at.Child(name);
  }
  return item;
}

Item DriveTree::FindFolder(const DrivePath& path) {
  Item folder = Find(path);
  if (!IsFolder(folder)) throw NotAFolder(path);
  return folder;
}

Place DriveTree::FindPlace(const DrivePath& path) {
  if (path.names.empty())
    throw Failure(Quoted(path.Text()) + " has no name in a folder", "say FOLDER/NAME",
                  AERROR::INVALID_NAME);
  const DrivePath parent = path.Parent();
  Place place{FindFolder(parent), path.names.back(), std::nullopt};
  place.existing = Step(place.folder, parent, place.name);
  return place;
}

std::vector<Item> DriveTree::Children(const Item& folder, const DrivePath& path) {
  std::vector<Item> items;
  ListSink sink([&](const Item& item) {
    items.push_back(item);
    items.back().parent_id = folder.id;
  });
  Perform(session, "cannot list " + Quoted(path.Text()), [&](char** message) {
    return session.Drive().GetFileList(folder.id.c_str(), &sink, message);
  });
  sink.Rethrow();
  // The root folder's record is empty when its look-up failed while the drive connected.
  for (Item& item : items)
    if (item.name.empty() && item.attributes == 0) item = Get(item.id, path.Text());
  std::sort(items.begin(), items.end(), [](const Item& a, const Item& b) {
    return std::tie(a.name, a.id) < std::tie(b.name, b.id);
  });
  // Pages can shift under a listing while others write, which repeats an item.
  const auto same = [](const Item& a, const Item& b) { return a.id == b.id && a.name == b.name; };
  items.erase(std::unique(items.begin(), items.end(), same), items.end());
  return items;
}

Branch DriveTree::Walk(const Item& top, const DrivePath& path, int depth) {
  Branch root{top, {}};
  std::vector<Pending> level;
  if (IsFolder(top)) level.push_back({&root, path, {top.id}});
  for (; !level.empty() && depth > 0; --depth) {
    ForEachAtOnce(level, kListingsAtOnce, [&](const Pending& pending) {
      for (Item& item : Children(pending.branch->item, pending.path))
        pending.branch->children.push_back({std::move(item), {}});
    });
    std::vector<Pending> below;
    for (const Pending& listed : level) AppendFolders(listed, below);
    level = std::move(below);
  }
  return root;
}

}  // namespace host
