// A certificate authority of the emulator's own, and a server certificate signed by it.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace emulator {

struct SslContextFree {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using SslContext = std::unique_ptr<SSL_CTX, SslContextFree>;

/// Makes ca.pem, server.pem and server-key.pem in `directory` unless they are there, and loads
/// them. The certificate is for 127.0.0.1, localhost and the service's own host names, so that
/// clients that cannot be told another address can be led here. Throws std::runtime_error.
SslContext ServerTls(const std::string& directory);

}  // namespace emulator
