#include "host/mount/status_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "host/core/failure.h"
#include "host/core/json_text.h"
#include "host/core/paths.h"

namespace host::mount {
namespace {

constexpr size_t kLongestRequest = 64 * 1024;
/// Both ends say something, and read what they are told, long before.
constexpr time_t kPatienceSeconds = 15;
/// Between two looks for a free descriptor.
constexpr std::chrono::milliseconds kUntilFree{100};

sockaddr_un AddressOf(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() >= sizeof address.sun_path)
    throw Failure("the socket's path is too long: " + text,
                  "set XDG_RUNTIME_DIR to a shorter folder");
  text.copy(address.sun_path, text.size());
  return address;
}

void LimitWaits(int descriptor) {
  const timeval patience{kPatienceSeconds, 0};
  setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

[[noreturn]] void ThrowSilent() {
  throw Failure("the mount does not answer", "`vormlane unmount --now DIR` takes it away");
}

bool SendLine(int descriptor, const Json::Value& value) {
  std::string line = CompactJson(value);
  if (line.empty() || line.back() != '\n') line += '\n';
  for (size_t sent = 0; sent < line.size();) {
    const ssize_t count = send(descriptor, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

/// Lines of a connection.
class LineReader {
 public:
  explicit LineReader(int from) : descriptor(from) {}

  std::optional<std::string> Next(size_t longest) {
    for (;;) {
      if (const size_t end = buffer.find('\n'); end != std::string::npos) {
        std::string line = buffer.substr(0, end);
        buffer.erase(0, end + 1);
        return line;
      }
      char chunk[4096];
      const ssize_t count = recv(descriptor, chunk, sizeof chunk, 0);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 && errno == EAGAIN) ThrowSilent();
      if (count <= 0 || buffer.size() > longest) return std::nullopt;
      buffer.append(chunk, static_cast<size_t>(count));
    }
  }

 private:
  int descriptor;
  std::string buffer;
};

}  // namespace

StatusServer::StatusServer(const std::filesystem::path& socketPath, Handler answers)
    : path(socketPath), handler(std::move(answers)) {
  MakePrivateDirectory(path.parent_path());
  unlink(path.c_str());
  const sockaddr_un address = AddressOf(path);
  listener = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const bool bound =
      listener.Get() >= 0 &&
      bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      chmod(path.c_str(), 0600) == 0 && listen(listener.Get(), 16) == 0;
  if (!bound)
    throw Failure("cannot listen at " + path.string() + ": " + std::strerror(errno),
                  "check the folder it is in");
  acceptor = std::thread([this] { Accept(); });
}

StatusServer::~StatusServer() {
  stopping = true;
  shutdown(listener.Get(), SHUT_RDWR);
  acceptor.join();
  Reap(true);
  unlink(path.c_str());
}

void StatusServer::Accept() {
  while (!stopping) {
    Descriptor connection(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection.Get() < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (stopping || (errno != EMFILE && errno != ENFILE && errno != ENOMEM && errno != ENOBUFS))
        return;
      std::this_thread::sleep_for(kUntilFree);  // nothing tells when there is one again
    }
    Reap(false);
    std::lock_guard lock(mutex);
    Client& client = clients.emplace_back(std::move(connection));
    client.thread = std::thread([this, &client] { Talk(client); });
  }
}

void StatusServer::Talk(Client& client) {
  LimitWaits(client.connection.Get());
  LineReader reader(client.connection.Get());
  const Send send = [&](const Json::Value& value) {
    return !stopping && SendLine(client.connection.Get(), value);
  };
  try {
    if (const std::optional<std::string> line = reader.Next(kLongestRequest))
      handler(ParseJson(*line).value_or(Json::Value()), send);
  } catch (const std::exception& failure) {
    Json::Value answer;
    answer["done"] = true;
    answer["error"] = failure.what();
    send(answer);
  }
  shutdown(client.connection.Get(), SHUT_RDWR);
  client.ended = true;
}

void StatusServer::Reap(bool all) {
  std::list<Client> over;
  {
    std::lock_guard lock(mutex);
    for (auto at = clients.begin(); at != clients.end();) {
      const auto next = std::next(at);
      if (all || at->ended) over.splice(over.end(), clients, at);
      at = next;
    }
  }
  for (Client& client : over) {
    shutdown(client.connection.Get(), SHUT_RD);
    client.thread.join();
  }
}

bool AskMount(const std::filesystem::path& path, const Json::Value& request,
              const std::function<void(const Json::Value&)>& answer) {
  const sockaddr_un address = AddressOf(path);
  const Descriptor connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  LimitWaits(connection.Get());
  if (connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno == EAGAIN) ThrowSilent();  // too many are waiting for it already
    return false;
  }
  if (!SendLine(connection.Get(), request)) return false;
  LineReader reader(connection.Get());
  while (const std::optional<std::string> line = reader.Next(SIZE_MAX)) {
    const Json::Value value = ParseJson(*line).value_or(Json::Value());
    answer(value);
    if (value.isMember("done")) return true;
  }
  return false;
}

}  // namespace host::mount
