// The values of all rows, as a table and as a picture.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "bench/mount/row.h"

namespace bench {

/// One figure, with the values of every contender that was measured.
struct Result {
  Figure figure;
  std::map<std::string, std::vector<double>> values;

  double Of(const std::string& contender) const;  ///< median; NAN: none
  /// How many times better vormlane is than rclone; NAN when one of them is missing.
  double Ratio() const;
  enum class Verdict { kNone, kMet, kMissed };
  Verdict Judge() const;
  std::string AimText() const;
};

std::string NumberText(double value, const std::string& unit);

void PrintHeading();
void Print(const Result& result);
/// An SVG picture: how many times better, on a logarithmic scale. Throws std::runtime_error.
void WritePlot(const std::vector<Result>& results, const std::filesystem::path& file);

}  // namespace bench
