// A TCP server on loopback that plays scripted answers and keeps what it received byte for byte.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// What happens to the connection once an answer's bytes are written.
enum class After {
  kKeep,
  kClose,
  kReset,        ///< as a crashed peer: RST instead of FIN
  kResetOnHead,  ///< reset before the body was read
  kStall,        ///< nothing more is sent, the connection stays open
};

struct Answer {
  std::string bytes;
  After after = After::kKeep;
};

/// An answer with its length; `headers` are whole lines.
Answer Http(int status, const std::string& body = {}, const std::string& headers = {});

struct Received {
  int connection = 0;  ///< counted from 1
  std::string head;    ///< request line and header lines, without the empty line
  std::string body;

  std::string Line() const { return head.substr(0, head.find("\r\n")); }
  /// The whole header line of that name; empty when there is none.
  std::string Header(const std::string& name) const;
};

class WireServer {
 public:
  WireServer();
  ~WireServer();
  WireServer(const WireServer&) = delete;
  WireServer& operator=(const WireServer&) = delete;

  /// Answers are given in order, whatever connection asks; when none is left, `fallback`.
  void Play(std::vector<Answer> answers);
  void SetFallback(Answer answer);

  int Port() const { return port; }
  std::string Origin() const { return "http://127.0.0.1:" + std::to_string(port); }
  std::vector<Received> Requests() const;
  /// The only request so far; a failure of the test when there were more or none.
  Received Only() const;
  int Connections() const;

 private:
  void Accept();
  void Serve(int socket, int connection);
  bool ReadRequest(int socket, std::string* pending, Received* request);
  Answer Next();

  int port = 0;
  int listener = -1;         // binding it fills in the port
  mutable std::mutex mutex;  ///< guards what follows
  std::condition_variable stopped;
  bool stopping = false;
  std::deque<Answer> script;
  Answer fallback = Http(200, "ok");
  std::vector<Received> requests;
  std::list<int> sockets;
  int connections = 0;
  std::vector<std::thread> servers;
  std::thread acceptor;
};

/// A port of loopback where nobody listens, held for as long as this lives.
class RefusedPort {
 public:
  RefusedPort();
  ~RefusedPort();
  RefusedPort(const RefusedPort&) = delete;
  RefusedPort& operator=(const RefusedPort&) = delete;
  std::string Origin() const { return "http://127.0.0.1:" + std::to_string(port); }

 private:
  int port = 0;
  int socket;
};
