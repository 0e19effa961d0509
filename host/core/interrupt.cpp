#include "host/core/interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
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
int watches = 0;

void Note(int) {
  const int savedErrno = errno;
  noted = true;
  if (auto* status = abandoned.load()) *status = 3;
  InterruptWatch::Wake();
  errno = savedErrno;
}

void Drain() {
  char bytes[64];
  while (wakeReader >= 0 && read(wakeReader, bytes, sizeof bytes) > 0) {
  }
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
  // What an outer watch has noted stays noted.
  if (watches++ == 0) noted = false;
  if (noted && handle) handle->status = 3;
  abandoned = handle ? &handle->status : nullptr;
  struct sigaction action {};
  action.sa_handler = Note;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &action, &before[i]);
}

InterruptWatch::~InterruptWatch() {
  for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &before[i], nullptr);
  abandoned = nullptr;
  --watches;
  Drain();
}

bool InterruptWatch::Interrupted() { return noted; }

bool InterruptWatch::WaitFor(int milliseconds) {
  pollfd entry{wakeReader, POLLIN, 0};
  if (!noted) poll(&entry, 1, milliseconds);
  Drain();
  return noted;
}

void InterruptWatch::Wake() {
  const int writer = wakeWriter.load();
  const char byte = 0;
  if (writer < 0) return;
  // A full pipe holds a wake-up already.
  [[maybe_unused]] const ssize_t ignored = write(writer, &byte, 1);
}

void InterruptWatch::ThrowIfInterrupted(const std::string& what) {
  if (noted) throw Failure(what + " was stopped; nothing is left of it", {}, AERROR::CANCEL);
}

}  // namespace host
