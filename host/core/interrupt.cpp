#include "host/core/interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <utility>

#include "host/core/failure.h"

namespace host {
namespace {

constexpr std::array<int, 3> kSignals = {SIGINT, SIGTERM, SIGHUP};

// What the signal handler touches: lock-free atomics and a pipe only.
std::atomic<bool> noted{false};
std::atomic<std::atomic<int32_t>*> abandoned{nullptr};
std::atomic<int> wakeWriter{-1};
int wakeReader = -1;

void Note(int) {
  const int savedErrno = errno;
  noted = true;
  if (auto* status = abandoned.load()) *status = 3;
  const int writer = wakeWriter.load();
  if (writer >= 0) {
    const char byte = 0;
    [[maybe_unused]] const ssize_t ignored = write(writer, &byte, 1);
  }
  errno = savedErrno;
}

void OpenPipeOnce() {
  int ends[2];
  if (wakeReader >= 0 || pipe(ends) != 0) return;
  for (const int end : ends) {
    fcntl(end, F_SETFD, FD_CLOEXEC);
    fcntl(end, F_SETFL, O_NONBLOCK);
  }
  wakeReader = ends[0];
  wakeWriter = ends[1];
}

}  // namespace

InterruptWatch::InterruptWatch(std::shared_ptr<_FS_HANDLE> openFile) : handle(std::move(openFile)) {
  OpenPipeOnce();
  noted = false;
  abandoned = handle ? &handle->status : nullptr;
  struct sigaction action {};
  action.sa_handler = Note;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &action, &before[i]);
}

InterruptWatch::~InterruptWatch() {
  for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &before[i], nullptr);
  abandoned = nullptr;
  char drained[16];
  while (wakeReader >= 0 && read(wakeReader, drained, sizeof drained) > 0) {
  }
}

bool InterruptWatch::Interrupted() { return noted; }

bool InterruptWatch::WaitFor(int milliseconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
  while (!noted) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) break;
    pollfd entry{wakeReader, POLLIN, 0};
    poll(&entry, 1, static_cast<int>(left.count()));
  }
  return noted;
}

void InterruptWatch::ThrowIfInterrupted(const std::string& what) {
  if (noted) throw Failure(what + " was stopped; nothing is left of it", {}, AERROR::CANCEL);
}

}  // namespace host
