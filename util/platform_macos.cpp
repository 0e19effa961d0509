#include <dlfcn.h>
#include <mach-o/dyld.h>
#include <pthread.h>

#include <cstdint>

#include "util/platform.h"

std::optional<std::string> ExecutablePath() {
  char path[1024];
  uint32_t size = sizeof(path);
  if (_NSGetExecutablePath(path, &size) != 0) return std::nullopt;
  return std::string(path);
}

void SetThreadName(const char* name) { pthread_setname_np(name); }

void KeepModuleLoaded(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) != 0 && info.dli_fname != nullptr) {
    // The reference is never given back, on purpose.
    (void)dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
  }
}
