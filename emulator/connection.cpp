#include "emulator/connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace emulator {

namespace {

constexpr size_t kInputBuffer = 128 * 1024;
constexpr size_t kOutputBuffer = 64 * 1024;
constexpr size_t kLargestTransfer = 1 << 20;

/// Repeats a call for as long as signals interrupt it.
template <class Call>
ssize_t Uninterrupted(Call call) {
  ssize_t result = 0;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

}  // namespace

Connection::Connection(int socketFd, uint64_t connectionNumber, Shaping* limits)
    : fd(socketFd), number(connectionNumber), shaping(limits) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

Connection::~Connection() {
  if (fd < 0) return;
  if (((!broken && Flush()) || orderly) && ssl) SSL_shutdown(ssl.get());
  ssl.reset();
  ::close(fd);
}

bool Connection::Secure(SSL_CTX* context) {
  ssl.reset(SSL_new(context));
  if (!ssl || SSL_set_fd(ssl.get(), fd) != 1 || SSL_accept(ssl.get()) != 1) broken = true;
  return !broken;
}

bool Connection::AwaitRequest(std::chrono::milliseconds timeout) {
  if (broken || !Flush()) return false;
  if (inBegin < inEnd || (ssl && SSL_pending(ssl.get()) > 0)) return true;
  pollfd waiting{fd, POLLIN, 0};
  if (::poll(&waiting, 1, static_cast<int>(timeout.count())) <= 0) return false;
  // Filling the buffer here tells the end of the connection from a request.
  char first;
  if (read(&first, 1) != 1) return false;
  --inBegin;
  return true;
}

ssize_t Connection::Receive(char* to, size_t size) {
  if (shaping != nullptr) size = shaping->up.Slice(size);
  const ssize_t got = ssl ? SSL_read(ssl.get(), to, static_cast<int>(size))
                          : Uninterrupted([&] { return ::recv(fd, to, size, 0); });
  if (got <= 0) {
    broken = true;
    return -1;
  }
  if (shaping != nullptr) shaping->up.Take(static_cast<size_t>(got));
  return got;
}

ssize_t Connection::read(char* to, size_t size) {
  if (broken || !Flush()) return -1;
  if (inBegin == inEnd) {
    if (in.empty()) in.resize(kInputBuffer);
    const ssize_t got = Receive(in.data(), in.size());
    if (got <= 0) return -1;
    inBegin = 0;
    inEnd = static_cast<size_t>(got);
  }
  const size_t count = std::min(size, inEnd - inBegin);
  std::memcpy(to, in.data() + inBegin, count);
  inBegin += count;
  return static_cast<ssize_t>(count);
}

ssize_t Connection::Transmit(const char* data, size_t size) {
  size = std::min(size, kLargestTransfer);
  if (shaping != nullptr) {
    size = shaping->down.Slice(size);
    shaping->down.Take(size);
  }
  return ssl ? SSL_write(ssl.get(), data, static_cast<int>(size))
             : Uninterrupted([&] { return ::send(fd, data, size, MSG_NOSIGNAL); });
}

bool Connection::TransmitAll(const char* data, size_t size) {
  while (size > 0 && !broken) {
    const ssize_t sent = Transmit(data, size);
    if (sent <= 0) {
      broken = true;
      break;
    }
    data += sent;
    size -= static_cast<size_t>(sent);
  }
  return !broken;
}

bool Connection::Send(const char* data, size_t size) {
  if (broken) return false;
  if (out.size() + size <= kOutputBuffer) {
    out.append(data, size);
    return true;
  }
  return Flush() && TransmitAll(data, size);
}

bool Connection::Flush() {
  if (out.empty() || broken) return !broken;
  TransmitAll(out.data(), out.size());
  out.clear();
  return !broken;
}

ssize_t Connection::write(const char* data, size_t size) {
  if (muted) return static_cast<ssize_t>(size);
  return Send(data, size) ? static_cast<ssize_t>(size) : -1;
}

void Connection::Reset() {
  if (fd < 0) return;
  out.clear();
  broken = true;
  const linger none{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

void Connection::Close() {
  orderly = Flush();
  broken = true;
}

std::pair<int, SslHandle> Connection::Release() {
  broken = true;
  return {fd.exchange(-1), std::move(ssl)};
}

void Connection::Interrupt() { ::shutdown(fd, SHUT_RDWR); }

void Connection::get_remote_ip_and_port(std::string& ip, int& port) const {
  ip = "127.0.0.1";
  port = 0;
}

void Connection::get_local_ip_and_port(std::string& ip, int& port) const {
  ip = "127.0.0.1";
  port = 0;
}

}  // namespace emulator
