#include "bench/library/idle_host.h"

namespace bench {

Drive Connected(Profile* profile, const std::string& url, const std::string& token) {
  profile->values["drive_api_url"] = url;
  Drive drive(new GoogleDrive("gdrive", profile));
  drive->Connect(nullptr, (R"({"results": {"access_token": ")" + token + R"("}})").c_str());
  return drive;
}

}  // namespace bench
