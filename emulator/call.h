// One request on its way through a handler, and the reply that comes back.
#pragma once

#include <httplib.h>
#include <json/json.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "emulator/content_store.h"
#include "emulator/store.h"

namespace emulator {

struct Reply {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string contentType = "application/json; charset=UTF-8";
  std::string body;
  // When set, the body is this range of the source instead.
  std::shared_ptr<ContentSource> source;
  int64_t sourceOffset = 0, sourceLength = 0;

  int64_t Length() const { return source ? sourceLength : static_cast<int64_t>(body.size()); }
};

/// A JSON reply.
Reply JsonReply(std::string text, int status = 200);
Reply JsonReply(const Json::Value& value, int status = 200);
Reply NoContent();

struct Call {
  explicit Call(const httplib::Request& answered) : request(answered) {}

  using Sink = std::function<bool(const char* data, size_t size)>;

  const httplib::Request& request;
  User user;                          ///< who asks; number 0 on routes without authorisation
  std::string token;                  ///< the access token it came with
  std::vector<std::string> captures;  ///< what stood for the braces of the route's pattern
  std::string body;                   ///< unless the route streams
  std::string baseUrl;                ///< scheme and host as the client addressed them
  /// Hands the body to the sink piece by piece; false when it did not arrive in full.
  std::function<bool(const Sink&)> readBody;
  /// Checks the access token and fills in `user`; done already where the route needs a token.
  std::function<void()> authorise;

  std::string Param(const std::string& name) const { return request.get_param_value(name); }
  bool Has(const std::string& name) const { return request.has_param(name); }
  std::string Header(const std::string& name) const { return request.get_header_value(name); }
  /// Throws ApiError for what is neither true nor false.
  bool Flag(const std::string& name, bool otherwise = false) const;
  /// Throws ApiError outside [low, high].
  int64_t Number(const std::string& name, int64_t low, int64_t high, int64_t otherwise) const;
  /// The body as an object; an empty body is an empty object. Throws ApiError (parseError).
  Json::Value Json() const;

  // Parameters that have an older and a newer name.
  bool SupportsDrives() const { return Flag("supportsAllDrives") || Flag("supportsTeamDrives"); }
  bool IncludesDriveItems() const {
    return Flag("includeItemsFromAllDrives") || Flag("includeTeamDriveItems");
  }
  std::string DriveId() const { return Has("driveId") ? Param("driveId") : Param("teamDriveId"); }
};

/// Parses JSON text; throws ApiError (parseError) when it is not an object in valid UTF-8.
Json::Value ParseObject(const std::string& text);

}  // namespace emulator
