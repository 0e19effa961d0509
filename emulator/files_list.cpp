// files.list
// https://developers.google.com/drive/api/reference/rest/v3/files/list
#include <optional>

#include "emulator/api_error.h"
#include "emulator/file_resource.h"
#include "emulator/handlers.h"
#include "emulator/paging.h"
#include "emulator/query.h"

namespace emulator {

namespace {

constexpr int64_t kUsualPage = 100, kLargestPage = 1000;

/// One listing request, checked and ready to be turned into SQL.
struct Listing {
  std::string from;
  std::vector<SqlCondition> conditions;
  std::vector<SortKey> keys;
  std::string scope;  ///< what a page token must belong to
};

SqlCondition Visible(const Call& call) {
  SqlCondition condition;
  condition.text =
      "((i.drive = 0 AND (i.owner = ? OR EXISTS(SELECT 1 FROM grants WHERE user = ? AND item = "
      "i.n)))";
  condition.values = {call.user.n, call.user.n};
  if (call.IncludesDriveItems()) {
    condition.text +=
        " OR (i.drive <> 0 AND EXISTS(SELECT 1 FROM grants WHERE user = ? AND item = i.drive))";
    condition.values.emplace_back(call.user.n);
  }
  condition.text += ") AND i.root = 0";
  return condition;
}

void RequireFolder(Service& service, const Call& call, const std::string& id) {
  const auto folder = service.store.Find(id);
  // The service does not repeat the id of a parent that it cannot find.
  if (!folder || service.store.RoleOf(call.user.n, *folder) == Role::kNone) throw FileNotFound("");
}

void AddCorpus(Service& service, const Call& call, Listing& listing) {
  const std::string corpora = call.Param("corpora"), driveId = call.DriveId();
  const bool drive = corpora == "drive" || corpora == "teamDrive";
  if (drive != !driveId.empty()) throw InvalidValue(drive ? "driveId" : "corpora");
  if (!drive && corpora != "" && corpora != "user" && corpora != "domain" &&
      corpora != "allDrives" && corpora != "allTeamDrives" && corpora != "user,allTeamDrives") {
    throw InvalidValue("corpora");
  }
  if (!drive) return;
  if (!call.IncludesDriveItems()) throw InvalidValue("includeItemsFromAllDrives");
  const auto root = service.store.Find(driveId);
  if (!root || root->drive != root->n || service.store.RoleOf(call.user.n, *root) == Role::kNone) {
    throw ApiError(404, "notFound", "Shared drive not found: " + driveId)
        .At("parameter", "driveId");
  }
  listing.conditions.push_back({"i.drive = ?", {root->n}, "", false});
}

void AddSpaces(const Call& call, Listing& listing) {
  const std::string spaces = call.Param("spaces");
  if (spaces.empty() || spaces == "drive") return;
  if (spaces != "appDataFolder" && spaces != "photos") throw InvalidValue("spaces");
  listing.conditions.push_back({"0", {}, "", false});
}

Listing PlanListing(Service& service, const Call& call) {
  Listing listing;
  listing.from = "items i";
  SqlCondition query;
  if (!call.Param("q").empty()) {
    query = CompileQuery(call.Param("q"), call.user.n, call.user.rootId);
  }
  listing.keys = ParseOrderBy(call.Param("orderBy"), call.user.n);
  // CROSS JOIN keeps the database from choosing another order than the one that needs no sorting.
  if (!query.parent.empty()) {
    RequireFolder(service, call, query.parent);
    listing.from = "edges e CROSS JOIN items i ON i.n = e.child";
    listing.conditions.push_back(
        {"e.parent = (SELECT n FROM items WHERE id = ?)", {query.parent}, "", false});
    listing.keys.back().expression = "e.child";
  } else if (query.sharedWithMe) {
    listing.from = "grants e CROSS JOIN items i ON i.n = e.item";
    listing.conditions.push_back({"e.user = ?", {call.user.n}, "", false});
    listing.keys.back().expression = "e.item";
  }
  AddCorpus(service, call, listing);
  AddSpaces(call, listing);
  listing.conditions.push_back(Visible(call));
  listing.conditions.push_back(std::move(query));
  listing.scope = call.user.email + "\n" + call.Param("q") + "\n" + call.Param("orderBy") + "\n" +
                  call.Param("corpora") + "\n" + call.DriveId();
  return listing;
}

Statement Prepare(Database& database, const Listing& listing, int64_t limit) {
  std::string sql = "SELECT " + Store::ItemColumns();
  for (const SortKey& key : listing.keys) sql += ", " + key.expression;
  sql += " FROM " + listing.from + " WHERE 1";
  for (const SqlCondition& condition : listing.conditions) sql += " AND (" + condition.text + ")";
  sql += " ORDER BY " + OrderClause(listing.keys) + " LIMIT ?";
  Statement statement = database.Query(sql);
  for (const SqlCondition& condition : listing.conditions) {
    for (const SqlValue& value : condition.values) {
      std::visit([&statement](const auto& bound) { statement.Bind(bound); }, value);
    }
  }
  statement.Bind(limit);
  return statement;
}

std::vector<SqlValue> SortValues(const Statement& row, size_t keys) {
  constexpr int kFirst = 21;  // after the columns of an item
  std::vector<SqlValue> values;
  for (int column = kFirst; column < kFirst + static_cast<int>(keys); ++column) {
    if (row.IsText(column)) {
      values.emplace_back(row.Text(column));
    } else {
      values.emplace_back(row.Int(column));
    }
  }
  return values;
}

FieldMask ListFields(const Call& call) {
  static const FieldMask schema = WithFileSchema("kind,nextPageToken,incompleteSearch,files(FILE)");
  static const FieldMask defaults =
      FieldMask::Parse("kind,nextPageToken,incompleteSearch,files(kind,id,name,mimeType)");
  return SelectFields(call.Param("fields"), schema, defaults);
}

}  // namespace

Reply ListFiles(Service& service, Call& call) {
  const FieldMask mask = ListFields(call);
  const int64_t size = call.Number("pageSize", 1, kLargestPage, kUsualPage);
  const auto work = service.store.Begin();
  Listing listing = PlanListing(service, call);
  if (!call.Param("pageToken").empty()) {
    listing.conditions.push_back(After(
        listing.keys, ReadPageToken(call.Param("pageToken"), listing.scope, listing.keys.size())));
  }
  Statement row = Prepare(service.store.Sql(), listing, size + 1);
  std::vector<SqlValue> last;
  bool more = false;
  FieldWriter out(mask);
  out.BeginObject();
  out.Text("kind", "drive#fileList");
  out.Bool("incompleteSearch", false);
  const bool files = out.Key("files");
  if (files) out.BeginArray();
  FileWriter writer(service, call);
  for (int64_t written = 0; row.Step(); ++written) {
    more = written == size;
    if (more) break;
    if (files) writer.Write(Store::ReadItem(row), out);
    if (written + 1 == size) last = SortValues(row, listing.keys.size());
  }
  if (files) out.EndArray();
  if (more) out.Text("nextPageToken", MakePageToken(listing.scope, last));
  out.EndObject();
  return JsonReply(out.Take());
}

}  // namespace emulator
