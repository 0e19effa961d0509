// The little of RFC 6455 that a test needs to listen.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <memory>
#include <string>

namespace emulator_test {

class WebSocketClient {
 public:
  /// Connects and shakes hands; `url` is "ws://127.0.0.1:PORT/CHANNEL", or wss. With TLS the
  /// server's certificate must be signed by that of `authority`, a file.
  explicit WebSocketClient(const std::string& url, const std::string& authority = "")
      : fd(::socket(AF_INET, SOCK_STREAM, 0)) {
    const size_t colon = url.rfind(':'), slash = url.find('/', colon);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(url.substr(colon + 1))));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval patience{20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return;
    if (!authority.empty() && !Secure(authority)) return;
    const std::string hello = "GET " + url.substr(slash) +
                              " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"
                              "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
    if (ssl) {
      SSL_write(ssl.get(), hello.data(), static_cast<int>(hello.size()));
    } else {
      ::send(fd, hello.data(), hello.size(), MSG_NOSIGNAL);
    }
    std::string head;
    while (head.find("\r\n\r\n") == std::string::npos) {
      const std::string byte = Take(1);
      if (byte.empty()) return;
      head += byte;
    }
    open = head.rfind("HTTP/1.1 101", 0) == 0 &&
           head.find("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=") != std::string::npos;
  }
  ~WebSocketClient() { ::close(fd); }
  WebSocketClient(const WebSocketClient&) = delete;
  WebSocketClient& operator=(const WebSocketClient&) = delete;

  bool Open() const { return open; }

  /// The next text message; empty when the connection ended.
  std::string Receive() {
    const std::string head = Take(2);
    if (head.size() < 2 || (head[0] & 15) != 1) return "";
    size_t length = static_cast<unsigned char>(head[1]) & 127;
    if (length == 126) {
      const std::string more = Take(2);
      length = static_cast<size_t>(static_cast<unsigned char>(more[0])) << 8 |
               static_cast<unsigned char>(more[1]);
    }
    return Take(length);
  }

 private:
  struct SslFree {
    void operator()(SSL* one) const { SSL_free(one); }
    void operator()(SSL_CTX* one) const { SSL_CTX_free(one); }
  };

  bool Secure(const std::string& authority) {
    context.reset(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    if (SSL_CTX_load_verify_locations(context.get(), authority.c_str(), nullptr) != 1) return false;
    ssl.reset(SSL_new(context.get()));
    return SSL_set_fd(ssl.get(), fd) == 1 && SSL_connect(ssl.get()) == 1;
  }

  std::string Take(size_t count) {
    std::string bytes(count, '\0');
    size_t got = 0;
    while (got < count) {
      const ssize_t piece =
          ssl ? SSL_read(ssl.get(), bytes.data() + got, static_cast<int>(count - got))
              : ::recv(fd, bytes.data() + got, count - got, 0);
      if (piece <= 0) return "";
      got += static_cast<size_t>(piece);
    }
    return bytes;
  }

  int fd;
  std::unique_ptr<SSL_CTX, SslFree> context;
  std::unique_ptr<SSL, SslFree> ssl;
  bool open = false;
};

}  // namespace emulator_test
