// Pushed change notices: the subscription at the push service, its WebSocket connection, and the
// service's watch channel that feeds it.
// https://developers.google.com/drive/api/guides/push
#include "gdrive/google_drive.h"
#include "gdrive/guarded.h"
#include "gdrive/push_connection.h"
#include "util/strings.h"

AERROR GoogleDrive::SetChangesCallback(IFileChanges* sink) {
  if (sink == nullptr) return AERROR::INVALID_PARAMETER;
  return Guarded([&] {
    if (!Auth() || manager == nullptr) return AERROR::FAILED;
    std::shared_ptr<PushConnection> connection;
    std::string address;
    {
      const std::lock_guard guard(pushLock);
      if (released) return AERROR::FAILED;
      if (!push && OpenPush(sink) != AERROR::SUCCESS) return AERROR::FAILED;
      connection = push;
      address = webhookUrl;
    }
    connection->SetSink(sink);
    TakeCursorForPush();
    return WatchChanges(address);
  });
}

AERROR GoogleDrive::OpenPush(IFileChanges* sink) {
  PushSubscription subscription;
  const AERROR code = Subscribe(&subscription);
  if (code != AERROR::SUCCESS) return code;
  std::string base;
  {
    const std::lock_guard guard(lock);
    base = pushUrl;
  }
  const auto connection = std::make_shared<PushConnection>(this, sink, base + subscription.channel);
  connection->Open();
  push = connection;
  webhookUrl = subscription.webhookUrl;
  return AERROR::SUCCESS;
}

AERROR GoogleDrive::Subscribe(PushSubscription* subscription) {
  const std::string userToken = ProfileValue("user_token");
  const std::string server = ProfileValue("api_server_url");
  const std::string driveId = ProfileValue("drive_id");
  const std::string deviceId = ProfileValue("device_id");
  if (userToken.empty() || server.empty() || driveId.empty() || deviceId.empty()) {
    return AERROR::FAILED;
  }
  const auto build = [&](std::shared_ptr<GoogleCURL> request) {
    request->SetURL((server + "/api/v1/change_subscriptions/").c_str());
    request->SetRequest("POST");
    request->AddHeader("Authorization", "token " + userToken);
    request->AddHeader("Content-Type", "application/json");
    JsonObject body = JsonObject::GetEmptyObject();
    body["device_guid"] = deviceId;
    body["drive_item"] = driveId;
    body["storage_type"] = "gdrive";
    return request->PerformPost(body.ToText());
  };
  const auto read = [&](_CURLRTN& result) {
    return Guarded([&] {
      const JsonObject body(result.body.get(), result.bodyLength);
      subscription->webhookUrl = std::string(body.GetObject("/webhook_url"));
      subscription->channel = std::string(body.GetObject("/push_channel"));
      return AERROR::SUCCESS;
    });
  };
  BindLogger();
  // Not Query: the push service knows nothing of the drive's token and its renewal.
  return QueryWithBackoff<NoBackoff>(cq, RequestBuilder(build, "SetChangesCallback"),
                                     {{200, {read, ""}}}, {}, {});
}

/// The watch starts where polling stands: at what the profile holds, else at the session's own
/// cursor, else at a fresh one.
void GoogleDrive::TakeCursorForPush() {
  const std::string stored = ProfileValue("lastchangeid");
  if (!stored.empty()) {
    const std::lock_guard guard(lock);
    lastChangeId = stored;
  } else if (Cursor().empty()) {
    (void)GetChangeList(0);
  }
}

AERROR GoogleDrive::WatchChanges(const std::string& address) {
  Channel opened{NewUUID(), address, {}, {}};
  const auto build = [&](std::shared_ptr<GoogleCURL> request) {
    request->SetURL(Api("/drive/v3/changes/watch").c_str());
    request->SetRequest("POST");
    request->AddQuery("pageToken", Cursor());
    request->AddQuery("includeRemoved", "true");
    request->AddQuery("supportsTeamDrives", "true");
    request->AddQuery("spaces", "drive");
    if (useTeamDrive) request->AddQuery("includeTeamDriveItems", "true");
    request->AddHeader("Content-Type", "application/json");
    Sign(*request);
    JsonObject body = JsonObject::GetEmptyObject();
    body["kind"] = "api#channel";
    body["id"] = opened.id;
    body["type"] = "web_hook";
    body["address"] = opened.address;
    body["payload"] = JsonObject("false");
    return request->PerformPost(body.ToText());
  };
  const auto read = [&](_CURLRTN& result) {
    return Guarded([&] {
      const JsonObject body(result.body.get(), result.bodyLength);
      opened.resourceId = std::string(body.GetObject("/resourceId"));
      opened.resourceUri = std::string(body.GetObject("/resourceUri"));
      return AERROR::SUCCESS;
    });
  };
  const AERROR code = Query<GoogleDriveExponentialBackoff>("SetChangesCallback", build,
                                                           {{200, {read, ""}}}, {}, {});
  if (code == AERROR::SUCCESS) ReplaceChannel(std::move(opened));
  return code;
}

void GoogleDrive::ReplaceChannel(Channel replacement) {
  {
    const std::lock_guard guard(lock);
    std::swap(channel, replacement);
  }
  const Channel& stopped = replacement;
  if (!stopped.IsOpen()) return;
  const auto build = [&](std::shared_ptr<GoogleCURL> request) {
    request->SetURL(Api("/drive/v3/channels/stop").c_str());
    request->SetRequest("POST");
    request->AddHeader("Content-Type", "application/json");
    Sign(*request);
    JsonObject body = JsonObject::GetEmptyObject();
    body["kind"] = "api#channel";
    body["id"] = stopped.id;
    body["type"] = "web_hook";
    body["address"] = stopped.address;
    body["payload"] = JsonObject("false");
    body["resourceId"] = stopped.resourceId;
    body["resourceUri"] = stopped.resourceUri;
    return request->PerformPost(body.ToText());
  };
  // A channel that cannot be stopped expires by itself.
  (void)Query<GoogleDriveExponentialBackoff>("Release", build, {}, {}, {});
}
