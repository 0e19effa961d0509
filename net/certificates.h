// The certificate bundle that travels with the host program: ../Frameworks/cacert.pem as seen from
// the folder of its executable.
#pragma once

#include <optional>
#include <string>

/// The canonical folder of the bundle with a trailing slash; nothing when there is no such folder,
/// and servers are then not verified.
std::optional<std::string> CertificateDirectory();

inline constexpr char kCertificateBundle[] = "cacert.pem";
