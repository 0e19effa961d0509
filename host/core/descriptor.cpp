#include "host/core/descriptor.h"

#include <unistd.h>

#include <utility>

namespace host {

Descriptor::~Descriptor() {
  if (descriptor >= 0) close(descriptor);
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    if (descriptor >= 0) close(descriptor);
    descriptor = other.Release();
  }
  return *this;
}

int Descriptor::Release() { return std::exchange(descriptor, -1); }

}  // namespace host
