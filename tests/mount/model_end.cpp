// What must be there in the end.
#include <algorithm>

#include "tests/mount/model.h"

namespace host::mount {

void Model::Claims() {
  for (const Thing& thing : things)
    if (!thing.folder) ClaimContent(thing);
}

void Model::ClaimContent(const Thing& thing) {
  if (!thing.base) {
    if (thing.here) ++claims[thing.here->content].must;
    if (thing.there) ++claims[thing.there->content].must;
    return;
  }
  const bool writtenHere = thing.here && thing.here->written;
  const bool writtenThere = thing.there && thing.there->written;
  if (writtenHere) ++claims[thing.here->content].must;
  if (writtenThere) ++claims[thing.there->content].must;
  if (thing.here && thing.there && !writtenHere && !writtenThere)
    ++claims[thing.base->content].must;
  // One side moved it, the other removed it; or its bytes went over to another's place.
  const bool moved = thing.IsMovedHere() || (thing.there && !thing.there->IsAt(*thing.base));
  if ((!thing.here || !thing.there || writtenThere) && (moved || !thing.over.empty()))
    ++claims[thing.base->content].may;
}

std::string Model::PathOf(int index) {
  std::string path;
  for (int i = index; i != 0;) {
    const Thing& thing = At(i);
    if (thing.IsTouchedHere() && thing.IsTouchedThere()) return "";
    if (thing.base && (!thing.here || !thing.there)) return "";
    if (MayBeTakenForOurs(thing)) return "";
    // It may have got the Drive id, and with it the history, of what it replaced.
    if (!thing.over.empty() && offline) return "";
    const View& view = !thing.there || thing.IsTouchedHere() ? *thing.here : *thing.there;
    path = "/" + view.name + path;
    i = view.parent;
  }
  return path;
}

/// A folder is all that can be known of a lost answer to the making of one.
bool Model::MayBeTakenForOurs(const Thing& thing) {
  return thing.folder && !thing.base && thing.there &&
         std::any_of(things.begin(), things.end(), [&](const Thing& other) {
           return other.folder && !other.base && other.here && other.made.IsAt(*thing.there);
         });
}

void Model::CompareWithService() {
  std::multimap<std::string, std::string> found;  // content, path
  std::multiset<std::string> folders;
  WalkService(service.RootId(), "", found, folders);
  for (const auto& [content, claim] : claims) {
    const int count = static_cast<int>(found.count(content));
    EXPECT_GE(count, claim.must) << "missing: " << Describe(content);
    EXPECT_LE(count, claim.must + claim.may) << "too often: " << Describe(content);
  }
  for (const auto& [content, path] : found)
    EXPECT_EQ(claims.count(content), 1u) << "unexpected: " << path << ": " << Describe(content);
  for (int i = 1; i < static_cast<int>(things.size()); ++i) {
    const Thing& thing = At(i);
    const std::string path = thing.here || thing.there ? PathOf(i) : "";
    if (path.empty()) continue;
    const View& view = thing.here && thing.here->written ? *thing.here
                       : thing.there                     ? *thing.there
                                                         : *thing.here;
    const auto [from, to] = found.equal_range(view.content);
    const bool there =
        thing.folder ? folders.count(path) > 0
                     : std::any_of(from, to, [&](const auto& at) { return at.second == path; });
    std::string places;
    for (auto at = from; at != to; ++at) places += " " + at->second;
    EXPECT_TRUE(there) << "not at its place: " << path << " " << Describe(view.content)
                       << "\nbut at" << places;
  }
  const auto known = std::count_if(things.begin() + 1, things.end(),
                                   [](const Thing& thing) { return thing.folder; });
  EXPECT_LE(static_cast<int64_t>(folders.size()), known) << "folders were doubled";
}

std::string Model::Describe(const std::string& content) {
  std::string text = Begin(content);
  for (const Thing& thing : things) {
    for (const auto& [side, view] :
         {std::pair("base", &thing.base), {"here", &thing.here}, {"there", &thing.there}})
      if (*view && (*view)->content == content && !thing.folder)
        text += std::string(" ") + side + " " + std::to_string(&thing - things.data()) + ":" +
                (*view)->name + " in " + std::to_string((*view)->parent);
  }
  return text;
}

void Model::WalkService(const std::string& folder, const std::string& path,
                        std::multimap<std::string, std::string>& found,
                        std::multiset<std::string>& folders) {
  for (const std::string& id : service.Children(folder)) {
    const std::string name = path + "/" + service.Item(id)["name"].asString();
    const std::optional<std::string> content = service.Content(id);
    if (content) found.emplace(*content, name);
    if (content) continue;
    folders.insert(name);
    WalkService(id, name, found, folders);
  }
}

void Model::TakeUp(int folder) {
  std::vector<Item> items;
  const std::string id = At(folder).id;
  ASSERT_EQ(drive->tree.List(At(folder).ino, items), 0);
  std::set<std::string> shown;
  for (const Item& item : items) shown.insert(item.id);
  const std::vector<std::string> listed = service.Children(id);
  EXPECT_EQ(shown, std::set<std::string>(listed.begin(), listed.end()))
      << "in " << At(folder).shown;
  EXPECT_EQ(items.size(), shown.size());
  for (const Item& item : items) {
    Thing thing;
    thing.folder = item.IsFolder();
    thing.id = item.id;
    thing.ino = item.ino;
    thing.shown = item.name;
    const std::string content = item.IsFolder() ? "" : Slurp(item.ino);
    thing.base = View{folder, service.Item(item.id)["name"].asString(), content, false};
    thing.here = thing.there = thing.base;
    thing.committed = content;
    EXPECT_TRUE(thing.folder || content == service.Content(item.id))
        << item.name << " differs: " << content.substr(0, 40);
    things.push_back(thing);
    if (item.IsFolder()) TakeUp(static_cast<int>(things.size()) - 1);
  }
}

}  // namespace host::mount
