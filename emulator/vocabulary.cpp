#include "emulator/vocabulary.h"

#include <algorithm>
#include <stdexcept>

#include "emulator/ids.h"
#include "emulator/times.h"

namespace emulator {

namespace {

constexpr int64_t kMinute = 60'000;

std::vector<std::string> Split(const std::string& path) {
  std::vector<std::string> parts;
  for (size_t begin = 0; begin < path.size();) {
    const size_t end = std::min(path.find('/', begin), path.size());
    if (end > begin) parts.push_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

std::optional<Item> ChildNamed(Store& store, const Item& parent, const std::string& name) {
  for (Item& child : store.Children(parent.n)) {
    if (child.name == name) return std::move(child);
  }
  return std::nullopt;
}

}  // namespace

User Vocabulary::UserOf(const std::string& email) {
  const auto user = store.UserNamed(email);
  if (!user) throw std::out_of_range("the emulator has no user " + email);
  return *user;
}

Item Vocabulary::ItemOf(const std::string& id) {
  auto item = store.Find(id);
  if (!item) throw std::out_of_range("the emulator has no item " + id);
  return *item;
}

Item Vocabulary::NewItem(const Item& parent, const std::string& name, const std::string& mimeType) {
  Item item;
  item.name = name;
  item.mimeType = mimeType;
  item.owner = item.modifier = parent.owner;
  if (frozen != 0) {
    item.id = FileId(HashText(parent.id + "/" + name + "/" + std::to_string(store.Count())));
    item.created = item.modified = frozen;
    frozen += kMinute;
  }
  return item;
}

Item Vocabulary::FolderBelow(const Item& parent, const std::string& name) {
  const auto known = ChildNamed(store, parent, name);
  if (known && known->Folder()) return *known;
  return store.Add(NewItem(parent, name, kFolderType), parent);
}

std::string Vocabulary::MakeFolder(const std::string& path, const std::string& user) {
  const auto work = store.Begin();
  Item folder = ItemOf(UserOf(user).rootId);
  for (const std::string& name : Split(path)) folder = FolderBelow(folder, name);
  return folder.id;
}

std::pair<Item, std::string> Vocabulary::FolderAndName(const std::string& path,
                                                       const std::string& user) {
  std::vector<std::string> parts = Split(path);
  if (parts.empty()) throw std::invalid_argument("a file needs a name");
  const std::string name = parts.back();
  parts.pop_back();
  Item folder = ItemOf(UserOf(user).rootId);
  for (const std::string& part : parts) folder = FolderBelow(folder, part);
  return {folder, name};
}

int64_t Vocabulary::StoreBytes(const std::string& content, std::string& md5) {
  if (content.empty()) return 0;
  const auto writer = store.Contents().Create(store.NewBlob());
  writer->Write(content.data(), content.size());
  md5 = writer->Md5();
  writer->Keep();
  return writer->Number();
}

std::string Vocabulary::Put(const std::string& path, const std::string& content,
                            const std::string& mimeType, const std::string& user) {
  const auto work = store.Begin();
  const auto [folder, name] = FolderAndName(path, user);
  if (const auto known = ChildNamed(store, folder, name)) {
    Write(known->id, content);
    return known->id;
  }
  return PutUnder(folder.id, name, content, mimeType);
}

std::string Vocabulary::PutSynthetic(const std::string& path, int64_t size,
                                     const std::string& user) {
  const auto work = store.Begin();
  const auto [folder, name] = FolderAndName(path, user);
  Item item = NewItem(folder, name, TypeOfName(name));
  item.size = size;
  item.blob = store.NewSyntheticBlob(HashText(path) ^ static_cast<uint64_t>(size));
  return store.Add(item, folder).id;
}

std::string Vocabulary::PutUnder(const std::string& parentId, const std::string& name,
                                 const std::string& content, const std::string& mimeType) {
  const auto work = store.Begin();
  const Item parent = ItemOf(parentId);
  Item item = NewItem(parent, name, mimeType.empty() ? TypeOfName(name) : mimeType);
  if (!GoogleType(item.mimeType)) {
    item.size = static_cast<int64_t>(content.size());
    item.blob = StoreBytes(content, item.md5);
  }
  return store.Add(item, parent).id;
}

void Vocabulary::Write(const std::string& id, const std::string& content) {
  const auto work = store.Begin();
  Item item = ItemOf(id);
  std::string md5;
  const int64_t blob = StoreBytes(content, md5);
  item.modified = NowMilliseconds();
  store.SetContent(item, blob, static_cast<int64_t>(content.size()), md5);
}

void Vocabulary::ShareWith(const std::string& id, const std::string& email,
                           const std::string& role) {
  const auto work = store.Begin();
  if (RoleNamed(role) == Role::kNone) throw std::invalid_argument(role + " is no Drive role");
  const User user = UserOf(email);
  store.Share(ItemOf(id), {user.permissionId, user.n, "user", role, user.email, false, frozen});
}

std::optional<std::string> Vocabulary::Find(const std::string& path, const std::string& user) {
  const auto work = store.Begin();
  Item item = ItemOf(UserOf(user).rootId);
  for (const std::string& name : Split(path)) {
    auto child = ChildNamed(store, item, name);
    if (!child) return std::nullopt;
    item = std::move(*child);
  }
  return item.id;
}

std::optional<std::string> Vocabulary::Content(const std::string& id, int64_t offset,
                                               int64_t length) {
  const auto item = store.Find(id);
  if (!item || !item->HasContent()) return std::nullopt;
  const auto source = store.Open(*item);
  if (!source || offset < 0) return std::nullopt;
  length = std::clamp<int64_t>(item->size - offset, 0, length);
  std::string bytes(static_cast<size_t>(length), '\0');
  if (!source->Read(offset, bytes.data(), bytes.size())) return std::nullopt;
  return bytes;
}

Json::Value Vocabulary::Node(const Item& item) {
  Json::Value node;
  node["id"] = item.id;
  node["name"] = item.name;
  node["mimeType"] = item.mimeType;
  node["modifiedTime"] = Rfc3339(item.modified);
  if (item.HasContent()) node["size"] = Json::Int64(item.size);
  if (!item.Folder()) return node;
  node["children"] = Json::arrayValue;
  std::vector<Item> children = store.Children(item.n);
  std::sort(children.begin(), children.end(), [](const Item& a, const Item& b) {
    return std::tie(a.name, a.id) < std::tie(b.name, b.id);
  });
  for (const Item& child : children) node["children"].append(Node(child));
  return node;
}

Json::Value Vocabulary::DumpTree(const std::string& email) {
  const auto work = store.Begin();
  const User user = UserOf(email);
  Json::Value tree;
  tree["root"] = Node(ItemOf(user.rootId));
  tree["teamDrives"] = tree["sharedWithMe"] = Json::arrayValue;
  for (const Item& drive : store.Drives(user.n, 0, 1'000'000)) {
    tree["teamDrives"].append(Node(drive));
  }
  Statement row = store.Sql().Query(
      "SELECT i.id FROM grants g JOIN items i ON i.n = g.item WHERE g.user = ? AND inherited = 0"
      " AND i.drive = 0 AND i.trashed = 0 AND i.owner <> ? ORDER BY i.name, i.id",
      user.n, user.n);
  while (row.Step()) tree["sharedWithMe"].append(Node(ItemOf(row.Text(0))));
  return tree;
}

}  // namespace emulator
