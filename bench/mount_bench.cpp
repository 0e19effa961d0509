// A mounted drive beside the mount that most people use today: the same emulator, the same round
// trip and bandwidth, one run, medians over interleaved repeats.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <set>

#include "bench/mount/private_network.h"
#include "bench/mount/results.h"

namespace {

using namespace bench;

struct Arguments {
  std::string only;
  std::vector<std::string> rows;
  int repeats = 3;
  std::filesystem::path plot;
};

std::vector<Row> AllRows() {
  std::vector<Row> rows = ReadingRows();
  for (const auto& more : {WritingRows(), FollowingRows()})
    rows.insert(rows.end(), more.begin(), more.end());
  return rows;
}

std::vector<std::string> Names(const std::vector<Row>& rows) {
  std::vector<std::string> names;
  for (const Row& row : rows) names.push_back(row.name);
  return names;
}

/// Why rclone cannot be measured; empty when it can.
std::string WhyNoRclone(const std::string& noNetwork) {
  if (!noNetwork.empty()) return noNetwork;
  return access("/usr/bin/rclone", X_OK) == 0 ? "" : "it is not installed";
}

void Measure(const Row& row, Contender& contender, Service& service, std::vector<Result>& results) {
  const std::vector<double> values = row.measure(contender, service);
  for (size_t i = 0; i < results.size(); ++i)
    results[i].values[contender.Name()].push_back(values[i]);
}

std::vector<Result> MeasureAll(const Row& row, int repeats, Service& service,
                               const std::vector<std::unique_ptr<Contender>>& contenders) {
  std::vector<Result> results;
  for (const Figure& figure : row.figures) results.push_back({figure, {}});
  for (int i = 0; i < (row.once ? 1 : repeats); ++i)
    for (const auto& contender : contenders) Measure(row, *contender, service, results);
  return results;
}

Result PeakMemory(const std::vector<std::unique_ptr<Contender>>& contenders) {
  Result result{{"peak memory in these", "MiB", {{Aim::kAtMost, 200}}}, {}};
  for (const auto& contender : contenders)
    result.values[contender->Name()].push_back(static_cast<double>(contender->PeakMemory()) /
                                               static_cast<double>(kMiB));
  return result;
}

int RunAll(const Arguments& arguments) {
  const host::TemporaryDirectory directory("vormlane-bench-");
  const std::string noNetwork = EnterPrivateNetwork(directory.Path());
  const std::string noRclone = WhyNoRclone(noNetwork);
  const std::filesystem::path tls = directory.Path() / "tls";
  Service service(noNetwork.empty() ? tls : "");
  if (noNetwork.empty()) LayOver(tls / "ca.pem", host::CertificateBundle());
  std::vector<std::unique_ptr<Contender>> contenders;
  if (arguments.only != "rclone") contenders.push_back(std::make_unique<Vormlane>(service));
  if (arguments.only != "vormlane" && noRclone.empty())
    contenders.push_back(std::make_unique<Rclone>(service, tls / "ca.pem"));
  if (!noRclone.empty()) std::printf("rclone is left out: %s\n", noRclone.c_str());

  const std::set<std::string> wanted(arguments.rows.begin(), arguments.rows.end());
  std::vector<Result> results;
  PrintHeading();
  const auto take = [&results](const Result& result) {
    Print(result);
    results.push_back(result);
  };
  for (const Row& row : AllRows()) {
    if (!wanted.empty() && wanted.count(row.name) == 0) continue;
    for (const Result& result : MeasureAll(row, arguments.repeats, service, contenders))
      take(result);
  }
  take(PeakMemory(contenders));
  WritePlot(results, arguments.plot);
  std::printf("\nplot: %s\n", arguments.plot.c_str());
  return std::any_of(
             results.begin(), results.end(),
             [](const Result& result) { return result.Judge() == Result::Verdict::kMissed; })
             ? 1
             : 0;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  arguments.plot = host::ExecutablePath().parent_path().parent_path().parent_path() / "mount.svg";
  CLI::App app("The speed of a mounted drive.");
  app.add_option("--only", arguments.only, "measure one of the two")
      ->check(CLI::IsMember({"vormlane", "rclone"}));
  app.add_option("--rows", arguments.rows, "measure these rows")
      ->delimiter(',')
      ->check(CLI::IsMember(Names(AllRows())));
  app.add_option("--repeats", arguments.repeats, "of rows that do not take minutes")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--plot", arguments.plot, "where the picture goes")->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  if (access("/dev/fuse", R_OK | W_OK) != 0) {
    std::printf("SKIPPED: /dev/fuse cannot be used here\n");
    return 0;
  }
  try {
    return RunAll(arguments);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "mount_bench: %s\n", failure.what());
    return 2;
  }
}
