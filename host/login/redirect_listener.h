// The loopback address to which the browser comes back after the user has consented.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace host {

/// Listens on 127.0.0.1 at a free port from construction to destruction. Answers that do not carry
/// the expected state are turned away and do not end the wait: any page can send a browser here.
class RedirectListener {
 public:
  /// Throws Failure when no port can be had.
  explicit RedirectListener(const std::string& state);
  ~RedirectListener();

  /// "http://127.0.0.1:PORT/"
  std::string Address() const;

  /// The authorisation code; nothing when `milliseconds` passed or a signal was noted (see
  /// InterruptWatch, one of which must be alive). Throws Failure when the user declined.
  std::optional<std::string> Wait(std::chrono::milliseconds longest);

 private:
  class Server;

  std::unique_ptr<Server> server;
};

}  // namespace host
