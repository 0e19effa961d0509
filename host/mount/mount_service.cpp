#include "host/mount/mount_service.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>
#include <thread>

#include "host/core/json_text.h"
#include "host/mount/times.h"

namespace host::mount {
namespace {

/// How often a waiting client hears how far it is.
constexpr Milliseconds kProgress{200};
/// How long `unmount` waits for programs to close their files.
constexpr Milliseconds kClosing{2000};
/// Rows that `status` shows one by one.
constexpr size_t kShownRows = 100;

Json::Value Done() {
  Json::Value answer;
  answer["done"] = true;
  return answer;
}

Json::Value Failed(const std::string& why) {
  Json::Value answer = Done();
  answer["error"] = why;
  return answer;
}

}  // namespace

void MountService::Handle(const Json::Value& request, const StatusServer::Send& send) {
  const std::string command = TextMember(request, "command");
  if (command == "status") {
    Json::Value answer = Status();
    answer["done"] = true;
    send(answer);
  } else if (command == "drain") {
    if (Drain(send)) send(Done());
  } else if (command == "unmount") {
    Unmount(request["now"].asBool(), send);
  } else if (command == "pin" || command == "unpin") {
    send(Pin(TextMember(request, "path"), command == "pin"));
  } else {
    send(Failed("unknown command"));
  }
}

/// How far the uploads are, and what keeps the first of those that fail.
Json::Value MountService::Progress() {
  Json::Value progress;
  progress["pending"] = static_cast<Json::Int64>(drive.queue.Pending());
  progress["uploads"] = Transfers(true);
  std::string trouble = host.refusal();
  std::lock_guard lock(drive.state.mutex);
  progress["pendingBytes"] = static_cast<Json::Int64>(drive.state.journal.BytesToSend());
  for (const JournalRow& row : drive.state.journal.All()) {
    if (row.error.empty() || !trouble.empty()) continue;
    const std::optional<Item> item = drive.state.items.Find(row.ino);
    trouble = "\"" + (item ? item->name : "") + "\": " + row.error;
  }
  progress["trouble"] = trouble;
  return progress;
}

bool MountService::Drain(const StatusServer::Send& send) {
  drive.queue.Hurry();
  while (!drive.queue.Drain(kProgress))
    if (!send(Progress())) return false;
  return true;
}

/// A program's last close comes a moment after it has gone on.
bool MountService::AwaitClosed(const StatusServer::Send& send) {
  for (auto left = kClosing; drive.files.OpenCount() > 0; left -= kProgress) {
    if (left <= Milliseconds(0)) return false;
    std::this_thread::sleep_for(kProgress);
    if (!send(Progress())) return false;
  }
  return true;
}

std::string MountService::WhatIsOpen() {
  std::lock_guard lock(drive.state.mutex);
  const size_t count = drive.state.opened.size();
  const std::optional<Item> first =
      count == 0 ? std::nullopt : drive.state.items.Find(drive.state.opened.begin()->first);
  const std::string name = first ? "\"" + first->name + "\"" : "a file";
  return count > 1 ? "programs have " + name + " open, and " + std::to_string(count - 1) +
                         " more: close them, or use --now"
                   : "a program has " + name + " open: close it, or use --now";
}

void MountService::Unmount(bool now, const StatusServer::Send& send) {
  if (!now) {
    if (!AwaitClosed(send)) {
      send(Failed(WhatIsOpen()));
      return;
    }
    if (!drive.settings.readOnly && !Drain(send)) return;
  }
  Json::Value answer = Done();
  answer["pending"] = static_cast<Json::Int64>(drive.queue.Pending());
  send(answer);
  host.unmount();
}

Json::Value MountService::Pin(const std::string& path, bool pinned) {
  Inode ino = kRootInode;
  for (const std::filesystem::path& part : std::filesystem::path(path)) {
    if (part.empty() || part == "." || part == "/") continue;
    Item item;
    if (const int error = drive.tree.Lookup(ino, part.string(), item))
      return Failed(part.string() + ": " + std::strerror(error));
    ino = item.ino;
  }
  const int error = drive.Pin(ino, pinned);
  return error == 0 ? Done() : Failed(std::strerror(error));
}

Json::Value MountService::Waiting() {
  Json::Value rows(Json::arrayValue);
  std::set<Inode> sending;
  for (const UploadQueue::Transferring& upload : drive.queue.Transfers())
    sending.insert(upload.ino);
  std::lock_guard lock(drive.state.mutex);
  for (const JournalRow& row : drive.state.journal.All()) {
    if (rows.size() >= kShownRows) break;
    const std::optional<Item> item = drive.state.items.Find(row.ino);
    if (!item) continue;
    Json::Value shown;
    shown["name"] = item->name;
    shown["what"] = item->deleted      ? "delete"
                    : row.editing      ? "being written"
                    : item->id.empty() ? "create"
                    : row.content != 0 ? "upload"
                                       : "rename";
    shown["since"] = ToRfc3339(row.since * 1'000'000'000);
    shown["sending"] = sending.count(row.ino) != 0;
    shown["tries"] = static_cast<Json::Int64>(row.tries);
    if (!row.error.empty()) shown["error"] = row.error;
    rows.append(shown);
  }
  return rows;
}

Json::Value MountService::Transfers(bool up) {
  Json::Value rows(Json::arrayValue);
  for (const TrafficMeter::Transfer& transfer : drive.traffic.Transfers()) {
    if (transfer.up != up || rows.size() >= kShownRows) continue;
    std::lock_guard lock(drive.state.mutex);
    const std::optional<Item> item = drive.state.items.Find(transfer.ino);
    Json::Value shown;
    shown["name"] = item ? item->name : "";
    shown["bytes"] = static_cast<Json::Int64>(transfer.size);
    shown["done"] = static_cast<Json::Int64>(transfer.done);
    shown["bytesPerSecond"] = static_cast<Json::Int64>(transfer.rate);
    rows.append(shown);
  }
  return rows;
}

Json::Value MountService::Status() {
  Json::Value status;
  status["mount"] = folder.string();
  status["connected"] = drive.Connected();
  if (const std::string refusal = host.refusal(); !refusal.empty()) status["account"] = refusal;
  status["readOnly"] = drive.settings.readOnly;
  status["openFiles"] = drive.files.OpenCount();
  status["requests"] = static_cast<Json::Int64>(drive.remote.Counted().requests);
  status["bytesDown"] = static_cast<Json::Int64>(drive.remote.Counted().down);
  status["bytesUp"] = static_cast<Json::Int64>(drive.remote.Counted().up);
  status["waiting"] = Waiting();
  status["uploads"] = Transfers(true);
  status["downloads"] = Transfers(false);
  const TrafficMeter::Rates rates = drive.traffic.Overall();
  status["bytesDownPerSecond"] = static_cast<Json::Int64>(rates.down);
  status["bytesUpPerSecond"] = static_cast<Json::Int64>(rates.up);
  std::lock_guard lock(drive.state.mutex);
  status["pending"] = static_cast<Json::Int64>(drive.state.journal.Count());
  status["items"] = static_cast<Json::Int64>(drive.state.items.Count());
  status["cache"]["bytes"] = static_cast<Json::Int64>(drive.state.contents.CleanBytes());
  status["cache"]["pendingBytes"] = static_cast<Json::Int64>(drive.state.journal.BytesToSend());
  status["cache"]["limit"] = static_cast<Json::Int64>(drive.store.Limit());
  status["events"] = Json::Value(Json::arrayValue);
  for (const State::Event& event : drive.state.Events()) {
    Json::Value shown;
    shown["time"] = ToRfc3339(event.at * 1'000'000'000);
    shown["text"] = event.text;
    status["events"].append(shown);
  }
  return status;
}

}  // namespace host::mount
