#include "emulator/channels.h"

#include <httplib.h>

#include <algorithm>
#include <utility>

#include "emulator/times.h"

namespace emulator {

namespace {

constexpr char kColumns[] =
    "SELECT id, resource, user, item, uri, address, token, expires, messages FROM channels";

Channel ReadChannel(const Statement& row) {
  Channel channel;
  channel.id = row.Text(0);
  channel.resourceId = row.Text(1);
  channel.user = row.Int(2);
  channel.itemId = row.Text(3);
  channel.resourceUri = row.Text(4);
  channel.address = row.Text(5);
  channel.token = row.Text(6);
  channel.expires = row.Int(7);
  channel.messages = row.Int(8);
  return channel;
}

/// "http://host:port" and "/path" of an address.
std::pair<std::string, std::string> SplitAddress(const std::string& address) {
  const size_t path = address.find('/', address.find("://") + 3);
  if (path == std::string::npos) return {address, "/"};
  return {address.substr(0, path), address.substr(path)};
}

bool Loopback(const std::string& origin) {
  const std::string host = origin.substr(origin.find("://") + 3);
  return host.rfind("127.", 0) == 0 || host.rfind("localhost", 0) == 0 ||
         host.rfind("[::1]", 0) == 0;
}

httplib::Headers NoticeHeaders(const Channel& channel, const char* state) {
  httplib::Headers headers{
      {"X-Goog-Channel-ID", channel.id},
      {"X-Goog-Channel-Expiration", HttpDate(channel.expires)},
      {"X-Goog-Resource-ID", channel.resourceId},
      {"X-Goog-Resource-URI", channel.resourceUri},
      {"X-Goog-Resource-State", state},
      {"X-Goog-Message-Number", std::to_string(channel.messages)},
  };
  if (!channel.token.empty()) headers.emplace("X-Goog-Channel-Token", channel.token);
  return headers;
}

}  // namespace

Channels::Channels(Store& channelStore) : store(channelStore), thread([this] { Run(); }) {}

Channels::~Channels() {
  {
    const std::lock_guard lock(mutex);
    stopping = true;
    wake.notify_all();
  }
  thread.join();
}

bool Channels::Open(const Channel& channel) {
  {
    const auto work = store.Begin();
    store.Sql().Run("DELETE FROM channels WHERE expires <= ?", NowMilliseconds());
    if (store.Sql().Number("SELECT 1 FROM channels WHERE id = ?", 0, channel.id) != 0) return false;
    store.Sql().Run("INSERT INTO channels VALUES(?, ?, ?, ?, ?, ?, ?, ?, 0)", channel.id,
                    channel.resourceId, channel.user, channel.itemId, channel.resourceUri,
                    channel.address, channel.token, channel.expires);
  }
  const std::lock_guard lock(mutex);
  syncs.push_back({channel, "sync"});
  wake.notify_all();
  return true;
}

bool Channels::Stop(const std::string& id, const std::string& resourceId, int64_t user) {
  const auto work = store.Begin();
  store.Sql().Run("DELETE FROM channels WHERE id = ? AND resource = ? AND user = ?", id, resourceId,
                  user);
  return store.Sql().Changed() > 0;
}

int64_t Channels::Count() {
  const auto work = store.Begin();
  return store.Sql().Number("SELECT count(*) FROM channels WHERE expires > ?", 0,
                            NowMilliseconds());
}

void Channels::Tell(const Changed& changed) {
  const std::lock_guard lock(mutex);
  pending.users.insert(changed.users.begin(), changed.users.end());
  pending.items.insert(changed.items.begin(), changed.items.end());
  wake.notify_all();
}

void Channels::Run() {
  std::unique_lock lock(mutex);
  for (;;) {
    wake.wait(lock, [this] {
      return stopping || !syncs.empty() || !pending.users.empty() || !pending.items.empty();
    });
    if (stopping) return;
    std::deque<Notice> notices = std::exchange(syncs, {});
    const Changed changed = std::exchange(pending, {});
    lock.unlock();
    for (Notice& notice : NoticesFor(changed)) notices.push_back(std::move(notice));
    for (const Notice& notice : notices) Post(notice);
    lock.lock();
  }
}

std::deque<Channels::Notice> Channels::NoticesFor(const Changed& changed) {
  std::deque<Notice> notices;
  const auto work = store.Begin();
  Statement row =
      store.Sql().Query(std::string(kColumns) + " WHERE expires > ?", NowMilliseconds());
  while (row.Step()) {
    Channel channel = ReadChannel(row);
    if (channel.itemId.empty() && changed.users.count(channel.user) > 0) {
      notices.push_back({std::move(channel), "change"});
    } else if (changed.items.count(channel.itemId) > 0) {
      const auto item = store.Find(channel.itemId);
      const char* state = !item ? "remove" : item->trashed != kNotTrashed ? "trash" : "update";
      notices.push_back({std::move(channel), state});
    }
  }
  return notices;
}

// The channel with its message number counted up; none when it was stopped meanwhile.
std::optional<Channel> Channels::NextMessage(const Channel& channel) {
  const auto work = store.Begin();
  store.Sql().Run("UPDATE channels SET messages = messages + 1 WHERE id = ?", channel.id);
  Statement row = store.Sql().Query(std::string(kColumns) + " WHERE id = ?", channel.id);
  if (!row.Step()) return std::nullopt;
  return ReadChannel(row);
}

void Channels::Post(const Notice& notice) {
  const auto [origin, path] = SplitAddress(notice.channel.address);
  if (!Loopback(origin)) return;
  const auto channel = NextMessage(notice.channel);
  if (!channel) return;
  ClientFor(origin).Post(path, NoticeHeaders(*channel, notice.state), "",
                         "application/json; utf-8");
}

httplib::Client& Channels::ClientFor(const std::string& origin) {
  std::unique_ptr<httplib::Client>& client = clients[origin];
  if (!client) {
    client = std::make_unique<httplib::Client>(origin);
    client->set_keep_alive(true);
    client->set_tcp_nodelay(true);
    client->set_connection_timeout(2);
    client->set_read_timeout(2);
    client->enable_server_certificate_verification(false);
  }
  return *client;
}

}  // namespace emulator
