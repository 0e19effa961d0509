// changes.watch, files.watch and channels.stop
// https://developers.google.com/drive/api/reference/rest/v3/changes/watch
#include <algorithm>
#include <cctype>

#include "emulator/api_error.h"
#include "emulator/channels.h"
#include "emulator/handlers.h"
#include "emulator/ids.h"
#include "emulator/times.h"

namespace emulator {

namespace {

constexpr int64_t kUsualLife = 3'600'000;
constexpr int64_t kLongestChangesLife = 604'800'000, kLongestFileLife = 86'400'000;
constexpr size_t kLongestId = 64, kLongestToken = 256;

bool HasScheme(const std::string& address, const std::string& scheme) {
  return address.rfind(scheme + "://", 0) == 0 && address.size() > scheme.size() + 3;
}

// The service insists on HTTPS; plain HTTP is let through where it cannot leave the machine.
void CheckAddress(const std::string& address) {
  if (HasScheme(address, "https") || address.rfind("http://127.0.0.1:", 0) == 0 ||
      address.rfind("http://localhost:", 0) == 0) {
    return;
  }
  if (address.empty()) throw ApiError(400, "required", "Required: address");
  throw ApiError(400, "push.webhookUrlNotHttps", "WebHook callback must be HTTPS: " + address);
}

std::string RequiredText(const Json::Value& body, const char* name) {
  if (!body[name].isString() || body[name].asString().empty()) {
    throw ApiError(400, "required", std::string("Required: ") + name);
  }
  return body[name].asString();
}

bool ValidId(const std::string& id) {
  static constexpr std::string_view kMarks = "-_+/=";
  return id.size() <= kLongestId && std::all_of(id.begin(), id.end(), [](char c) {
           return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
                  kMarks.find(c) != std::string_view::npos;
         });
}

int64_t Expiration(const Json::Value& body, int64_t longest) {
  const int64_t now = NowMilliseconds();
  const Json::Value& wanted = body["expiration"];
  int64_t expires = now + kUsualLife;
  try {
    if (wanted.isString()) expires = std::stoll(wanted.asString());
    if (wanted.isIntegral()) expires = wanted.asInt64();
    if (body["params"]["ttl"].isString()) {
      expires = now + std::stoll(body["params"]["ttl"].asString()) * 1000;
    }
  } catch (const std::exception&) {
    throw InvalidValue("expiration");
  }
  if (expires <= now) throw InvalidValue("expiration");
  return std::min(expires, now + longest);
}

Channel ReadRequest(const Call& call, const Json::Value& body, int64_t longestLife) {
  Channel channel;
  channel.id = RequiredText(body, "id");
  if (!ValidId(channel.id)) throw ApiError(400, "channelIdInvalid", "Invalid channel id");
  const std::string type = RequiredText(body, "type");
  if (type != "web_hook" && type != "webhook") {
    throw ApiError(400, "channelUnknown", "Unknown channel type " + type);
  }
  channel.address = body.get("address", "").asString();
  CheckAddress(channel.address);
  channel.token = body.get("token", "").asString();
  if (channel.token.size() > kLongestToken) throw InvalidValue("token");
  channel.expires = Expiration(body, longestLife);
  channel.user = call.user.n;
  return channel;
}

Reply OpenChannel(Service& service, const Channel& channel) {
  if (!service.channels.Open(channel)) {
    throw ApiError(400, "channelIdNotUnique", "Channel id " + channel.id + " not unique");
  }
  Json::Value answer;
  answer["kind"] = "api#channel";
  answer["id"] = channel.id;
  answer["resourceId"] = channel.resourceId;
  answer["resourceUri"] = channel.resourceUri;
  if (!channel.token.empty()) answer["token"] = channel.token;
  answer["expiration"] = std::to_string(channel.expires);
  return JsonReply(answer);
}

}  // namespace

Reply WatchChanges(Service& service, Call& call) {
  const int64_t token = ChangeToken(service, call);
  Channel channel = ReadRequest(call, call.Json(), kLongestChangesLife);
  channel.resourceId = Base64Url(Sha256("changes of " + call.user.email).substr(0, 20));
  channel.resourceUri =
      call.baseUrl + "/drive/v3/changes?alt=json&pageToken=" + std::to_string(token);
  return OpenChannel(service, channel);
}

Reply WatchFile(Service& service, Call& call) {
  const Item item = VisibleItem(service, call, call.captures[0]);
  Channel channel = ReadRequest(call, call.Json(), kLongestFileLife);
  channel.itemId = item.id;
  channel.resourceId = Base64Url(Sha256("file " + item.id).substr(0, 20));
  channel.resourceUri = call.baseUrl + "/drive/v3/files/" + item.id + "?alt=json";
  return OpenChannel(service, channel);
}

Reply StopChannel(Service& service, Call& call) {
  const Json::Value body = call.Json();
  const std::string id = RequiredText(body, "id"), resource = RequiredText(body, "resourceId");
  if (!service.channels.Stop(id, resource, call.user.n)) {
    throw ApiError(404, "notFound", "Channel '" + id + "' not found for project");
  }
  return NoContent();
}

}  // namespace emulator
