#include "emulator/http_server.h"

#include <sys/socket.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <stdexcept>
#include <vector>

namespace emulator {

namespace {

constexpr std::chrono::minutes kKeepAlive{10};

// The connection whose request this thread is handling: the parser's handlers are not told.
thread_local Connection* serving = nullptr;
thread_local bool handled = false;  // whether that request has come as far as a handler

/// A thread for each connection; threads whose connection has ended serve the next.
class ConnectionThreads : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> job) override {
    const std::lock_guard lock(mutex);
    jobs.push_back(std::move(job));
    if (idle < jobs.size()) {
      threads.emplace_back([this] { Work(); });
    } else {
      arrived.notify_one();
    }
  }

  void shutdown() override {
    {
      const std::lock_guard lock(mutex);
      stopping = true;
      arrived.notify_all();
    }
    for (std::thread& thread : threads) thread.join();
  }

 private:
  void Work() {
    std::unique_lock lock(mutex);
    for (;;) {
      ++idle;
      arrived.wait(lock, [this] { return stopping || !jobs.empty(); });
      --idle;
      if (jobs.empty()) return;
      const std::function<void()> job = std::move(jobs.front());
      jobs.pop_front();
      lock.unlock();
      job();
      lock.lock();
    }
  }

  std::mutex mutex;
  std::condition_variable arrived;
  std::deque<std::function<void()>> jobs;
  size_t idle = 0;
  bool stopping = false;
  std::vector<std::thread> threads;
};

}  // namespace

HttpServer::HttpServer(Settings serverSettings, Dispatch dispatchRequest)
    : settings(std::move(serverSettings)), dispatch(std::move(dispatchRequest)) {
  // Without SO_REUSEPORT, which the library would set: two emulators must not share a port.
  set_socket_options([](int socket) {
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  });
  set_tcp_nodelay(true);
  new_task_queue = [] { return new ConnectionThreads; };
  RegisterHandlers();
  port = settings.port == 0                           ? bind_to_any_port(settings.host)
         : bind_to_port(settings.host, settings.port) ? settings.port
                                                      : -1;
  if (port < 0) {
    throw std::runtime_error("cannot listen on " + settings.host + ":" +
                             std::to_string(settings.port) +
                             "; is another program using the port?");
  }
  // The library lets five connections wait: of more that come at once, the rest would be held up
  // until their clients ask again a second later.
  ::listen(svr_sock_, SOMAXCONN);
  listener = std::thread([this] { listen_after_bind(); });
  while (!is_running()) std::this_thread::yield();
}

HttpServer::~HttpServer() { Stop(); }

void HttpServer::Stop() {
  {
    const std::lock_guard lock(mutex);
    stopping = true;
    for (Connection* connection : live) connection->Interrupt();
  }
  if (!listener.joinable()) return;
  stop();
  listener.join();
}

void HttpServer::RegisterHandlers() {
  const auto plain = [this](const httplib::Request& request, httplib::Response& response) {
    Handle(request, nullptr);
    response.status = 200;
  };
  const auto reading = [this](const httplib::Request& request, httplib::Response& response,
                              const httplib::ContentReader& body) {
    Handle(request, &body);
    response.status = 200;
  };
  Get(".*", plain);
  Options(".*", plain);
  Post(".*", reading);
  Put(".*", reading);
  Patch(".*", reading);
  Delete(".*", reading);
}

namespace {

// The library leaves the body of a GET in the stream, where it would be taken for a request.
void DiscardBody(Connection& connection, const httplib::Request& request) {
  uint64_t left = request.get_header_value<uint64_t>("Content-Length");
  char piece[4096];
  while (left > 0) {
    const ssize_t got = connection.read(piece, std::min<uint64_t>(left, sizeof piece));
    if (got <= 0) return;
    left -= static_cast<uint64_t>(got);
  }
}

}  // namespace

void HttpServer::Handle(const httplib::Request& request, const httplib::ContentReader* body) {
  handled = true;
  if (body == nullptr) DiscardBody(*serving, request);
  dispatch(*serving, request, body);
  serving->Mute(true);
}

bool HttpServer::process_and_close_socket(int socket) {
  Connection connection(socket, ++connections, settings.shaping);
  {
    const std::lock_guard lock(mutex);
    if (stopping) return false;
    live.insert(&connection);
  }
  if (settings.tls == nullptr || connection.Secure(settings.tls)) Serve(connection);
  const std::lock_guard lock(mutex);
  live.erase(&connection);
  return true;
}

void HttpServer::Serve(Connection& connection) {
  serving = &connection;
  while (connection.AwaitRequest(kKeepAlive)) {
    connection.Mute(false);
    bool closed = false;
    handled = false;
    if (!process_request(connection, false, closed, nullptr) || closed) break;
    // What the library refuses by itself may have a body that nobody has read.
    if (!handled) break;
  }
  serving = nullptr;
}

}  // namespace emulator
