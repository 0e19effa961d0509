#include "host/core/credential_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "host/core/atomic_file.h"
#include "host/core/descriptor.h"
#include "host/core/failure.h"
#include "host/core/json_text.h"
#include "host/core/paths.h"

namespace host {
namespace {

constexpr int64_t kEarlySeconds = 60;  // a token is renewed this long before it expires
constexpr char kSignIn[] = "sign in with `vormlane login`";

[[noreturn]] void Unreadable(const std::filesystem::path& file, const std::string& why,
                             const std::string& advice) {
  throw Failure("cannot use the credential file " + file.string() + ": " + why, advice,
                AERROR::AUTH_FAILED);
}

std::string ReadAll(int descriptor, const std::filesystem::path& file) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t count = read(descriptor, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Unreadable(file, std::strerror(errno), "check the disk");
    if (count == 0) return text;
    text.append(buffer, static_cast<size_t>(count));
  }
}

bool Expired(const Credential& credential) {
  return credential.expiresAt != 0 && std::time(nullptr) >= credential.expiresAt - kEarlySeconds;
}

}  // namespace

std::string Credential::ToText() const {
  Json::Value document;
  Json::Value& results = document["results"];
  results["access_token"] = accessToken;
  if (!refreshToken.empty()) results["refresh_token"] = refreshToken;
  if (expiresAt != 0) results["expires_at"] = Json::Int64(expiresAt);
  if (!clientId.empty()) {
    document["client"]["id"] = clientId;
    document["client"]["secret"] = clientSecret;
  }
  return CompactJson(document);
}

Credential Credential::FromText(const std::string& text) {
  const auto document = ParseJson(text);
  const Json::Value& results =
      document ? ObjectMember(*document, "results") : Json::Value::nullSingleton();
  Credential credential;
  credential.accessToken = TextMember(results, "access_token");
  if (credential.accessToken.empty())
    throw Failure("the credential is damaged: it holds no access token", kSignIn,
                  AERROR::AUTH_FAILED);
  credential.refreshToken = TextMember(results, "refresh_token");
  const Json::Value& expires = results["expires_at"];
  if (expires.isInt64()) credential.expiresAt = expires.asInt64();
  const Json::Value& client = ObjectMember(*document, "client");
  credential.clientId = TextMember(client, "id");
  credential.clientSecret = TextMember(client, "secret");
  return credential;
}

CredentialStore::CredentialStore(std::filesystem::path credentialFile, TokenRenewal renew)
    : file(std::move(credentialFile)), renewal(std::move(renew)) {}

std::optional<Credential> CredentialStore::Load() const {
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (descriptor.Get() < 0 && errno == ENOENT) return std::nullopt;
  if (descriptor.Get() < 0) Unreadable(file, std::strerror(errno), "check that the file is yours");
  struct stat status {};
  if (fstat(descriptor.Get(), &status) == 0 && (status.st_mode & 077) != 0)
    Unreadable(file, "other users may read it", "run `chmod 600 " + file.string() + "`");
  try {
    return Credential::FromText(ReadAll(descriptor.Get(), file));
  } catch (const Failure&) {
    Unreadable(file, "it is damaged", kSignIn);
  }
}

void CredentialStore::Save(const Credential& credential) {
  MakePrivateDirectory(file.parent_path());
  const std::string text = credential.ToText();
  AtomicFile out(file, 0600);
  out.WriteAt(0, text);
  out.Commit();
}

void CredentialStore::Remove() {
  // A host that was killed while it wrote has left a token under a hidden name.
  RemoveHidden(file);
  if (unlink(file.c_str()) != 0 && errno != ENOENT)
    throw Failure("cannot remove " + file.string() + ": " + std::strerror(errno),
                  "remove it by hand");
}

Credential CredentialStore::Current() {
  std::lock_guard lock(mutex);
  auto stored = Load();
  if (!stored)
    throw Failure("no account is signed in to this profile", kSignIn, AERROR::AUTH_FAILED);
  if (Expired(*stored) && !stored->refreshToken.empty()) {
    try {
      *stored = RenewLocked(*stored);
    } catch (const Failure& failure) {
      // Without a network the old token does no harm, and what is kept locally can be served.
      if (failure.Code() == AERROR::AUTH_FAILED) throw;
    }
  }
  handedOut = stored->accessToken;
  refusal.clear();
  return *stored;
}

Credential CredentialStore::RenewLocked(const Credential& old) {
  const Credential renewed = renewal(old);
  Save(renewed);
  return renewed;
}

bool CredentialStore::StoredAnew() const {
  std::lock_guard lock(mutex);
  try {
    const std::optional<Credential> stored = Load();
    return stored && stored->accessToken != handedOut;
  } catch (const Failure&) {
    return false;
  }
}

const char* CredentialStore::Renew(IProtocol_V2*, const char*) {
  std::lock_guard lock(mutex);
  try {
    refusal.clear();
    Credential stored = Load().value_or(Credential());
    const bool newer = stored.accessToken != handedOut && !Expired(stored);
    if (stored.accessToken.empty()) {
      refusal = Failure("no account is signed in to this profile", kSignIn).what();
      return nullptr;
    }
    if (!newer && stored.refreshToken.empty()) {
      refusal =
          Failure("the access has expired and the credential cannot be renewed", kSignIn).what();
      return nullptr;
    }
    if (!newer) stored = RenewLocked(stored);
    handedOut = stored.accessToken;
    return strdup(stored.ToText().c_str());
  } catch (const std::exception& error) {
    refusal = error.what();
    return nullptr;
  }
}

void CredentialStore::Free(const char* credential) { std::free(const_cast<char*>(credential)); }

std::string CredentialStore::Refusal() const {
  std::lock_guard lock(mutex);
  return refusal;
}

}  // namespace host
