// What is measured, and what is hoped for.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/mount/contender.h"

namespace bench {

struct Aim {
  enum Kind {
    kAtMost,
    kAtLeast,
    kTimesBetter,  ///< than rclone, by this factor at least
  };
  Kind kind = kAtMost;
  double value = 0;
};

/// One number of a row.
struct Figure {
  std::string text, unit;
  std::vector<Aim> aims;
  bool moreIsBetter = false;
};

struct Row {
  std::string name;  ///< for --rows
  std::vector<Figure> figures;
  /// Mounts cold, works, unmounts; the figures' values in their order, NAN for what it cannot do.
  std::function<std::vector<double>(Contender&, Service&)> measure;
  bool once = false;  ///< takes minutes, or is a median in itself
};

std::vector<Row> ReadingRows();
std::vector<Row> WritingRows();
std::vector<Row> FollowingRows();

double Median(std::vector<double> values);
/// `share` of the values are not larger.
double Percentile(std::vector<double> values, double share);

}  // namespace bench
