#include "tests/plugin/unit/wire_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace {

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// Ends a pending accept: shutting the listener down would do so on Linux only.
void Knock(int port) {
  const sockaddr_in address = Loopback(port);
  const int made = socket(AF_INET, SOCK_STREAM, 0);
  (void)connect(made, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  close(made);
}

/// A stream socket bound to a free port of loopback.
int Bound(int* port) {
  const int made = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof(address);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (made < 0 || bind(made, generic, length) != 0 || getsockname(made, generic, &length) != 0) {
    throw std::runtime_error("no socket on loopback");
  }
  *port = ntohs(address.sin_port);
  return made;
}

bool SendAll(int socket, const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

bool ReadMore(int socket, std::string* pending) {
  char chunk[65536];
  const ssize_t count = recv(socket, chunk, sizeof(chunk), 0);
  if (count <= 0) return false;
  pending->append(chunk, static_cast<size_t>(count));
  return true;
}

void MakeCloseReset(int socket) {
  const linger now{1, 0};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
}

}  // namespace

Answer Http(int status, const std::string& body, const std::string& headers) {
  return {"HTTP/1.1 " + std::to_string(status) + " Said\r\n" + headers +
          "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body};
}

std::string Received::Header(const std::string& name) const {
  const size_t start = head.find("\r\n" + name + ":");
  if (start == std::string::npos) return {};
  const size_t end = head.find("\r\n", start + 2);
  return head.substr(start + 2, end == std::string::npos ? end : end - start - 2);
}

WireServer::WireServer() : listener(Bound(&port)) {
  if (listen(listener, 64) != 0) throw std::runtime_error("cannot listen on loopback");
  acceptor = std::thread([this] { Accept(); });
}

WireServer::~WireServer() {
  {
    const std::lock_guard guard(mutex);
    stopping = true;
    for (const int socket : sockets) shutdown(socket, SHUT_RDWR);
  }
  stopped.notify_all();
  Knock(port);
  acceptor.join();
  for (std::thread& server : servers) server.join();
  close(listener);
}

void WireServer::Play(std::vector<Answer> answers) {
  const std::lock_guard guard(mutex);
  script.insert(script.end(), answers.begin(), answers.end());
}

void WireServer::SetFallback(Answer answer) {
  const std::lock_guard guard(mutex);
  fallback = std::move(answer);
}

std::vector<Received> WireServer::Requests() const {
  const std::lock_guard guard(mutex);
  return requests;
}

Received WireServer::Only() const {
  const auto all = Requests();
  EXPECT_EQ(all.size(), 1u);
  return all.size() == 1 ? all.front() : Received{};
}

int WireServer::Connections() const {
  const std::lock_guard guard(mutex);
  return connections;
}

void WireServer::Accept() {
  while (true) {
    const int socket = accept(listener, nullptr, nullptr);
    const std::lock_guard guard(mutex);
    if (stopping || socket < 0) {
      if (socket >= 0) close(socket);
      return;
    }
    sockets.push_back(socket);
    servers.emplace_back([this, socket, number = ++connections] { Serve(socket, number); });
  }
}

Answer WireServer::Next() {
  const std::lock_guard guard(mutex);
  if (script.empty()) return fallback;
  Answer answer = std::move(script.front());
  script.pop_front();
  return answer;
}

/// Reads one request into `request` and records it; false when the peer or the script ended it.
bool WireServer::ReadRequest(int socket, std::string* pending, Received* request) {
  size_t end = 0;
  while ((end = pending->find("\r\n\r\n")) == std::string::npos) {
    if (!ReadMore(socket, pending)) return false;
  }
  request->head = pending->substr(0, end);
  pending->erase(0, end + 4);
  {
    const std::lock_guard guard(mutex);
    if (!script.empty() && script.front().after == After::kResetOnHead) {
      script.pop_front();
      MakeCloseReset(socket);
      return false;
    }
  }
  if (!request->Header("Expect").empty()) SendAll(socket, "HTTP/1.1 100 Continue\r\n\r\n");
  const std::string length = request->Header("Content-Length");
  const size_t wanted = length.empty() ? 0 : std::stoul(length.substr(length.find(' ')));
  while (pending->size() < wanted) {
    if (!ReadMore(socket, pending)) return false;
  }
  request->body = pending->substr(0, wanted);
  pending->erase(0, wanted);
  const std::lock_guard guard(mutex);
  requests.push_back(*request);
  return true;
}

void WireServer::Serve(int socket, int connection) {
  std::string pending;
  Received request;
  request.connection = connection;
  while (ReadRequest(socket, &pending, &request)) {
    const Answer answer = Next();
    if (!SendAll(socket, answer.bytes)) break;
    if (answer.after == After::kKeep) continue;
    if (answer.after == After::kReset) MakeCloseReset(socket);
    if (answer.after == After::kStall) {
      std::unique_lock guard(mutex);
      stopped.wait(guard, [this] { return stopping; });
    }
    break;
  }
  const std::lock_guard guard(mutex);
  sockets.remove(socket);
  close(socket);
}

RefusedPort::RefusedPort() : socket(Bound(&port)) {}
RefusedPort::~RefusedPort() { close(socket); }
