#include "emulator/push_hub.h"

#include <poll.h>
#include <uWS.h>

#include <atomic>
#include <future>
#include <map>

namespace emulator {

namespace {

using Socket = uWS::WebSocket<uWS::SERVER>;

constexpr size_t kKeyLength = 24;
constexpr int kFlood = 5000;

struct Arrival {
  int fd;
  SSL* ssl;  // the event loop's to free; null: plain
  std::string channel, key, extensions, protocol;
  PushBehaviour behaviour;
};

}  // namespace

/// The event loop and what lives on it.
class PushHub::Loop {
 public:
  Loop() {
    std::promise<void> ready;
    thread = std::thread([this, &ready] { Run(ready); });
    ready.get_future().wait();
  }

  ~Loop() {
    Post([this] {
      // Closing the sockets and the wake-up leaves the loop nothing to wait for.
      hub->getDefaultGroup<uWS::SERVER>().terminate();
      async->close();
    });
    thread.join();
  }

  void Post(std::function<void()> job) {
    const std::lock_guard lock(mutex);
    jobs.push_back(std::move(job));
    async->send();
  }

  void Add(const Arrival& arrival) {
#ifdef USE_EPOLL
    // The library's upgrade changes the events of a socket that it believes to be watched already.
    epoll_event none{};
    epoll_ctl(hub->getLoop()->epfd, EPOLL_CTL_ADD, arrival.fd, &none);
#endif
    arriving = &arrival;
    hub->upgrade(arrival.fd, arrival.key.c_str(), arrival.ssl, arrival.extensions.c_str(),
                 arrival.extensions.size(), arrival.protocol.c_str(), arrival.protocol.size());
    arriving = nullptr;
  }

  void Send(const std::string& channel, const std::string& text) {
    const auto [begin, end] = listeners.equal_range(channel);
    for (auto one = begin; one != end; ++one) {
      one->second->send(text.data(), text.size(), uWS::OpCode::TEXT);
    }
  }

  void DropAll() {
    hub->getDefaultGroup<uWS::SERVER>().forEach([](Socket* socket) { socket->terminate(); });
  }

  std::atomic<int> connections{0};

 private:
  void Run(std::promise<void>& ready) {
    hub = std::make_unique<uWS::Hub>();
    hub->onConnection([this](Socket* socket, const uWS::HttpRequest&) { Connected(socket); });
    hub->onDisconnection([this](Socket* socket, int, char*, size_t) { Disconnected(socket); });
    async = new uS::Async(hub->getLoop());  // deletes itself when it is closed
    async->setData(this);
    async->start([](uS::Async* woken) { static_cast<Loop*>(woken->getData())->RunJobsSoon(); });
    ready.set_value();
    hub->run();
    hub.reset();
  }

  /// A job may close sockets. From the wake-up itself that would be closing them under the events
  /// that the loop has fetched together with it and not looked at yet.
  void RunJobsSoon() {
    if (scheduled) return;
    scheduled = true;
    auto* timer = new uS::Timer(hub->getLoop());  // deletes itself when it is closed
    timer->setData(this);
    timer->start(
        [](uS::Timer* due) {
          auto* loop = static_cast<Loop*>(due->getData());
          due->stop();
          due->close();
          loop->scheduled = false;
          loop->RunJobs();
        },
        0, 0);
  }

  void RunJobs() {
    std::deque<std::function<void()>> due;
    {
      const std::lock_guard lock(mutex);
      due.swap(jobs);
    }
    for (const auto& job : due) job();
  }

  void Connected(Socket* socket) {
    ++connections;
    listeners.emplace(arriving->channel, socket);
    if (arriving->behaviour == PushBehaviour::kDrop) socket->terminate();
    if (arriving->behaviour != PushBehaviour::kFlood) return;
    for (int i = 0; i < kFlood; ++i) socket->send("flood");
  }

  void Disconnected(Socket* socket) {
    --connections;
    for (auto one = listeners.begin(); one != listeners.end();) {
      one = one->second == socket ? listeners.erase(one) : std::next(one);
    }
  }

  std::mutex mutex;  ///< guards `jobs`
  std::deque<std::function<void()>> jobs;
  // Of the loop's thread:
  bool scheduled = false;  ///< a timer is on its way to run the jobs
  std::unique_ptr<uWS::Hub> hub;
  uS::Async* async = nullptr;
  const Arrival* arriving = nullptr;
  std::multimap<std::string, Socket*> listeners;
  std::thread thread;
};

PushHub::PushHub(Stopper& stop) : stopper(stop), loop(std::make_unique<Loop>()) {}
PushHub::~PushHub() = default;

void PushHub::Accept(Connection& connection, const httplib::Request& request) {
  const PushBehaviour now = behaviour;
  const std::string key = request.get_header_value("Sec-WebSocket-Key");
  if (now == PushBehaviour::kStall) return Stall(connection);
  if (now == PushBehaviour::kRefuse) return Refuse(connection, "503 Service Unavailable");
  if (key.size() != kKeyLength) return Refuse(connection, "400 Bad Request");
  auto [fd, ssl] = connection.Release();
  const Arrival arrival{fd,
                        ssl.release(),
                        request.path.substr(1),
                        key,
                        request.get_header_value("Sec-WebSocket-Extensions"),
                        request.get_header_value("Sec-WebSocket-Protocol"),
                        now};
  loop->Post([this, arrival] { loop->Add(arrival); });
}

// Holds the connection without a word until the client or the emulator has had enough. A client
// that waits for its answer sends nothing, so what there is to read is the end.
void PushHub::Stall(Connection& connection) {
  pollfd end{connection.socket(), POLLIN, 0};
  while (!stopper.Stopped() && ::poll(&end, 1, 20) == 0) {
  }
  connection.Reset();
}

void PushHub::Refuse(Connection& connection, const char* status) {
  connection.Send("HTTP/1.1 " + std::string(status) +
                  "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
  connection.Close();
}

void PushHub::SetBehaviour(PushBehaviour wanted) { behaviour = wanted; }

void PushHub::Send(const std::string& channel, const std::string& text) {
  loop->Post([this, channel, text] { loop->Send(channel, text); });
}

void PushHub::DropAll() {
  loop->Post([this] { loop->DropAll(); });
}

int PushHub::Connections() const { return loop->connections; }

}  // namespace emulator
