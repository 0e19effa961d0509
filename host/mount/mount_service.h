// What a running mount tells and does for `status`, `drain`, `pin` and `unmount`.
#pragma once

#include <json/json.h>

#include <filesystem>
#include <functional>

#include "host/mount/drive.h"
#include "host/mount/status_socket.h"

namespace host::mount {

class MountService {
 public:
  /// What the mount does not know by itself; called from clients' threads.
  struct Host {
    std::function<void()> unmount;
    /// Why the account's access is not renewed; empty when nothing is wrong with it.
    std::function<std::string()> refusal;
  };

  MountService(Drive& itsDrive, std::filesystem::path mountedAt, Host itsHost)
      : drive(itsDrive), folder(std::move(mountedAt)), host(std::move(itsHost)) {}

  void Handle(const Json::Value& request, const StatusServer::Send& send);
  /// {"mount", "connected", "pending", "transfers", "cache", "waiting", "events", ...}
  Json::Value Status();

 private:
  Json::Value Progress();
  bool Drain(const StatusServer::Send& send);
  bool AwaitClosed(const StatusServer::Send& send);
  std::string WhatIsOpen();
  void Unmount(bool now, const StatusServer::Send& send);
  Json::Value Pin(const std::string& path, bool pinned);
  Json::Value Waiting();
  Json::Value Transfers(bool up);

  Drive& drive;
  const std::filesystem::path folder;
  const Host host;
};

}  // namespace host::mount
