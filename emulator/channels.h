// Notification channels: who wants to be told of changes, and the thread that tells them.
// https://developers.google.com/drive/api/guides/push
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "emulator/store.h"

namespace httplib {
class Client;
}

namespace emulator {

struct Channel {
  std::string id;
  std::string resourceId;
  int64_t user = 0;
  std::string itemId;  ///< of the file watched; empty: the whole change log
  std::string resourceUri;
  std::string address;  ///< the web hook
  std::string token;    ///< repeated in every notice
  int64_t expires = 0;  ///< milliseconds since the epoch
  int64_t messages = 0;
};

/// Any thread. Notices are posted in order by a thread of its own, as soon as the transaction that
/// caused them is committed; a web hook that is not on a loopback address is never called.
class Channels {
 public:
  explicit Channels(Store& channelStore);
  ~Channels();
  Channels(const Channels&) = delete;
  Channels& operator=(const Channels&) = delete;

  /// Opens the channel and sends its "sync" notice. False when the id is taken.
  bool Open(const Channel& channel);
  /// False when there is no such channel of this user.
  bool Stop(const std::string& id, const std::string& resourceId, int64_t user);
  /// Neither stopped nor expired.
  int64_t Count();
  /// Queues notices; called with the store held.
  void Tell(const Changed& changed);

 private:
  struct Notice {
    Channel channel;
    const char* state;
  };
  void Run();
  std::deque<Notice> NoticesFor(const Changed& changed);
  std::optional<Channel> NextMessage(const Channel& channel);
  void Post(const Notice& notice);
  httplib::Client& ClientFor(const std::string& origin);

  Store& store;
  std::mutex mutex;  ///< guards `pending`, `syncs` and `stopping`
  std::condition_variable wake;
  Changed pending;
  std::deque<Notice> syncs;
  bool stopping = false;
  std::map<std::string, std::unique_ptr<httplib::Client>> clients;  ///< of the thread alone
  std::thread thread;
};

}  // namespace emulator
