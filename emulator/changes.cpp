// The change log.
// https://developers.google.com/drive/api/reference/rest/v3/changes
#include <charconv>

#include "emulator/api_error.h"
#include "emulator/file_resource.h"
#include "emulator/handlers.h"
#include "emulator/times.h"

namespace emulator {

namespace {

constexpr int64_t kUsualPage = 100, kLargestPage = 1000;

FieldMask ChangeFields(const Call& call) {
  static const std::string kDrive = "(kind,id,name,createdTime,hidden,capabilities/*)";
  static const FieldMask schema = WithFileSchema(
      "kind,nextPageToken,newStartPageToken,changes(kind,removed,file(FILE),fileId,time,type,"
      "changeType,driveId,teamDriveId,drive" +
      kDrive + ",teamDrive" + kDrive + ")");
  static const FieldMask defaults = FieldMask::Parse(
      "kind,nextPageToken,newStartPageToken,changes(kind,removed,fileId,time,type,changeType,"
      "driveId,teamDriveId,file(kind,id,name,mimeType),drive(kind,id,name),"
      "teamDrive(kind,id,name))");
  return SelectFields(call.Param("fields"), schema, defaults);
}

/// A change with the item that it is about, as far as the caller still sees it.
struct Told {
  Change change;
  std::optional<Item> item;
};

bool Wanted(const Call& call, const Told& told) {
  if (told.change.removed && !call.Flag("includeRemoved", true)) return false;
  if (told.change.drive != 0 && !call.IncludesDriveItems()) return false;
  if (!call.DriveId().empty() && told.item && told.change.ofDrive) {
    return told.item->id == call.DriveId();
  }
  const bool mine = !told.item || (told.item->owner == call.user.n && told.change.drive == 0);
  return mine || !call.Flag("restrictToMyDrive");
}

void WriteDrive(const Told& told, FieldWriter& out) {
  out.Text("driveId", told.change.itemId);
  out.Text("teamDriveId", told.change.itemId);
  if (!told.item) return;
  for (const auto& [member, kind] :
       {std::pair{"drive", "drive#drive"}, {"teamDrive", "drive#teamDrive"}}) {
    if (!out.Key(member)) continue;
    out.BeginObject();
    out.Text("kind", kind);
    out.Text("id", told.item->id);
    out.Text("name", told.item->name);
    out.EndObject();
  }
}

void WriteChange(const Told& told, FileWriter& files, FieldWriter& out) {
  out.BeginObject();
  out.Text("kind", "drive#change");
  out.Text("type", told.change.ofDrive ? "teamDrive" : "file");
  out.Text("changeType", told.change.ofDrive ? "drive" : "file");
  out.Bool("removed", !told.item);
  if (out.Key("time")) out.Text(Rfc3339(told.change.time));
  if (told.change.ofDrive) {
    WriteDrive(told, out);
  } else {
    out.Text("fileId", told.change.itemId);
    if (told.item && out.Key("file")) files.Write(*told.item, out);
  }
  out.EndObject();
}

Told Look(Service& service, const Call& call, const Change& change) {
  Told told{change, change.removed ? std::nullopt : service.store.Find(change.itemId)};
  if (told.item && service.store.RoleOf(call.user.n, *told.item) == Role::kNone) told.item.reset();
  told.change.removed = !told.item;
  return told;
}

}  // namespace

int64_t ChangeToken(Service& service, const Call& call) {
  const std::string text = call.Param("pageToken");
  if (text.empty()) {
    throw ApiError(400, "required", "Required parameter: pageToken").At("parameter", "pageToken");
  }
  int64_t token = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), token);
  if (error != std::errc() || end != text.data() + text.size() || token < 1 ||
      token > service.store.LastChange() + 1) {
    throw InvalidValue("pageToken");
  }
  return token;
}

Reply StartPageToken(Service& service, Call&) {
  Json::Value value;
  value["kind"] = "drive#startPageToken";
  value["startPageToken"] = std::to_string(service.store.LastChange() + 1);
  return JsonReply(value);
}

Reply ListChanges(Service& service, Call& call) {
  const FieldMask mask = ChangeFields(call);
  const int64_t size = call.Number("pageSize", 1, kLargestPage, kUsualPage);
  const auto work = service.store.Begin();
  std::vector<Change> changes =
      service.store.Changes(call.user.n, ChangeToken(service, call), size + 1);
  int64_t next = 0;
  if (static_cast<int64_t>(changes.size()) > size) {
    next = changes.back().seq;
    changes.pop_back();
  }
  FieldWriter out(mask);
  FileWriter files(service, call);
  out.BeginObject();
  out.Text("kind", "drive#changeList");
  if (next != 0) {
    out.Text("nextPageToken", std::to_string(next));
  } else {
    out.Text("newStartPageToken", std::to_string(service.store.LastChange() + 1));
  }
  if (out.Key("changes")) {
    out.BeginArray();
    for (const Change& change : changes) {
      const Told told = Look(service, call, change);
      if (Wanted(call, told)) WriteChange(told, files, out);
    }
    out.EndArray();
  }
  out.EndObject();
  return JsonReply(out.Take());
}

}  // namespace emulator
