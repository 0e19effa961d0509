#include "emulator/api_error.h"

#include <json/json.h>

namespace emulator {

namespace {

bool IsUsageLimit(const std::string& reason) {
  return reason.find("imitExceeded") != std::string::npos;
}

}  // namespace

ApiError&& ApiError::At(std::string type, std::string name) && {
  locationType = std::move(type);
  location = std::move(name);
  return std::move(*this);
}

std::string ErrorDocument(const ApiError& error) {
  Json::Value detail;
  detail["domain"] = IsUsageLimit(error.reason) ? "usageLimits" : "global";
  detail["reason"] = error.reason;
  detail["message"] = error.message;
  if (!error.location.empty()) {
    detail["locationType"] = error.locationType;
    detail["location"] = error.location;
  }
  Json::Value document;
  document["error"]["errors"].append(std::move(detail));
  document["error"]["code"] = error.status;
  document["error"]["message"] = error.message;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = " ";
  return Json::writeString(writer, document) + "\n";
}

std::string UsualReason(int status) {
  switch (status) {
    case 400:
      return "badRequest";
    case 401:
      return "authError";
    case 403:
      return "userRateLimitExceeded";
    case 404:
      return "notFound";
    case 409:
      return "conflict";
    case 410:
      return "deleted";
    case 412:
      return "conditionNotMet";
    case 416:
      return "requestedRangeNotSatisfiable";
    case 429:
      return "rateLimitExceeded";
    case 502:
      return "badGateway";
    case 504:
      return "gatewayTimeout";
    default:
      return "backendError";
  }
}

const char* StatusPhrase(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 204:
      return "No Content";
    case 206:
      return "Partial Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 303:
      return "See Other";
    case 307:
      return "Temporary Redirect";
    case 308:
      return "Resume Incomplete";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 409:
      return "Conflict";
    case 410:
      return "Gone";
    case 412:
      return "Precondition Failed";
    case 413:
      return "Payload Too Large";
    case 416:
      return "Requested Range Not Satisfiable";
    case 429:
      return "Too Many Requests";
    case 500:
      return "Internal Server Error";
    case 502:
      return "Bad Gateway";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Gateway Timeout";
    default:
      return "Status";
  }
}

ApiError FileNotFound(const std::string& id) {
  return ApiError(404, "notFound", "File not found: " + id + ".").At("parameter", "fileId");
}

ApiError InvalidParameter(const std::string& name, const std::string& message) {
  return ApiError(400, "invalidParameter", message).At("parameter", name);
}

ApiError InvalidValue(const std::string& name) {
  return ApiError(400, "invalid", "Invalid Value").At("parameter", name);
}

ApiError BadRequest(const std::string& message) { return ApiError(400, "badRequest", message); }

ApiError ParseError() { return ApiError(400, "parseError", "Parse Error"); }

ApiError Forbidden(const std::string& reason, const std::string& message) {
  return ApiError(403, reason, message);
}

ApiError InsufficientPermissions(const std::string& id) {
  return Forbidden("insufficientFilePermissions",
                   "The user does not have sufficient permissions for file " + id + ".");
}

ApiError Unauthorized() {
  return ApiError(401, "authError", "Invalid Credentials").At("header", "Authorization");
}

}  // namespace emulator
