// The WebSocket side of the push service: clients that listen on named channels.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "emulator/connection.h"
#include "emulator/drive_emulator.h"
#include "emulator/stopper.h"

namespace emulator {

/// Any thread, except that Accept is called by the thread that serves the connection. The sockets
/// belong to an event loop on a thread of its own; everything reaches it as a posted job.
class PushHub {
 public:
  explicit PushHub(Stopper& stopper);
  ~PushHub();
  PushHub(const PushHub&) = delete;
  PushHub& operator=(const PushHub&) = delete;

  /// Treats a hand-shake request as the behaviour says; the connection's socket may be taken over.
  void Accept(Connection& connection, const httplib::Request& request);
  void SetBehaviour(PushBehaviour behaviour);
  void Send(const std::string& channel, const std::string& text);
  void DropAll();
  int Connections() const;

 private:
  class Loop;
  void Stall(Connection& connection);
  void Refuse(Connection& connection, const char* status);

  Stopper& stopper;
  std::atomic<PushBehaviour> behaviour{PushBehaviour::kAccept};
  std::unique_ptr<Loop> loop;
};

}  // namespace emulator
