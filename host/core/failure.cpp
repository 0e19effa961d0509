#include "host/core/failure.h"

#include <algorithm>

namespace host {
namespace {

struct Explanation {
  AERROR code;
  const char* meaning;
  const char* advice;
};

constexpr char kTryAgain[] = "check the network and try again";
constexpr char kSignIn[] = "sign in with `vormlane login`";

constexpr Explanation kExplanations[] = {
    {AERROR::SUCCESS, "done", ""},
    {AERROR::FAILED, "the service refused it or could not be reached",
     "run again with --verbose for the details"},
    {AERROR::CANCEL, "cancelled", ""},
    {AERROR::ACCESS_DENIED, "this folder is made up by the drive and cannot be changed",
     "use a folder below My Drive or a team drive"},
    {AERROR::INVALID_PARAMETER, "the drive does not accept it", ""},
    {AERROR::NOT_SUPPORTED, "the drive does not support it", ""},
    {AERROR::FILE_READ_FAILED, "the bytes could not be read from the service", kTryAgain},
    {AERROR::FILE_WRITE_FAILED, "the service did not take the bytes", kTryAgain},
    {AERROR::READ_CANCELED, "the download was cancelled", ""},
    {AERROR::UPLOAD_CANCELED, "the upload was cancelled", ""},
    {AERROR::FILE_NOT_FOUND, "there is no such file", "look with `vormlane ls`"},
    {AERROR::PATH_NOT_FOUND, "there is no such folder", "look with `vormlane ls`"},
    {AERROR::CAN_NOT_MAKE, "the service did not make it",
     "check that the folder may be written to"},
    {AERROR::TIMEDOUT, "the service did not answer in time", kTryAgain},
    {AERROR::FS_NEED_AUTHORIZE, "the account is not signed in", kSignIn},
    {AERROR::AUTH_FAILED, "the stored credential was not accepted", kSignIn},
};

const Explanation* Find(AERROR code) {
  const auto found = std::find_if(std::begin(kExplanations), std::end(kExplanations),
                                  [&](const Explanation& e) { return e.code == code; });
  return found == std::end(kExplanations) ? nullptr : found;
}

std::string Joined(const std::string& what, const std::string& advice) {
  return OneLine(advice.empty() ? what : what + "; " + advice);
}

}  // namespace

Failure::Failure(const std::string& what, const std::string& advice, AERROR reason)
    : std::runtime_error(Joined(what, advice)), code(reason) {}

std::string Meaning(AERROR code) {
  const Explanation* known = Find(code);
  return known ? known->meaning
               : "the drive reported error " + std::to_string(static_cast<int>(code));
}

std::string Advice(AERROR code) {
  const Explanation* known = Find(code);
  return known ? known->advice : "run again with --verbose for the details";
}

std::string Advice(const std::string& said, AERROR code) {
  if (said == "HTTP 404") return "it may have been removed, look with `vormlane ls`";
  if (said == "HTTP 401") return "sign in again with `vormlane login`";
  if (said.rfind("HTTP 403 again", 0) == 0 || said.rfind("HTTP 429 again", 0) == 0)
    return "the account's rights, space or rate of requests are used up; try again later";
  if (said.rfind("HTTP 5", 0) == 0) return "the service has a fault, try again later";
  // libcurl's words and number: the request was never answered.
  if (!said.empty() && said.back() == ')') return "check the network and try again";
  return Advice(code);
}

std::string OneLine(const std::string& text) {
  std::string line = text;
  for (char& c : line) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) c = ' ';
  }
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

}  // namespace host
