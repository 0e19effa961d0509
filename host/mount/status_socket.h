// How other processes talk to a running mount: one JSON document a line over a Unix socket.
//
// A client sends one request, {"command": NAME, ...}; the mount answers with any number of lines,
// the last of which has "done" (and "error" when it failed).
#pragma once

#include <json/json.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

#include "host/core/descriptor.h"

namespace host::mount {

class StatusServer {
 public:
  /// Sends a line; false when the client has gone.
  using Send = std::function<bool(const Json::Value&)>;
  /// Runs on a thread of its own for each client.
  using Handler = std::function<void(const Json::Value& request, const Send& send)>;

  /// Listens when it returns; only the owner may connect. Throws Failure.
  StatusServer(const std::filesystem::path& socket, Handler handler);
  /// Ends all conversations, waits for the handlers and removes the socket.
  ~StatusServer();
  StatusServer(const StatusServer&) = delete;
  StatusServer& operator=(const StatusServer&) = delete;

 private:
  struct Client {
    explicit Client(Descriptor connected) : connection(std::move(connected)) {}
    Descriptor connection;
    std::thread thread;
    std::atomic<bool> ended{false};
  };

  void Accept();
  void Talk(Client& client);
  void Reap(bool all);

  const std::filesystem::path path;
  const Handler handler;
  Descriptor listener;
  std::atomic<bool> stopping{false};
  std::mutex mutex;
  std::list<Client> clients;  // guarded by mutex
  std::thread acceptor;
};

/// Sends a request and hands over the answers as they come. False when no mount listens at the
/// socket, or it ended before it was done.
bool AskMount(const std::filesystem::path& socket, const Json::Value& request,
              const std::function<void(const Json::Value&)>& answer);

}  // namespace host::mount
