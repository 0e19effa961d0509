#include "net/certificates.h"

#include <cstdlib>
#include <memory>

#include "util/platform.h"

std::optional<std::string> CertificateDirectory() {
  const auto executable = ExecutablePath();
  if (!executable) return std::nullopt;
  const std::string place = executable->substr(0, executable->rfind('/') + 1) + "../Frameworks/";
  const std::unique_ptr<char, decltype(&free)> canonical(realpath(place.c_str(), nullptr), &free);
  if (!canonical) return std::nullopt;
  return std::string(canonical.get()) + "/";
}
