#include <cmath>
#include <stdexcept>

#include "bench/mount/row.h"

namespace bench {
namespace fs = std::filesystem;
namespace {

/// Seconds until a file that another machine makes is in the listing of an open folder.
double SecondsUntilSeen(Contender& contender, Service& service) {
  static int number = 0;
  const std::string name = "new" + std::to_string(++number);
  service.drive.Put("watched/" + name, "x");
  const double start = Now();
  Until("a new file is seen", 90, [&] {
    for (const fs::directory_entry& entry : fs::directory_iterator(contender.Root() / "watched"))
      if (entry.path().filename() == name) return true;
    return false;
  });
  return Now() - start;
}

std::vector<double> SeenByPoll(Contender& contender, Service& service) {
  contender.MountCold(contender.HasPush() ? Words{"--no-push", "--poll", "15"} : Words{});
  Run({"ls", (contender.Root() / "watched").string()});
  // The second one comes right after a poll.
  const double first = SecondsUntilSeen(contender, service);
  const double second = SecondsUntilSeen(contender, service);
  contender.Unmount();
  return {std::max(first, second)};
}

std::vector<double> SeenByPush(Contender& contender, Service& service) {
  constexpr int kFiles = 100;
  if (!contender.HasPush()) return {NAN};
  contender.MountCold({"--poll", "3600"});
  Run({"ls", (contender.Root() / "watched").string()});
  Until("the push service is heard", 10, [&] { return service.drive.PushConnections() > 0; });
  SecondsUntilSeen(contender, service);
  std::vector<double> times;
  for (int i = 0; i < kFiles; ++i) times.push_back(SecondsUntilSeen(contender, service));
  contender.Unmount();
  return {Percentile(times, 0.99) * 1000};
}

std::vector<double> Restart(Contender& contender, Service&) {
  contender.MountCold();
  Run({"find", (contender.Root() / "known").string()});
  contender.Unmount();
  const double start = Now();
  contender.Start();
  contender.Ready();
  const auto listed = std::distance(fs::directory_iterator(contender.Root() / "known" / "7"), {});
  const double took = Now() - start;
  contender.Unmount();
  if (listed != kKnownFiles) throw std::runtime_error("the listing is not whole");
  return {took};
}

}  // namespace

std::vector<Row> FollowingRows() {
  return {
      {"poll",
       {{"remote create seen, polling every 15 s", "s", {{Aim::kAtMost, 15}}}},
       SeenByPoll,
       true},
      {"push", {{"  by push, p99", "ms", {{Aim::kAtMost, 150}}}}, SeenByPush, true},
      {"restart",
       {{"restart to first listing, 100,000 items", "s", {{Aim::kAtMost, 0.5}}}},
       Restart},
  };
}

}  // namespace bench
