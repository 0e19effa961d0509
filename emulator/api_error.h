// Errors as the public API words them.
// https://developers.google.com/drive/api/guides/handle-errors
#pragma once

#include <exception>
#include <string>

namespace emulator {

/// Thrown by handlers; the dispatcher turns it into the error document.
struct ApiError : std::exception {
  ApiError(int errorStatus, std::string errorReason, std::string errorMessage)
      : status(errorStatus), reason(std::move(errorReason)), message(std::move(errorMessage)) {}

  /// Names the parameter or header that is to blame.
  ApiError&& At(std::string type, std::string name) &&;
  const char* what() const noexcept override { return message.c_str(); }

  int status;
  std::string reason;
  std::string message;
  std::string locationType;
  std::string location;
};

/// {"error": {"errors": [...], "code": ..., "message": ...}}
std::string ErrorDocument(const ApiError& error);

/// The reason that the service usually gives with a status.
std::string UsualReason(int status);
/// The phrase of a status line.
const char* StatusPhrase(int status);

ApiError FileNotFound(const std::string& id);
ApiError InvalidParameter(const std::string& name, const std::string& message);
/// Reason "invalid", "Invalid Value": a parameter that does not parse.
ApiError InvalidValue(const std::string& name);
ApiError BadRequest(const std::string& message);
ApiError ParseError();
ApiError Forbidden(const std::string& reason, const std::string& message);
ApiError InsufficientPermissions(const std::string& id);
ApiError Unauthorized();

}  // namespace emulator
