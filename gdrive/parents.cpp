// Changing and reading an item's parents.
// https://developers.google.com/drive/api/reference/rest/v3/files/update
#include "gdrive/google_drive.h"
#include "gdrive/guarded.h"
#include "gdrive/json_array.h"

AERROR GoogleDrive::DoParentWork(_FS_FILE_V2* file, const char* removeParents,
                                 const char* addParents, char**) {
  const auto build = [&](std::shared_ptr<GoogleCURL> request) {
    request->SetURL((Api("/drive/v3/files/") + file->id).c_str());
    request->SetRequest("PATCH");
    request->AddHeader("Content-Type", kJsonType);
    if (removeParents != nullptr) request->AddQuery("removeParents", removeParents);
    if (addParents != nullptr) request->AddQuery("addParents", addParents);
    request->AddQuery("supportsTeamDrives", "true");
    Sign(*request);
    JsonObject body = JsonObject::GetEmptyObject();
    body["name"] = file->name;
    return request->PerformPost(body.ToText());
  };
  return Query<GoogleDriveExponentialBackoff>("DoParentWork", build, {}, {}, {});
}

std::deque<std::string> GoogleDrive::GetParents(std::string id) {
  std::deque<std::string> parents;
  const auto build = [&](std::shared_ptr<GoogleCURL> request) {
    request->SetURL((Api("/drive/v3/files/") + id + "/parents").c_str());
    Sign(*request);
    return request->PerformGet(nullptr, nullptr);
  };
  const auto read = [&](_CURLRTN& result) {
    return Guarded([&] {
      const JsonObject body(result.body.get(), result.bodyLength);
      const JsonObject items = GetArray(body, "/items");
      for (int i = static_cast<int>(items.GetArraySize()) - 1; i >= 0; --i) {
        parents.push_back(items[i].GetObject("/id"));
      }
      return AERROR::SUCCESS;
    });
  };
  const AERROR code = Query<GoogleDriveExponentialBackoff>(
      "GetParents", build, {}, {{200, {read, ""}}}, {{CURLE_OPERATION_TIMEDOUT, AERROR::TIMEDOUT}});
  if (code != AERROR::SUCCESS) parents.clear();
  return parents;
}
