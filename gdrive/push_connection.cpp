#include "gdrive/push_connection.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>

#include "gdrive/guarded.h"
#include "net/certificates.h"
#include "net/logging.h"
#include "util/platform.h"

namespace {

constexpr int kConnectTimeoutMs = 5000;
constexpr unsigned kMaximumPayload = 0x1000000;  // bytes
constexpr auto kFirstWait = std::chrono::milliseconds(1000);
constexpr auto kLongestWait = std::chrono::milliseconds(300000);
/// A connection that held this long was a good one.
constexpr auto kStable = std::chrono::seconds(60);

std::string HostOf(const std::string& url) {
  const size_t start = url.find("://") + 3;
  if (url.compare(start, 1, "[") == 0) return url.substr(start + 1, url.find(']') - start - 1);
  return url.substr(start, url.find_first_of(":/", start) - start);
}

}  // namespace

PushConnection::PushConnection(IProtocol_V2* owner, IFileChanges* changes, std::string address)
    : url(std::move(address)),
      hub(0, false, kMaximumPayload),
      random(std::random_device{}()),
      session(owner),
      sink(changes) {
  InstallHandlers();
}

PushConnection::~PushConnection() = default;

void PushConnection::Open() {
  // A thread that is still closing its connection must not lose the code that it runs.
  static const char anchor = 0;
  KeepModuleLoaded(&anchor);
  async = new uS::Async(hub.getLoop());
  async->setData(this);
  async->start(
      [](uS::Async* woken) { static_cast<PushConnection*>(woken->getData())->CloseOnLoop(); });
  try {
    std::thread([self = shared_from_this()] { self->Run(); }).detach();
  } catch (...) {
    async->close();
    async = nullptr;
    hub.run();  // nothing but the async is on the loop: it goes and the loop ends
    throw;
  }
}

void PushConnection::SetSink(IFileChanges* changes) {
  const auto self = std::this_thread::get_id();
  std::unique_lock guard(mutex);
  if (sink == changes) return;
  sink = changes;
  done.wait(guard, [&] { return reportingThread == std::thread::id() || reportingThread == self; });
}

void PushConnection::RequestClose() {
  const std::lock_guard guard(mutex);
  closing = true;
  if (async != nullptr) async->send();
}

void PushConnection::Close() {
  RequestClose();
  const auto self = std::this_thread::get_id();
  std::unique_lock guard(mutex);
  done.wait(guard, [&] { return pollingThread == std::thread::id() || pollingThread == self; });
  session = nullptr;
  sink = nullptr;
}

bool PushConnection::IsClosing() {
  const std::lock_guard guard(mutex);
  return closing;
}

void PushConnection::Run() {
  SetThreadName("vormlane-push");
  try {
    VerifyServer();
    if (!IsClosing()) Connect();
    hub.run();
  } catch (...) {
    // Out of memory is all that can come here; the drive then goes on by polling.
  }
  LogFromOwnThread(kLogInformation, "[PROTOCOL  ] Push loop done");
}

/// Holds an encrypted connection to the certificates that requests are held to.
void PushConnection::VerifyServer() {
  const auto directory = CertificateDirectory();
  if (url.compare(0, 6, "wss://") != 0 || !directory) return;
  // uWebSockets keeps its TLS context to itself; a C-style cast reaches the private base.
  auto* node = (uS::NodeData*)&hub.getDefaultGroup<uWS::CLIENT>();
  SSL_CTX* context = node->clientContext;
  SSL_CTX_load_verify_locations(context, (*directory + kCertificateBundle).c_str(),
                                directory->c_str());
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  const std::string host = HostOf(url);
  X509_VERIFY_PARAM* parameters = SSL_CTX_get0_param(context);
  if (X509_VERIFY_PARAM_set1_ip_asc(parameters, host.c_str()) != 1) {
    X509_VERIFY_PARAM_set1_host(parameters, host.c_str(), 0);
  }
}

void PushConnection::InstallHandlers() {
  auto& group = hub.getDefaultGroup<uWS::CLIENT>();
  group.onConnection([this](uWS::WebSocket<uWS::CLIENT>* socket, uWS::HttpRequest) {
    if (IsClosing()) {
      socket->close(1000);
      return;
    }
    LogFromOwnThread(kLogInformation, "[PROTOCOL  ] Push connected");
    Connected();
  });
  group.onMessage([this](uWS::WebSocket<uWS::CLIENT>*, char*, size_t, uWS::OpCode) {
    LogFromOwnThread(kLogInformation, "[PROTOCOL  ] Message received");
    Poll();
  });
  group.onDisconnection([this](uWS::WebSocket<uWS::CLIENT>*, int, char*, size_t) {
    LogFromOwnThread(kLogInformation, "[PROTOCOL  ] Push disconnected");
    Disconnected();
  });
  group.onError([this](void*) {
    LogFromOwnThread(kLogInformation, "[PROTOCOL  ] Push returns error");
    ReconnectLater();
  });
}

void PushConnection::Connect() { hub.connect(url, nullptr, {}, kConnectTimeoutMs); }

void PushConnection::Connected() {
  connectedAt = std::chrono::steady_clock::now();
  if (mayHaveMissed) Poll();
  mayHaveMissed = false;
}

void PushConnection::Disconnected() {
  if (std::chrono::steady_clock::now() - connectedAt >= kStable) failures = 0;
  ReconnectLater();
}

void PushConnection::Poll() {
  IProtocol_V2* drive = nullptr;
  {
    const std::lock_guard guard(mutex);
    if (closing) return;
    drive = session;
    pollingThread = std::this_thread::get_id();
  }
  Relay relay(this);
  (void)drive->GetChanges(&relay, nullptr);
  // The poll's requests share this thread's OpenSSL error queue with the connection, which would
  // take what they left there for its own.
  ERR_clear_error();
  {
    const std::lock_guard guard(mutex);
    pollingThread = std::thread::id();
  }
  done.notify_all();
}

void PushConnection::Report(const char* folderId) {
  IFileChanges* changes = nullptr;
  {
    const std::lock_guard guard(mutex);
    if (closing) return;
    changes = sink;
    reportingThread = std::this_thread::get_id();
  }
  (void)Guarded([&] {
    changes->Changed(folderId);
    return AERROR::SUCCESS;
  });
  {
    const std::lock_guard guard(mutex);
    reportingThread = std::thread::id();
  }
  done.notify_all();
}

std::chrono::milliseconds PushConnection::NextWait() {
  const auto base = std::min(kLongestWait, kFirstWait * (1 << std::min(failures, 9)));
  ++failures;
  std::uniform_real_distribution<double> jitter(0.5, 1.5);
  const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(base * jitter(random));
  return std::clamp(wait, kFirstWait, kLongestWait);
}

void PushConnection::ReconnectLater() {
  if (IsClosing()) return;
  mayHaveMissed = true;
  reconnect.reset(new uS::Timer(hub.getLoop()));
  reconnect->setData(this);
  reconnect->start(
      [](uS::Timer* timer) {
        auto* self = static_cast<PushConnection*>(timer->getData());
        self->reconnect.reset();
        self->Connect();
      },
      static_cast<int>(NextWait().count()), 0);
}

void PushConnection::CloseOnLoop() {
  uS::Async* waker = nullptr;
  {
    const std::lock_guard guard(mutex);
    std::swap(waker, async);
  }
  if (waker == nullptr) return;
  reconnect.reset();
  hub.getDefaultGroup<uWS::CLIENT>().close(1000);
  waker->close();
}
