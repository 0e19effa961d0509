#include "host/core/local_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/core/atomic_file.h"
#include "host/core/failure.h"
#include "host/core/paths.h"

namespace host {
namespace {

constexpr size_t kSpoolBlock = 1 << 20;

Failure Unreadable(const std::string& name, const std::string& why) {
  return Failure("cannot read " + name + ": " + why, "name a file that you may read");
}

}  // namespace

LocalFile::LocalFile(const std::string& fileName) : name(fileName) {
  if (name == "-") {
    Spool();
    return;
  }
  descriptor = Descriptor(open(name.c_str(), O_RDONLY | O_CLOEXEC));
  if (descriptor.Get() < 0) throw Unreadable(name, std::strerror(errno));
  struct stat status {};
  fstat(descriptor.Get(), &status);
  if (S_ISDIR(status.st_mode)) throw Unreadable(name, "it is a folder");
  if (!S_ISREG(status.st_mode)) throw Unreadable(name, "it is no ordinary file");
  size = status.st_size;
}

void LocalFile::Spool() {
  name = "standard input";
  const TemporaryDirectory directory("vormlane-");
  AtomicFile copy(directory.Path() / "input", 0600);
  std::vector<char> block(kSpoolBlock);
  for (;;) {
    const ssize_t count = read(STDIN_FILENO, block.data(), block.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Unreadable(name, std::strerror(errno));
    if (count == 0) break;
    copy.WriteAt(size, {block.data(), static_cast<size_t>(count)});
    size += count;
  }
  copy.Commit();
  // The file stays readable through its descriptor when its folder goes with this scope.
  descriptor = Descriptor(open((directory.Path() / "input").c_str(), O_RDONLY | O_CLOEXEC));
  if (descriptor.Get() < 0) throw Unreadable(name, std::strerror(errno));
}

uint64_t LocalFile::Read(int64_t offset, std::span<char> buffer) const {
  const auto wanted = std::min<uint64_t>(buffer.size(), static_cast<uint64_t>(size - offset));
  uint64_t have = 0;
  while (have < wanted) {
    const ssize_t count = pread(descriptor.Get(), buffer.data() + have, wanted - have,
                                offset + static_cast<int64_t>(have));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Unreadable(name, std::strerror(errno));
    if (count == 0) throw Unreadable(name, "it became shorter while it was sent");
    have += static_cast<uint64_t>(count);
  }
  return have;
}

}  // namespace host
