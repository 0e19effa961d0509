#include "emulator/metadata.h"

#include <algorithm>
#include <array>

#include "emulator/api_error.h"
#include "emulator/file_resource.h"
#include "emulator/times.h"

namespace emulator {

namespace {

// Members that are kept as written and shown again.
constexpr std::array kKept{"description",  "properties",      "appProperties",    "folderColorRgb",
                           "contentHints", "shortcutDetails", "originalFilename", "indexableText"};

std::vector<std::string> SplitIds(const std::string& list) {
  std::vector<std::string> ids;
  for (size_t begin = 0; begin < list.size();) {
    const size_t end = std::min(list.find(',', begin), list.size());
    if (end > begin) ids.push_back(list.substr(begin, end - begin));
    begin = end + 1;
  }
  return ids;
}

std::string TextMember(const Json::Value& metadata, const char* name) {
  const Json::Value& value = metadata[name];
  if (value.isNull()) return "";
  if (!value.isString()) throw InvalidValue(name);
  return value.asString();
}

bool FlagMember(const Json::Value& metadata, const char* name) {
  if (!metadata[name].isBool()) throw InvalidValue(name);
  return metadata[name].asBool();
}

void ReadTime(const Json::Value& metadata, const char* name, int64_t& time) {
  if (!metadata.isMember(name)) return;
  const auto read = ParseRfc3339(TextMember(metadata, name));
  if (!read) throw InvalidValue(name);
  time = *read;
}

// Properties are merged, and deleted by null; everything else is replaced.
void MergeKept(const Json::Value& metadata, Item& item) {
  Json::Value extra = item.extra.empty() ? Json::Value(Json::objectValue) : ParseObject(item.extra);
  bool changed = false;
  for (const char* name : kKept) {
    if (!metadata.isMember(name)) continue;
    changed = true;
    const Json::Value& given = metadata[name];
    if (!given.isObject() || !extra[name].isObject()) extra[name] = given;
    if (given.isObject()) {
      for (auto member = given.begin(); member != given.end(); ++member) {
        if (member->isNull()) {
          extra[name].removeMember(member.name());
        } else {
          extra[name][member.name()] = *member;
        }
      }
    }
    if (extra[name].isNull() || extra[name].empty()) extra.removeMember(name);
  }
  if (!changed) return;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["emitUTF8"] = true;
  item.extra = extra.empty() ? "" : Json::writeString(writer, extra);
}

void ApplyMembers(const Json::Value& metadata, Item& item) {
  if (metadata.isMember("name")) item.name = TextMember(metadata, "name");
  if (metadata.isMember("starred")) item.starred = FlagMember(metadata, "starred");
  ReadTime(metadata, "createdTime", item.created);
  ReadTime(metadata, "modifiedTime", item.modified);
  MergeKept(metadata, item);
}

Item WritableParent(Service& service, const Call& call, const std::string& id) {
  Item parent = VisibleItem(service, call, id);
  if (!parent.Folder()) {
    throw Forbidden("parentNotAFolder", "The specified parent is not a folder.");
  }
  if (service.store.RoleOf(call.user.n, parent) < Role::kWriter) {
    throw Forbidden("insufficientParentPermissions",
                    "Insufficient permissions for the specified parent.");
  }
  return parent;
}

std::vector<Item> ParentsFor(Service& service, const Call& call, const Json::Value& metadata) {
  std::vector<Item> parents;
  const Json::Value& given = metadata["parents"];
  if (!given.isNull() && !given.isArray()) throw InvalidValue("parents");
  for (const Json::Value& id : given) {
    if (!id.isString()) throw InvalidValue("parents");
    parents.push_back(WritableParent(service, call, id.asString()));
  }
  if (parents.empty()) parents.push_back(WritableParent(service, call, "root"));
  return parents;
}

void CheckQuota(Service& service, int64_t userNumber, int64_t growth) {
  if (userNumber == 0 || growth <= 0) return;
  const User user = service.store.UserNumbered(userNumber);
  if (user.used + growth > user.quota) {
    throw Forbidden("storageQuotaExceeded", "The user's Drive storage quota has been exceeded.");
  }
}

void CheckEntityTag(const Call& call, const Item& item) {
  const std::string wanted = call.Header("If-Match");
  if (!wanted.empty() && wanted != "*" && wanted != EntityTag(item)) {
    throw ApiError(412, "conditionNotMet", "Precondition Failed").At("header", "If-Match");
  }
}

void CheckWritable(const Json::Value& metadata) {
  if (metadata.isMember("parents")) {
    throw Forbidden("fieldNotWritable",
                    "The parents field is not directly writable in update requests. Use the "
                    "addParents and removeParents parameters instead.");
  }
  if (metadata.isMember("id")) {
    throw Forbidden("fieldNotWritable",
                    "The resource body includes fields which are not directly writable.");
  }
}

std::string TypeFor(const Json::Value& metadata, const NewContent* content,
                    const std::string& name) {
  const std::string given = TextMember(metadata, "mimeType");
  if (!given.empty()) return given;
  if (content != nullptr && !content->mimeType.empty()) return content->mimeType;
  return TypeOfName(name);
}

void ChangeParents(Service& service, const Call& call, Item& item) {
  if (call.Param("addParents").empty() && call.Param("removeParents").empty()) return;
  std::vector<Item> parents = service.store.Parents(item);
  for (const std::string& id : SplitIds(call.Param("removeParents"))) {
    const std::string real = id == "root" ? call.user.rootId : id;
    std::erase_if(parents, [&real](const Item& parent) { return parent.id == real; });
  }
  for (const std::string& id : SplitIds(call.Param("addParents"))) {
    Item parent = WritableParent(service, call, id);
    const bool known = std::any_of(parents.begin(), parents.end(),
                                   [&parent](const Item& one) { return one.n == parent.n; });
    if (!known) parents.push_back(std::move(parent));
  }
  service.store.SetParents(item, parents);
}

}  // namespace

void CheckCreate(Service& service, const Call& call, const Json::Value& metadata, int64_t size) {
  const auto work = service.store.Begin();
  const std::vector<Item> parents = ParentsFor(service, call, metadata);
  if (parents.front().drive == 0) CheckQuota(service, call.user.n, size);
}

void CheckUpdate(Service& service, const Call& call, const std::string& id, int64_t size) {
  const auto work = service.store.Begin();
  const Item item = VisibleItem(service, call, id);
  RequireRole(service, call, item, Role::kWriter);
  CheckQuota(service, item.owner, size - std::max<int64_t>(item.size, 0));
}

Item CreateFromMetadata(Service& service, const Call& call, const Json::Value& metadata,
                        const NewContent* content) {
  const auto work = service.store.Begin();
  const std::vector<Item> parents = ParentsFor(service, call, metadata);
  Item item;
  item.id = TextMember(metadata, "id");
  if (!item.id.empty() && service.store.Find(item.id)) {
    throw ApiError(409, "fileIdInUse", "A file already exists with the provided ID.");
  }
  item.name = "Untitled";
  item.owner = item.modifier = call.user.n;
  ApplyMembers(metadata, item);
  item.mimeType = TypeFor(metadata, content, item.name);
  if (!GoogleType(item.mimeType)) {
    item.size = content != nullptr ? content->size : 0;
    item.blob = content != nullptr ? content->blob : 0;
    item.md5 = content != nullptr ? content->md5 : "";
    if (parents.front().drive == 0) CheckQuota(service, call.user.n, item.size);
  }
  item = service.store.Add(item, parents.front());
  if (parents.size() > 1) service.store.SetParents(item, parents);
  return item;
}

Item UpdateFromMetadata(Service& service, const Call& call, const Json::Value& metadata,
                        const NewContent* content) {
  const auto work = service.store.Begin();
  Item item = VisibleItem(service, call, call.captures[0]);
  RequireRole(service, call, item, Role::kWriter);
  CheckEntityTag(call, item);
  CheckWritable(metadata);
  item.modifier = call.user.n;
  ChangeParents(service, call, item);
  if (content != nullptr) item.modified = NowMilliseconds();
  ApplyMembers(metadata, item);
  const std::string type = TextMember(metadata, "mimeType");
  if (!type.empty()) item.mimeType = type;
  if (metadata.isMember("trashed") && FlagMember(metadata, "trashed") != (item.trashed != 0)) {
    if (item.drive == 0) RequireRole(service, call, item, Role::kOwner);
    service.store.SetTrashed(item, metadata["trashed"].asBool());
  } else if (content != nullptr) {
    CheckQuota(service, item.owner, content->size - std::max<int64_t>(item.size, 0));
    service.store.SetContent(item, content->blob, content->size, content->md5);
  } else {
    service.store.Save(item);
  }
  return *service.store.Find(item.id);
}

}  // namespace emulator
