// The least of an HTTP server: canned answers and bottomless files, so that what is measured is
// the client.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class RawServer {
 public:
  struct Reply {
    std::string head;         ///< status line and headers, the empty line included
    std::string body;         ///< sent behind the head
    long long generated = 0;  ///< bytes of filler sent behind the body
  };
  /// `line` is the request line, `head` all of it with the headers. Request bodies are discarded.
  using Handler = std::function<Reply(const std::string& line, const std::string& head)>;

  explicit RawServer(Handler handler);
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port); }

  /// Closes the connections; the next request of each client opens a new one.
  void HangUp();

  static Reply Ok(std::string body, const std::string& headers = "");

 private:
  void Accept();
  void Serve(int socket);

  const Handler handler;
  int listener = -1;
  int port = 0;
  std::mutex mutex;  ///< guards the next three
  bool stopping = false;
  std::vector<int> sockets;
  std::vector<std::thread> connections;
  std::thread acceptor;
};
