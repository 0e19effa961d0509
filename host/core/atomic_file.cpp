#include "host/core/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "host/core/failure.h"

namespace host {
namespace {

std::string AdviceFor(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
      return "make room on the disk and try again";
    case ENOENT:
      return "make the folder first";
    case EACCES:
    case EPERM:
    case EROFS:
      return "choose a folder that you may write to";
    default:
      return "check the disk and the folder";
  }
}

std::string HiddenPrefix(const std::filesystem::path& target) {
  return "." + target.filename().string().substr(0, 200) + ".vormlane-";
}

/// A name beside the target that no other process and no other call of this one uses.
std::filesystem::path HiddenName(const std::filesystem::path& target, int attempt) {
  return target.parent_path() /
         (HiddenPrefix(target) + std::to_string(getpid()) + "-" + std::to_string(attempt));
}

}  // namespace

void RemoveHidden(const std::filesystem::path& target) {
  const std::string prefix = HiddenPrefix(target);
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(target.parent_path(), ignored))
    if (entry.path().filename().string().rfind(prefix, 0) == 0) unlink(entry.path().c_str());
}

AtomicFile::AtomicFile(std::filesystem::path targetFile, mode_t mode)
    : target(std::move(targetFile)) {
  for (int attempt = 0; descriptor.Get() < 0; ++attempt) {
    hidden = HiddenName(target, attempt);
    descriptor = Descriptor(open(hidden.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (descriptor.Get() < 0 && errno != EEXIST) {
      hidden.clear();
      Fail("write");
    }
  }
}

AtomicFile::~AtomicFile() {
  if (!hidden.empty()) unlink(hidden.c_str());
}

void AtomicFile::WriteAt(int64_t offset, std::span<const char> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = pwrite(descriptor.Get(), bytes.data(), bytes.size(), offset);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) Fail("write");
    offset += written;
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
}

void AtomicFile::SetTime(int64_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  futimens(descriptor.Get(), times);
}

void AtomicFile::Commit() {
  if (fsync(descriptor.Get()) != 0) Fail("write");
  if (std::rename(hidden.c_str(), target.c_str()) != 0) Fail("replace");
  hidden.clear();
  std::filesystem::path folder = target.parent_path();
  if (folder.empty()) folder = ".";
  const Descriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // A folder that cannot be synced (some network file systems) does not undo the rename.
  if (directory.Get() >= 0) fsync(directory.Get());
}

void AtomicFile::Fail(const char* doing) const {
  const int error = errno;
  throw Failure(
      std::string("cannot ") + doing + " " + target.string() + ": " + std::strerror(error),
      AdviceFor(error));
}

}  // namespace host
