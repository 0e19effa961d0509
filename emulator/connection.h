// One TCP connection, plain or TLS, as the HTTP parser's stream; with the means to misbehave.
#pragma once

#include <httplib.h>
#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "emulator/shaper.h"

namespace emulator {

struct SslFree {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using SslHandle = std::unique_ptr<SSL, SslFree>;

struct Shaping {
  explicit Shaping(Stopper& stopper) : up(stopper), down(stopper) {}
  Shaper up, down;
};

/// Used by the thread that serves it; Interrupt alone may be called from others.
class Connection : public httplib::Stream {
 public:
  /// Takes `fd`. `shaping` may be null (no limit) and must outlive the connection.
  Connection(int fd, uint64_t number, Shaping* shaping);
  ~Connection() override;

  /// The TLS hand-shake; false when the peer fails it.
  bool Secure(SSL_CTX* context);
  /// Waits for the first byte of a request; false at the end of the connection or after `timeout`.
  bool AwaitRequest(std::chrono::milliseconds timeout);

  /// Buffered; false once the connection is broken.
  bool Send(const char* data, size_t size);
  bool Send(const std::string& text) { return Send(text.data(), text.size()); }
  bool Flush();
  /// Ends with a TCP reset: what is still buffered is lost.
  void Reset();
  /// Sends what is buffered; the connection then ends in order when this object goes.
  void Close();
  bool Broken() const { return broken; }
  /// While muted, what the HTTP parser's library writes is dropped: responses are written by Send.
  void Mute(bool on) { muted = on; }
  /// Hands the socket and its TLS state (null when plain) over; the connection is over for this
  /// object.
  std::pair<int, SslHandle> Release();
  /// Makes blocked reads and writes of the serving thread fail.
  void Interrupt();
  uint64_t Number() const { return number; }

  bool is_readable() const override { return !broken; }
  bool is_writable() const override { return !broken; }
  ssize_t read(char* to, size_t size) override;
  ssize_t write(const char* data, size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  int socket() const override { return fd; }

 private:
  ssize_t Receive(char* to, size_t size);
  ssize_t Transmit(const char* data, size_t size);
  bool TransmitAll(const char* data, size_t size);

  std::atomic<int> fd;  ///< for Interrupt; -1 once it was handed over
  uint64_t number;
  Shaping* shaping;
  SslHandle ssl;
  std::string out;
  std::string in;
  size_t inBegin = 0, inEnd = 0;
  bool muted = false;
  bool broken = false;
  bool orderly = false;  ///< broken on purpose: TLS says good-bye
};

}  // namespace emulator
