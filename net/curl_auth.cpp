#include "net/curl_auth.h"

#include "net/curl_impl.h"

CURLAuth::CURLAuth(JsonObject& credential) { CURLAuth::SetAuth(credential); }

void CURLAuth::SetAuth(JsonObject& credential) {
  const std::lock_guard guard(mutex);
  if (!credential.HasObject("/results")) return;
  const JsonObject results = credential.GetObject("/results");
  for (const std::string& name : results.GetKeys()) {
    if (name != "access_token") continue;
    const std::string token = results[name.c_str()];
    AddHeader("Authorization", ("Bearer " + token).c_str());
  }
}

void CURLAuth::SignAuthentication(CURLImpl* request) {
  const std::lock_guard guard(mutex);
  for (const auto& [name, value] : arguments) request->AddQuery(name.c_str(), value);
  for (const auto& [name, value] : headers) request->AddHeader(name.c_str(), value);
}

void CURLAuth::SignAuthentication(CURLImpl& request) { SignAuthentication(&request); }

void CURLAuth::SignAuthentication(std::shared_ptr<CURLImpl> request) {
  SignAuthentication(request.get());
}

void CURLAuth::AddHeader(const char* name, const char* value) { headers[name] = value; }
void CURLAuth::AddArg(const char* name, const char* value) { arguments[name] = value; }
void CURLAuth::ClearArgs() { arguments.clear(); }
void CURLAuth::ClearHeaders() { headers.clear(); }
