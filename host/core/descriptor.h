// Ownership of a descriptor.
#pragma once

namespace host {

/// Closes its descriptor, unless that is negative.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : descriptor(number) {}
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept : descriptor(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;

  int Get() const { return descriptor; }
  int Release();

 private:
  int descriptor;
};

}  // namespace host
