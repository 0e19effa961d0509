#include "host/login/redirect_listener.h"

#include <httplib.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "host/core/failure.h"
#include "host/core/interrupt.h"

namespace host {
namespace {

constexpr char kHost[] = "127.0.0.1";

std::string Page(const std::string& title, const std::string& text) {
  return "<!doctype html><html lang=en><meta charset=utf-8><title>" + title +
         "</title><style>body{font:1.1rem/1.5 system-ui,sans-serif;max-width:32rem;margin:20vh "
         "auto;padding:0 1rem;color:#222}</style><h1>" +
         title + "</h1><p>" + text + "</p></html>";
}

void Answer(httplib::Response& response, int status, const std::string& title,
            const std::string& text) {
  response.status = status;
  response.set_header("Cache-Control", "no-store");
  response.set_content(Page(title, text), "text/html; charset=utf-8");
}

}  // namespace

class RedirectListener::Server {
 public:
  explicit Server(const std::string& expected) : state(expected) {
    // Browsers open connections ahead of need; they must not hold up the end.
    server.set_keep_alive_max_count(1);
    server.set_keep_alive_timeout(1);
    server.set_read_timeout(2);
    server.Get("/", [this](const httplib::Request& request, httplib::Response& response) {
      Take(request, response);
    });
    port = server.bind_to_any_port(kHost);
    if (port <= 0)
      throw Failure("cannot listen on a local port for the browser's answer",
                    "check the network settings of this machine");
    thread = std::thread([this] {
      server.listen_after_bind();
      ended = true;
    });
  }
  ~Server() {
    // A stop before the thread has begun to listen would be lost.
    while (!server.is_running() && !ended) std::this_thread::yield();
    server.stop();
    thread.join();
  }

  int Port() const { return port; }
  std::string Code() const {
    std::lock_guard lock(mutex);
    return code;
  }
  std::string Error() const {
    std::lock_guard lock(mutex);
    return error;
  }

 private:
  void Take(const httplib::Request& request, httplib::Response& response) {
    const std::string given = request.get_param_value("code");
    const std::string refused = request.get_param_value("error");
    if (request.get_param_value("state") != state || (given.empty() && refused.empty()))
      return Answer(response, 400, "Not for me", "This address waits for another answer.");
    {
      std::lock_guard lock(mutex);
      // The first answer counts; a page that is loaded again changes nothing.
      if (code.empty() && error.empty()) {
        code = given;
        error = refused;
      }
    }
    InterruptWatch::Wake();
    if (refused.empty())
      Answer(response, 200, "Signed in", "You can close this window and return to the terminal.");
    else
      Answer(response, 200, "Not signed in", "Access was declined. You can close this window.");
  }

  const std::string state;
  httplib::Server server;
  std::thread thread;
  std::atomic<bool> ended{false};
  int port = 0;
  mutable std::mutex mutex;
  std::string code;   // guarded by mutex
  std::string error;  // guarded by mutex
};

RedirectListener::RedirectListener(const std::string& state)
    : server(std::make_unique<Server>(state)) {}

RedirectListener::~RedirectListener() = default;

std::string RedirectListener::Address() const {
  return std::string("http://") + kHost + ":" + std::to_string(server->Port()) + "/";
}

std::optional<std::string> RedirectListener::Wait(std::chrono::milliseconds longest) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + longest;
  for (;;) {
    const std::string error = server->Error();
    if (!error.empty())
      throw Failure("the sign-in was declined: " + error, "run `vormlane login` again",
                    AERROR::AUTH_CANCEL);
    if (std::string code = server->Code(); !code.empty()) return code;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0 || InterruptWatch::WaitFor(static_cast<int>(left.count())))
      return std::nullopt;
  }
}

}  // namespace host
