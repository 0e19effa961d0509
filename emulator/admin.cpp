#include "emulator/admin.h"

#include <map>
#include <optional>
#include <stdexcept>

#include "emulator/api_error.h"
#include "emulator/call.h"
#include "emulator/fault_json.h"
#include "emulator/responder.h"

namespace emulator {

namespace {

struct AdminCall {
  DriveEmulator& emulator;
  const httplib::Request& request;
  Json::Value body;
  std::string id;  ///< of the item that the path names

  std::string User() const {
    const std::string user = request.get_param_value("user");
    return user.empty() ? body.get("user", kDemoUser).asString() : user;
  }
};

using AdminHandler = Reply (*)(AdminCall& call);

Reply Done() { return JsonReply(Json::Value(Json::objectValue)); }

Reply GetFaults(AdminCall& call) {
  Json::Value faults(Json::arrayValue);
  for (const Fault& fault : call.emulator.PendingFaults()) faults.append(FaultToJson(fault));
  return JsonReply(faults);
}

Reply PostFaults(AdminCall& call) {
  std::vector<Fault> faults;
  if (call.body.isArray()) {
    for (const Json::Value& one : call.body) faults.push_back(FaultFromJson(one));
  } else {
    faults.push_back(FaultFromJson(call.body));
  }
  for (const Fault& fault : faults) call.emulator.Inject(fault);
  return Done();
}

Reply DeleteFaults(AdminCall& call) {
  call.emulator.ClearFaults();
  return Done();
}

Reply GetJournal(AdminCall& call) {
  const std::string method = call.request.get_param_value("method");
  if (call.request.get_param_value("count") == "true") {
    Json::Value count;
    count["count"] = call.emulator.Count(method.empty() ? "*" : method);
    return JsonReply(count);
  }
  Json::Value entries(Json::arrayValue);
  for (const JournalEntry& entry : call.emulator.Journal()) {
    if (method.empty() || entry.method == method) entries.append(EntryToJson(entry));
  }
  return JsonReply(entries);
}

Reply DeleteJournal(AdminCall& call) {
  call.emulator.ClearJournal();
  return Done();
}

Reply GetTree(AdminCall& call) { return JsonReply(call.emulator.DumpTree(call.User())); }

Reply GetItem(AdminCall& call) { return JsonReply(call.emulator.Item(call.id)); }

Reply GetContent(AdminCall& call) {
  const auto content = call.emulator.Content(call.id);
  if (!content) throw FileNotFound(call.id);
  Reply reply;
  reply.contentType = "application/octet-stream";
  reply.body = *content;
  return reply;
}

Reply DeleteItem(AdminCall& call) {
  call.emulator.Remove(call.id);
  return Done();
}

Reply PostTokens(AdminCall& call) {
  Json::Value tokens;
  tokens["accessToken"] = call.emulator.AccessToken(call.User());
  tokens["refreshToken"] = call.emulator.RefreshToken(call.User());
  return JsonReply(tokens);
}

Reply ExpireTokens(AdminCall& call) {
  call.emulator.ExpireTokens();
  return Done();
}

Reply RevokeTokens(AdminCall& call) {
  call.emulator.RevokeTokens();
  return Done();
}

Reply PostUsers(AdminCall& call) {
  call.emulator.AddUser(call.body["email"].asString(), call.body["name"].asString());
  return Done();
}

Reply PostQuota(AdminCall& call) {
  call.emulator.SetQuota(call.User(), call.body["total"].asInt64());
  return Done();
}

Reply PostItems(AdminCall& call) {
  const std::string path = call.body["path"].asString();
  Json::Value answer;
  answer["id"] = call.body.isMember("size")
                     ? call.emulator.PutSynthetic(path, call.body["size"].asInt64(), call.User())
                     : call.emulator.Put(path, call.body["content"].asString(), "", call.User());
  return JsonReply(answer);
}

Reply PostChildren(AdminCall& call) {
  call.emulator.AddChildren(call.body["parent"].asString(), call.body["count"].asInt64(),
                            call.body.get("prefix", "file-").asString());
  return Done();
}

Reply PostShape(AdminCall& call) {
  if (call.body.isMember("roundTrip")) {
    call.emulator.SetRoundTrip(std::chrono::milliseconds(call.body["roundTrip"].asInt64()));
  }
  if (call.body.isMember("bandwidth")) {
    call.emulator.SetBandwidth(call.body["bandwidth"].asInt64());
  }
  return Done();
}

Reply PostPush(AdminCall& call) {
  static const std::map<std::string, PushBehaviour> kBehaviours{{"accept", PushBehaviour::kAccept},
                                                                {"refuse", PushBehaviour::kRefuse},
                                                                {"stall", PushBehaviour::kStall},
                                                                {"drop", PushBehaviour::kDrop},
                                                                {"flood", PushBehaviour::kFlood}};
  const auto found = kBehaviours.find(call.body["behaviour"].asString());
  if (found == kBehaviours.end()) throw std::invalid_argument("no such behaviour");
  call.emulator.SetPushBehaviour(found->second);
  return Done();
}

Reply DeletePush(AdminCall& call) {
  call.emulator.DropPushConnections();
  return Done();
}

Reply GetStatus(AdminCall& call) {
  Json::Value status;
  status["api"] = call.emulator.ApiUrl();
  status["admin"] = call.emulator.AdminUrl();
  status["push"] = call.emulator.PushUrl();
  status["pushApi"] = call.emulator.PushApiUrl();
  status["pushUserToken"] = call.emulator.PushUserToken();
  status["pushConnections"] = call.emulator.PushConnections();
  status["openChannels"] = call.emulator.OpenChannels();
  status["items"] = Json::Int64(call.emulator.Items());
  status["requests"] = call.emulator.Count("*");
  status["connections"] = call.emulator.Connections();
  return JsonReply(status);
}

struct AdminRoute {
  const char* httpMethod;
  const char* path;
  AdminHandler handler;
};

constexpr AdminRoute kRoutes[] = {
    {"GET", "/faults", GetFaults},
    {"POST", "/faults", PostFaults},
    {"DELETE", "/faults", DeleteFaults},
    {"GET", "/journal", GetJournal},
    {"DELETE", "/journal", DeleteJournal},
    {"GET", "/tree", GetTree},
    {"GET", "/items/{}", GetItem},
    {"GET", "/items/{}/content", GetContent},
    {"DELETE", "/items/{}", DeleteItem},
    {"POST", "/items", PostItems},
    {"POST", "/tokens", PostTokens},
    {"POST", "/expire-tokens", ExpireTokens},
    {"POST", "/revoke-tokens", RevokeTokens},
    {"POST", "/users", PostUsers},
    {"POST", "/quota", PostQuota},
    {"POST", "/children", PostChildren},
    {"POST", "/shape", PostShape},
    {"POST", "/push", PostPush},
    {"DELETE", "/push", DeletePush},
    {"GET", "/status", GetStatus},
};

/// The path with an item's id replaced by "{}".
std::string PathPattern(const std::string& path, std::string& id) {
  static const std::string kItems = "/items/";
  if (path.rfind(kItems, 0) != 0) return path;
  const size_t end = std::min(path.find('/', kItems.size()), path.size());
  id = path.substr(kItems.size(), end - kItems.size());
  return kItems + "{}" + path.substr(end);
}

Json::Value ReadJson(const httplib::ContentReader* reader) {
  std::string text;
  if (reader != nullptr) {
    (*reader)([&text](const char* data, size_t size) {
      text.append(data, size);
      return true;
    });
  }
  Json::Value value(Json::objectValue);
  Json::CharReaderBuilder builder;
  std::string complaint;
  const std::unique_ptr<Json::CharReader> parser(builder.newCharReader());
  if (!text.empty() && !parser->parse(text.data(), text.data() + text.size(), &value, &complaint)) {
    throw std::invalid_argument("the body is no JSON: " + complaint);
  }
  return value;
}

Reply Answer(DriveEmulator& emulator, const httplib::Request& request,
             const httplib::ContentReader* reader) {
  const bool hasBody =
      request.has_header("Content-Length") || request.has_header("Transfer-Encoding");
  AdminCall call{emulator, request, Json::Value(Json::objectValue), ""};
  try {
    call.body = ReadJson(hasBody ? reader : nullptr);
    const std::string pattern = PathPattern(request.path, call.id);
    for (const AdminRoute& route : kRoutes) {
      if (request.method == route.httpMethod && pattern == route.path) return route.handler(call);
    }
    throw std::out_of_range("the admin port has no " + request.method + " " + request.path);
  } catch (const ApiError& error) {
    return JsonReply(ErrorDocument(error), error.status);
  } catch (const std::out_of_range& missing) {
    return JsonReply(ErrorDocument(ApiError(404, "notFound", missing.what())), 404);
  } catch (const std::exception& refused) {
    return JsonReply(ErrorDocument(ApiError(400, "badRequest", refused.what())), 400);
  }
}

}  // namespace

std::unique_ptr<HttpServer> ServeAdmin(DriveEmulator& emulator, int port) {
  return std::make_unique<HttpServer>(
      HttpServer::Settings{"127.0.0.1", port, nullptr, nullptr},
      [&emulator](Connection& connection, const httplib::Request& request,
                  const httplib::ContentReader* body) {
        Stopper unused;
        const std::optional<Fault> noFault;
        Responder responder(connection, unused, noFault, {[](int64_t) {}, [](int64_t) {}});
        responder.Send(Answer(emulator, request, body), request.method == "HEAD",
                       request.get_header_value("Connection") == "close");
      });
}

}  // namespace emulator
