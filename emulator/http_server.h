// An HTTP/1.1 server on one port: cpp-httplib parses the requests, the dispatcher given here writes
// the responses. Every connection has a thread of its own, so that idle keep-alive connections
// starve nobody.
#pragma once

#include <httplib.h>
#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "emulator/connection.h"

namespace emulator {

class HttpServer : private httplib::Server {
 public:
  /// Handles one request: reads the body by `body` when the request has one and writes the response
  /// to the connection. Called from the connection's thread; must not throw.
  using Dispatch = std::function<void(Connection& connection, const httplib::Request& request,
                                      const httplib::ContentReader* body)>;

  struct Settings {
    std::string host;
    int port = 0;                ///< 0: any
    SSL_CTX* tls = nullptr;      ///< not owned; null: plain
    Shaping* shaping = nullptr;  ///< not owned; null: no bandwidth limit
  };

  /// Listening when it returns; throws std::runtime_error naming the address.
  HttpServer(Settings settings, Dispatch dispatch);
  ~HttpServer() override;

  int Port() const { return port; }
  /// Ends all connections and joins every thread.
  void Stop();

 private:
  bool process_and_close_socket(int socket) override;
  void Serve(Connection& connection);
  void Handle(const httplib::Request& request, const httplib::ContentReader* body);
  void RegisterHandlers();

  Settings settings;
  Dispatch dispatch;
  int port = 0;
  std::atomic<uint64_t> connections{0};
  std::mutex mutex;  ///< guards `live` and `stopping`
  std::set<Connection*> live;
  bool stopping = false;
  std::thread listener;
};

}  // namespace emulator
