// The WebSocket connection to the push service, and the thread that it lives on.
//
// Owned by the session and by the thread, so that neither outlives what the other uses. The hub and
// everything of uWebSockets' is touched by the thread alone once it runs; another thread asks for
// the close through the loop's async. After Close the thread touches neither session nor sink; it
// ends by itself when the connection is down, within seconds also when the service is gone.
#pragma once

#include <uWS.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "plugin/host_interfaces.h"

class PushConnection : public std::enable_shared_from_this<PushConnection> {
 public:
  PushConnection(IProtocol_V2* session, IFileChanges* sink, std::string url);
  ~PushConnection();
  PushConnection(const PushConnection&) = delete;
  PushConnection& operator=(const PushConnection&) = delete;

  /// Starts the thread. Throws std::system_error when there can be none. Once.
  void Open();

  /// Waits for a call of the sink that it replaces, unless made from inside that call.
  void SetSink(IFileChanges* sink);

  /// From here on the thread starts no poll and calls no sink. Waits for nothing. Any thread.
  void RequestClose();
  /// The same, then waits for a poll that the thread is running (unless called from inside that
  /// poll) and forgets session and sink.
  void Close();

 private:
  /// What polls report to: the sink that is the right one at that moment.
  class Relay final : public IFileChanges {
   public:
    explicit Relay(PushConnection* relaying) : owner(relaying) {}
    void Reserved0() override {}
    void Reserved1() override {}
    void Reserved2() override {}
    void Changed(const char* folderId) override { owner->Report(folderId); }

   private:
    PushConnection* owner;
  };
  struct TimerClose {
    void operator()(uS::Timer* timer) const {
      timer->stop();
      timer->close();
    }
  };

  // On the push thread only.
  void Run();
  void InstallHandlers();
  void Connect();
  void Connected();
  void Disconnected();
  void Poll();
  void Report(const char* folderId);
  void ReconnectLater();
  void CloseOnLoop();
  std::chrono::milliseconds NextWait();
  void VerifyServer();

  bool IsClosing();

  const std::string url;
  uWS::Hub hub;
  std::unique_ptr<uS::Timer, TimerClose> reconnect;
  std::minstd_rand random;
  int failures = 0;            ///< connections in a row that did not hold
  bool mayHaveMissed = false;  ///< notices may have come while there was no connection
  std::chrono::steady_clock::time_point connectedAt;

  std::mutex mutex;              ///< guards what follows
  std::condition_variable done;  ///< of a poll or of a call of the sink
  IProtocol_V2* session;
  IFileChanges* sink;
  uS::Async* async = nullptr;  ///< owned by the loop; null once it is being closed
  bool closing = false;
  std::thread::id pollingThread;    ///< the push thread while it polls
  std::thread::id reportingThread;  ///< the push thread while it calls the sink
};
