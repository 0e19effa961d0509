// The REST side of the push service: devices subscribe, Drive's notices come in, and go out over
// the WebSocket channels.
#include "emulator/api_error.h"
#include "emulator/handlers.h"
#include "emulator/ids.h"
#include "emulator/push_hub.h"

namespace emulator {

namespace {

std::string Text(const Json::Value& body, const char* name) {
  if (!body[name].isString() || body[name].asString().empty()) {
    throw BadRequest(std::string(name) + " is required");
  }
  return body[name].asString();
}

}  // namespace

std::string PushToken() { return "push-" + Hex(Sha256("push service")).substr(0, 24); }

Reply Subscribe(Service&, Call& call) {
  if (call.Header("Authorization") != "token " + PushToken()) throw Unauthorized();
  const Json::Value body = call.Json();
  const std::string device = Text(body, "device_guid"), item = Text(body, "drive_item");
  if (Text(body, "storage_type") != "gdrive") throw BadRequest("storage_type must be gdrive");
  const std::string channel = Hex(Sha256(device + "\n" + item)).substr(0, 32);
  Json::Value answer;
  answer["webhook_url"] = call.baseUrl + "/webhook/" + channel;
  answer["push_channel"] = channel;
  return JsonReply(answer);
}

Reply ReceiveNotice(Service& service, Call& call) {
  if (call.Header("X-Goog-Channel-ID").empty()) throw BadRequest("X-Goog-Channel-ID is required");
  const std::string state = call.Header("X-Goog-Resource-State");
  // A "sync" notice says that the channel was opened, not that anything changed.
  if (state != "sync") {
    service.push.Send(call.captures[0], "{\"resource_state\":\"" + state + "\"}");
  }
  return NoContent();
}

}  // namespace emulator
