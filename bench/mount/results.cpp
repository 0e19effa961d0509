#include "bench/mount/results.h"

#include <cmath>
#include <cstdio>
#include <sstream>

namespace bench {

double Result::Of(const std::string& contender) const {
  const auto at = values.find(contender);
  if (at == values.end()) return NAN;
  std::vector<double> known = at->second;
  std::erase_if(known, [](double value) { return std::isnan(value); });
  return Median(known);
}

double Result::Ratio() const {
  const double ours = Of("vormlane");
  const double theirs = Of("rclone");
  return figure.moreIsBetter ? ours / theirs : theirs / ours;
}

Result::Verdict Result::Judge() const {
  const double ours = Of("vormlane");
  Verdict verdict = Verdict::kNone;
  for (const Aim& aim : figure.aims) {
    const double value = aim.kind == Aim::kTimesBetter ? Ratio() : ours;
    if (std::isnan(value)) continue;
    const bool met = aim.kind == Aim::kAtMost ? value <= aim.value : value >= aim.value;
    if (!met) return Verdict::kMissed;
    verdict = Verdict::kMet;
  }
  return verdict;
}

std::string NumberText(double value, const std::string& unit) {
  if (std::isnan(value)) return "-";
  std::ostringstream text;
  text.setf(std::ios::fixed);
  text.precision(unit.empty() || value >= 100 ? 0 : value >= 10 ? 1 : 2);
  text << value << (unit.empty() ? "" : " ") << unit;
  return text.str();
}

std::string Result::AimText() const {
  std::string text;
  for (const Aim& aim : figure.aims) {
    if (!text.empty()) text += ", ";
    if (aim.kind == Aim::kTimesBetter)
      text += ">= " + NumberText(aim.value, "x") + " better";
    else
      text += (aim.kind == Aim::kAtMost ? "<= " : ">= ") + NumberText(aim.value, figure.unit);
  }
  return text;
}

void PrintHeading() {
  std::printf("%-42s %12s %12s %9s  %s\n", "50 ms a request, 1 Gbit/s", "vormlane", "rclone",
              "better", "aim");
}

void Print(const Result& result) {
  static const std::map<Result::Verdict, const char*> kWords = {
      {Result::Verdict::kNone, ""},
      {Result::Verdict::kMet, "  met"},
      {Result::Verdict::kMissed, "  MISSED"}};
  const std::string& unit = result.figure.unit;
  std::printf("%-42s %12s %12s %9s  %s%s\n", result.figure.text.c_str(),
              NumberText(result.Of("vormlane"), unit).c_str(),
              NumberText(result.Of("rclone"), unit).c_str(),
              NumberText(result.Ratio(), "x").c_str(), result.AimText().c_str(),
              kWords.at(result.Judge()));
  std::fflush(stdout);
}

}  // namespace bench
