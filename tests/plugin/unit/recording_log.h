// A host logger that keeps its lines, bound for the life of the object.
#pragma once

#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "net/logging.h"

class RecordingLog final : public ILog {
 public:
  explicit RecordingLog(bool wantsVerbose = false) : verbose(wantsVerbose) { SetLogger(this); }
  ~RecordingLog() { SetLogger(nullptr); }
  RecordingLog(const RecordingLog&) = delete;
  RecordingLog& operator=(const RecordingLog&) = delete;

  void Reserved0() override {}
  bool IsVerbose() override { return verbose; }
  void Write(LOGLEVEL level, const char* format, va_list arguments) override {
    va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, format, again)), '\0');
    va_end(again);
    vsnprintf(text.data(), text.size() + 1, format, arguments);
    {
      const std::lock_guard guard(mutex);
      lines.push_back(std::to_string(level) + " " + text);
    }
    if (onWrite) onWrite();
  }

  /// Each as "level text".
  std::vector<std::string> Lines() const {
    const std::lock_guard guard(mutex);
    return lines;
  }

  std::function<void()> onWrite;

 private:
  const bool verbose;
  mutable std::mutex mutex;
  std::vector<std::string> lines;
};
