#include "host/core/host_log.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <cstdio>
#include <string_view>
#include <utility>
#include <vector>

#include "host/core/failure.h"

namespace host {
namespace {

constexpr size_t kMaximumFileBytes = 10u << 20;
constexpr size_t kOldFiles = 3;

thread_local std::string lastError;
thread_local std::string lastStatus;

spdlog::level::level_enum Level(LOGLEVEL level) {
  switch (level) {
    case kLogDetail:
      return spdlog::level::debug;
    case kLogError:
      return spdlog::level::err;
    default:
      return spdlog::level::info;
  }
}

std::string Format(const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length < 0) return {};
  std::vector<char> buffer(static_cast<size_t>(length) + 1);
  std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
  return std::string(buffer.data(), static_cast<size_t>(length));
}

/// Header lines reach a verbose log, and one of them carries the key to the account.
void HideTokens(std::string& line) {
  constexpr std::string_view kName = "uthorization: ";
  for (size_t at = line.find(kName); at != std::string::npos; at = line.find(kName, at)) {
    at += kName.size();
    const size_t end = std::min(line.find_first_of("\r\n", at), line.size());
    line.replace(at, end - at, "(hidden)");
  }
}

/// What stands after the last ">> " of a line such as "[PROTOCOL  ] Read >> HTTP 404".
std::string Reason(const std::string& line) {
  const size_t arrow = line.rfind(">> ");
  return arrow == std::string::npos ? line : line.substr(arrow + 3);
}

/// The status in a request's summary, "NAME >> https GET >> 403 : URL(12) - 5ms", else nothing.
std::string StatusIn(const std::string& line) {
  const size_t colon = line.find(" : ");
  if (colon == std::string::npos) return {};
  const size_t arrow = line.rfind(">> ", colon);
  if (arrow == std::string::npos) return {};
  const std::string status = line.substr(arrow + 3, colon - arrow - 3);
  return status.find_first_not_of("0123456789") == std::string::npos ? status : std::string();
}

void NoteForCaller(LOGLEVEL level, const std::string& line) {
  if (level == kLogInformation) {
    std::string status = StatusIn(line);
    if (!status.empty()) lastStatus = std::move(status);
  }
  if (level != kLogError) return;
  lastError = Reason(line);
  // An answer that has a handler of its own: what became of it is for the log.
  if (lastError.rfind("ON HTTP", 0) == 0 && !lastStatus.empty()) lastError = "HTTP " + lastStatus;
  // The last line of a request given up on does not say what it was answered.
  if (lastError == "No more backoff" && !lastStatus.empty())
    lastError = "HTTP " + lastStatus + " again and again";
}

}  // namespace

HostLog::HostLog(bool wantDetails, const std::filesystem::path& file) : verbose(wantDetails) {
  spdlog::sink_ptr sink;
  if (!file.empty()) {
    try {
      sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(file.string(),
                                                                    kMaximumFileBytes, kOldFiles);
    } catch (const spdlog::spdlog_ex&) {
      throw Failure("cannot write the log file " + file.string(),
                    "choose a file that you may write to");
    }
  } else if (verbose) {
    sink = std::make_shared<spdlog::sinks::stderr_color_sink_mt>();
  } else {
    return;
  }
  out = std::make_shared<spdlog::logger>("vormlane", std::move(sink));
  out->set_level(verbose ? spdlog::level::debug : spdlog::level::info);
  out->flush_on(spdlog::level::err);
  out->set_pattern("%Y-%m-%d %H:%M:%S.%e %^%-5!l%$ %t %v");
}

HostLog::~HostLog() {
  if (out) out->flush();
}

void HostLog::Detail(const std::string& line) {
  if (out) out->debug("{}", line);
}

void HostLog::Information(const std::string& line) {
  if (out) out->info("{}", line);
}

void HostLog::Error(const std::string& line) {
  if (out) out->error("{}", line);
}

std::string HostLog::TakeLastError() {
  lastStatus.clear();
  return std::exchange(lastError, std::string());
}

void HostLog::Write(LOGLEVEL level, const char* format, va_list arguments) {
  // Called from inside the plug-in: whatever goes wrong while logging ends here.
  try {
    std::string line = Format(format, arguments);
    NoteForCaller(level, line);
    if (!out) return;
    HideTokens(line);
    out->log(Level(level), "{}", line);
  } catch (...) {
  }
}

}  // namespace host
