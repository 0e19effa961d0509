// What every authorised request carries: query arguments and headers taken from the credential.
//
// Shared by all request threads of a session. SetAuth and SignAuthentication exclude each other;
// AddHeader, AddArg and the Clear operations do not lock and belong to setting the object up.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "util/json_object.h"

class CURLImpl;

class CURLAuth {
 public:
  explicit CURLAuth(JsonObject& credential);
  virtual ~CURLAuth() = default;

  /// Takes the bearer token from "/results/access_token"; without one the old token stays in force.
  /// RFC 6750, section 2.1.
  virtual void SetAuth(JsonObject& credential);
  virtual void SignAuthentication(CURLImpl& request);
  virtual void SignAuthentication(std::shared_ptr<CURLImpl> request);
  virtual void SignAuthentication(CURLImpl* request);

  void AddHeader(const char* name, const char* value);
  void AddArg(const char* name, const char* value);
  void ClearArgs();
  void ClearHeaders();

 private:
  std::mutex mutex;
  std::unordered_map<std::string, std::string> arguments;
  std::unordered_map<std::string, std::string> headers;
};
