#include "host/cli/progress_bar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "host/cli/terminal.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kBetweenDraws{100};
constexpr double kSmoothing = 0.3;
constexpr char kEraseLine[] = "\r\x1b[K";

/// "0:07", "12:34", "1:02:03"
std::string Duration(double seconds) {
  const auto whole = static_cast<long long>(seconds + 0.5);
  char text[48];
  if (whole >= 3600)
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60,
                  whole % 60);
  else
    std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
  return text;
}

/// A bar of `width` columns, filled to an eighth of a column.
std::string Bar(double part, int width) {
  static const char* const kEighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
  const int eighths = static_cast<int>(part * width * 8);
  std::string bar;
  for (int i = 0; i < eighths / 8; ++i) bar += "█";
  bar += kEighths[eighths % 8];
  return PadRight(bar, width);
}

std::string Shortened(const std::string& text, int width) {
  if (DisplayWidth(text) <= width) return text;
  std::string head = text;
  while (!head.empty() && DisplayWidth(head) > width - 1) {
    // A whole character at a time: continuation bytes go with their first byte.
    while (head.size() > 1 && (static_cast<unsigned char>(head.back()) & 0xc0) == 0x80)
      head.pop_back();
    head.pop_back();
  }
  return head + "…";
}

}  // namespace

ProgressBar::ProgressBar(std::string shownLabel, int64_t totalBytes)
    : label(Printable(shownLabel)),
      total(totalBytes),
      visible(IsTerminal(STDERR_FILENO)),
      start(Clock::now()),
      drawn(start) {}

ProgressBar::~ProgressBar() {
  if (onScreen) std::fputs(kEraseLine, stderr);
}

void ProgressBar::Update(int64_t done) {
  const auto now = Clock::now();
  if (!visible || now - drawn < kBetweenDraws) return;
  const double seconds = std::chrono::duration<double>(now - drawn).count();
  const double current = static_cast<double>(std::max<int64_t>(done - drawnDone, 0)) / seconds;
  rate = rate == 0 ? current : rate + kSmoothing * (current - rate);
  drawn = now;
  drawnDone = done;
  Draw(done, now);
}

void ProgressBar::Draw(int64_t done, Clock::time_point) {
  const Paint paint(STDERR_FILENO);
  const double part = total > 0 ? std::min(1.0, static_cast<double>(done) / total) : 1.0;
  char percent[8];
  std::snprintf(percent, sizeof percent, "%3.0f%%", part * 100);
  std::string figures = std::string(percent) + "  " +
                        PadLeft(HumanBytes(done) + " of " + HumanBytes(total), 22) + "  " +
                        PadLeft(HumanBytes(static_cast<int64_t>(rate)) + "/s", 12);
  if (rate > 0) figures += "  " + PadLeft(Duration(static_cast<double>(total - done) / rate), 5);
  const int room = TerminalWidth(STDERR_FILENO) - DisplayWidth(figures) - 4;
  const int labelWidth = std::clamp(room / 2, 8, 32);
  const std::string line = PadRight(Shortened(label, labelWidth), labelWidth) + "  " +
                           paint.Cyan(Bar(part, std::clamp(room - labelWidth, 4, 40))) + " " +
                           figures;
  std::fputs((kEraseLine + line).c_str(), stderr);
  std::fflush(stderr);
  onScreen = true;
}

void ProgressBar::Finish(const std::string& verb) {
  if (!visible) return;
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::string line = kEraseLine + verb + " " + label + ", " + HumanBytes(total);
  if (seconds >= 0.05)
    line += " in " + Duration(seconds) + " (" +
            HumanBytes(static_cast<int64_t>(static_cast<double>(total) / seconds)) + "/s)";
  std::fputs((line + "\n").c_str(), stderr);
  onScreen = false;
}

}  // namespace host
