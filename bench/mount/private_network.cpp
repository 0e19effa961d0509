#include "bench/mount/private_network.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace bench {
namespace {

bool RaiseLoopback() {
  const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  const bool raised = socket >= 0 && ioctl(socket, SIOCSIFFLAGS, &request) == 0;
  if (socket >= 0) close(socket);
  return raised;
}

std::filesystem::path Written(const std::filesystem::path& file, const char* text) {
  std::ofstream(file) << text;
  return file;
}

}  // namespace

void LayOver(const std::filesystem::path& what, const std::filesystem::path& over) {
  if (mount(what.c_str(), over.c_str(), nullptr, MS_BIND, nullptr) != 0)
    throw std::runtime_error("cannot lay " + what.string() + " over " + over.string() + ": " +
                             std::strerror(errno));
}

std::string EnterPrivateNetwork(const std::filesystem::path& directory) {
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0)
    return std::string("this machine allows no namespaces: ") + std::strerror(errno);
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 || !RaiseLoopback())
    return std::string("the namespaces cannot be set up: ") + std::strerror(errno);
  LayOver(Written(directory / "hosts",
                  "127.0.0.1 localhost www.googleapis.com oauth2.googleapis.com\n"),
          "/etc/hosts");
  LayOver(Written(directory / "nsswitch.conf", "hosts: files\n"), "/etc/nsswitch.conf");
  return "";
}

}  // namespace bench
