// How fast the emulator itself is, so that one knows when it would be what another measurement
// measures: pages of a listing, downloads, uploads, and the way from a change to a push message.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "emulator/drive_emulator.h"
#include "tests/emulator/web_socket_client.h"

namespace {

constexpr int64_t kMebibyte = 1 << 20;

/// A client that does nothing with what it receives: a bare socket, one request at a time.
class BareClient {
 public:
  explicit BareClient(emulator::DriveEmulator& drive)
      : fd(::socket(AF_INET, SOCK_STREAM, 0)), token(drive.AccessToken()), buffer(kMebibyte) {
    const std::string url = drive.ApiUrl();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect to " + url);
    }
  }
  ~BareClient() { ::close(fd); }

  /// Returns the head; `body` receives the body unless it is null. Throws when the status is no
  /// 2xx.
  std::string Do(const std::string& method, const std::string& path, const std::string& content,
                 std::string* body = nullptr) {
    Write(method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " + token +
          "\r\nContent-Length: " + std::to_string(content.size()) + "\r\n\r\n");
    Write(content);
    std::string head;
    size_t end = std::string::npos;
    while ((end = head.find("\r\n\r\n")) == std::string::npos) head.append(buffer.data(), Read());
    std::string rest = head.substr(end + 4);
    head.resize(end);
    if (head.compare(9, 1, "2") != 0) throw std::runtime_error(path + ": " + head);
    size_t left = std::stoull(head.substr(head.find("Content-Length: ") + 16)) - rest.size();
    if (body != nullptr) *body = rest;
    while (left > 0) {
      const size_t got = Read();
      if (body != nullptr) body->append(buffer.data(), got);
      left -= got;
    }
    return head;
  }

 private:
  void Write(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
      const ssize_t sent = ::send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
      if (sent <= 0) throw std::runtime_error("the emulator hung up");
      at += static_cast<size_t>(sent);
    }
  }
  size_t Read() {
    const ssize_t got = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (got <= 0) throw std::runtime_error("the emulator hung up");
    return static_cast<size_t>(got);
  }

  int fd;
  std::string token;
  std::vector<char> buffer;
};

std::string NextPage(const std::string& body) {
  static const std::string kName = "\"nextPageToken\":\"";
  const size_t at = body.rfind(kName);
  if (at == std::string::npos) return "";
  return body.substr(at + kName.size(), body.find('"', at + kName.size()) - at - kName.size());
}

void ListPagesOf1000(benchmark::State& state) {
  emulator::DriveEmulator drive;
  const std::string folder = drive.MakeFolder("large");
  drive.AddChildren(folder, 100'000, "file-");
  BareClient client(drive);
  const std::string url =
      "/drive/v3/files?pageSize=1000&fields=nextPageToken,files(id,mimeType,createdTime,"
      "modifiedTime,size,webViewLink,version,name,shared,parents)&q='" +
      folder + "'%20in%20parents%20and%20trashed%3Dfalse";
  std::string body, page;
  for (auto round : state) {
    client.Do("GET", page.empty() ? url : url + "&pageToken=" + page, "", &body);
    page = NextPage(body);
  }
  state.counters["pages"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(ListPagesOf1000)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

void Download64MiB(benchmark::State& state) {
  emulator::DriveEmulator drive;
  const std::string id = drive.PutSynthetic("big.bin", 64 * kMebibyte);
  BareClient client(drive);
  for (auto round : state) client.Do("GET", "/drive/v3/files/" + id + "?alt=media", "");
  state.SetBytesProcessed(state.iterations() * 64 * kMebibyte);
}
BENCHMARK(Download64MiB)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

void Upload64MiB(benchmark::State& state) {
  emulator::DriveEmulator drive;
  BareClient client(drive);
  const std::string content(64 * kMebibyte, 'u');
  const std::string id = drive.Put("big.bin", "");
  for (auto round : state) {
    const std::string head =
        client.Do("PATCH", "/upload/drive/v3/files/" + id + "?uploadType=resumable", "{}");
    const size_t at = head.find("/upload/", head.find("Location: "));
    client.Do("PUT", head.substr(at, head.find('\r', at) - at), content);
  }
  state.SetBytesProcessed(state.iterations() * 64 * kMebibyte);
}
BENCHMARK(Upload64MiB)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

void SmallRequest(benchmark::State& state) {
  emulator::DriveEmulator drive;
  const std::string id = drive.Put("a.txt", "a");
  BareClient client(drive);
  for (auto round : state) client.Do("GET", "/drive/v3/files/" + id + "?fields=id,name", "");
}
BENCHMARK(SmallRequest)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMicrosecond);

void ChangeToPushMessage(benchmark::State& state) {
  emulator::DriveEmulator drive;
  BareClient client(drive);
  const std::string hook = drive.PushApiUrl() + "/webhook/bench";
  emulator_test::WebSocketClient listener(drive.PushUrl() + "bench");
  client.Do("POST", "/drive/v3/changes/watch?pageToken=1",
            "{\"id\":\"c\",\"type\":\"web_hook\",\"address\":\"" + hook + "\"}");
  const std::string id = drive.Put("a.txt", "a");
  listener.Receive();
  int number = 0;
  for (auto round : state) {
    drive.Rename(id, std::to_string(++number));
    benchmark::DoNotOptimize(listener.Receive());
  }
}
BENCHMARK(ChangeToPushMessage)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
