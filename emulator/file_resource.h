// The File resource of the v3 API.
// https://developers.google.com/drive/api/reference/rest/v3/files
#pragma once

#include <map>
#include <string>

#include "emulator/call.h"
#include "emulator/field_writer.h"
#include "emulator/fields.h"
#include "emulator/service.h"

namespace emulator {

/// Everything that `fields` may name in a File.
const FieldMask& FileSchema();
/// A schema or default with FILE replaced by the File's.
FieldMask WithFileSchema(std::string text);

/// Writes files as one user sees them. For one request: it remembers users.
class FileWriter {
 public:
  FileWriter(Service& api, const Call& request) : service(api), call(request) {}

  void Write(const Item& item, FieldWriter& out);

 private:
  void WriteAbout(const Item& item, FieldWriter& out);
  void WriteTimes(const Item& item, FieldWriter& out);
  void WriteLinks(const Item& item, FieldWriter& out);
  void WriteContent(const Item& item, FieldWriter& out);
  void WritePeople(const Item& item, FieldWriter& out);
  void WriteAccess(const Item& item, FieldWriter& out);
  void WriteParents(const Item& item, FieldWriter& out);
  void WriteUser(int64_t number, FieldWriter& out);
  const User& Person(int64_t number);

  Service& service;
  const Call& call;
  std::map<int64_t, User> people;
  std::map<std::string, bool> knownParents;
};

/// The reply of methods that answer one file. `call.Param("fields")` selects.
Reply FileReply(Service& service, const Call& call, const Item& item);

/// The full resource as the item's owner, or the first member of its drive, sees it.
Json::Value OwnersView(Service& service, const Item& item);

/// Changes with every change of the item; what If-Match is compared with.
std::string EntityTag(const Item& item);

/// One Permission resource.
Json::Value PermissionResource(Service& service, const Grant& grant, const Item& item);
/// All of an item's permissions, its owner's included.
std::vector<Grant> AllGrants(Service& service, const Item& item);

/// The User resource.
Json::Value UserResource(const User& user, const User& viewer);

/// MIME types that a Google document can be exported as; empty for other types.
std::vector<std::string> ExportTypes(const std::string& mimeType);

}  // namespace emulator
