// Clocks, medians of interleaved repeats, and the bare means that the library is held against.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>
#include <vector>

namespace bench {

constexpr long long kMiB = 1 << 20;
constexpr int kRepeats = 15;

double WallSeconds();
/// CPU time of the calling thread, in user and kernel.
double CpuSeconds();
/// CPU time of all threads but the calling one.
double OthersCpuSeconds();

template <class Work>
double Took(double (*clock)(), Work&& work) {
  const double start = clock();
  work();
  return clock() - start;
}

double Median(std::vector<double> values);

struct Pair {
  double bare, library;  ///< medians, seconds
};

template <class Bare, class Library>
Pair Compare(double (*clock)(), int repeats, Bare&& bare, Library&& library) {
  bare();  // connections and buffers are there from the second time on
  library();
  std::vector<double> bareTimes, libraryTimes;
  for (int i = 0; i < repeats; ++i) {
    bareTimes.push_back(Took(clock, bare));
    libraryTimes.push_back(Took(clock, library));
  }
  return {Median(bareTimes), Median(libraryTimes)};
}

/// Keeps this thread, and those that it starts from here on, to the first processor or to the
/// others: where the scheduler puts the two ends of a connection decides what a wake-up costs, and
/// must be the same for both sides of a comparison.
enum class Place { kFirst, kOthers, kAnywhere };
void Stay(Place place);

/// Prints a figure and remembers when it misses its aim.
void Report(const char* what, const char* unit, double value, const char* relation, double aim);
bool AllMet();

/// Ends the program when something failed that a figure rests on.
void Require(bool condition, const char* what);

struct EasyFree {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
using Easy = std::unique_ptr<CURL, EasyFree>;

/// A handle that throws away what it receives.
Easy BareHandle(const std::string& url);

}  // namespace bench
