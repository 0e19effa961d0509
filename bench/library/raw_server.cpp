#include "bench/library/raw_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace {

constexpr size_t kFillerSize = 1 << 20;

bool SendAll(int socket, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t sent = send(socket, data, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

bool SendReply(int socket, const RawServer::Reply& reply) {
  static const std::string filler(kFillerSize, 'x');
  const std::string start = reply.head + reply.body;
  if (!SendAll(socket, start.data(), start.size())) return false;
  for (long long left = reply.generated; left > 0;) {
    const size_t part = static_cast<size_t>(std::min<long long>(left, kFillerSize));
    if (!SendAll(socket, filler.data(), part)) return false;
    left -= static_cast<long long>(part);
  }
  return true;
}

long long BodyLength(const std::string& head) {
  const size_t at = head.find("\r\nContent-Length: ");
  return at == std::string::npos ? 0 : std::stoll(head.substr(at + 18));
}

}  // namespace

RawServer::RawServer(Handler answers) : handler(std::move(answers)) {
  listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t length = sizeof(address);
  if (bind(listener, generic, length) != 0 || listen(listener, 64) != 0 ||
      getsockname(listener, generic, &length) != 0) {
    throw std::runtime_error("no port on loopback");
  }
  port = ntohs(address.sin_port);
  acceptor = std::thread([this] { Accept(); });
}

RawServer::~RawServer() {
  {
    const std::lock_guard guard(mutex);
    stopping = true;
  }
  HangUp();
  shutdown(listener, SHUT_RDWR);
  acceptor.join();
  for (auto& connection : connections) connection.join();
  for (const int open : sockets) close(open);
  close(listener);
}

RawServer::Reply RawServer::Ok(std::string body, const std::string& headers) {
  return {"HTTP/1.1 200 OK\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
              "\r\n\r\n",
          std::move(body)};
}

void RawServer::HangUp() {
  const std::lock_guard guard(mutex);
  for (const int open : sockets) shutdown(open, SHUT_RDWR);
}

void RawServer::Accept() {
  while (true) {
    const int accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    const std::lock_guard guard(mutex);
    if (accepted < 0) return;
    const int on = 1;
    setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    sockets.push_back(accepted);
    if (stopping) shutdown(accepted, SHUT_RDWR);
    connections.emplace_back([this, accepted] { Serve(accepted); });
  }
}

void RawServer::Serve(int open) {
  std::vector<char> block(kFillerSize);
  std::string pending;
  ssize_t got = 0;
  while ((got = recv(open, block.data(), block.size(), 0)) > 0) {
    pending.append(block.data(), static_cast<size_t>(got));
    const size_t end = pending.find("\r\n\r\n");
    if (end == std::string::npos) continue;
    const std::string head = pending.substr(0, end + 2);
    if (head.find("\r\nExpect:") != std::string::npos) {
      SendAll(open, "HTTP/1.1 100 Continue\r\n\r\n", 25);
    }
    long long left = BodyLength(head) - static_cast<long long>(pending.size() - end - 4);
    while (left > 0 && (got = recv(open, block.data(), block.size(), 0)) > 0) left -= got;
    pending.clear();
    if (left > 0 || !SendReply(open, handler(head.substr(0, head.find("\r\n")), head))) return;
  }
}
