#include <dlfcn.h>
#include <limits.h>
#include <pthread.h>
#include <unistd.h>

#include "util/platform.h"

std::optional<std::string> ExecutablePath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  if (length <= 0 || length == static_cast<ssize_t>(sizeof(path))) return std::nullopt;
  return std::string(path, static_cast<size_t>(length));
}

void SetThreadName(const char* name) {
  pthread_setname_np(pthread_self(), std::string(name).substr(0, 15).c_str());
}

void KeepModuleLoaded(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) != 0 && info.dli_fname != nullptr) {
    // The reference is never given back, on purpose.
    (void)dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
  }
}
