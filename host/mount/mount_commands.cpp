#include "host/mount/mount_commands.h"

#include <sys/stat.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>

#include "host/cli/progress_bar.h"
#include "host/cli/terminal.h"
#include "host/core/interrupt.h"
#include "host/core/json_text.h"
#include "host/mount/mount_client.h"
#include "host/mount/mount_point.h"
#include "host/mount/mount_process.h"
#include "host/mount/status_text.h"

namespace host {
namespace {

namespace fs = std::filesystem;
using mount::MountOptions;
using mount::Request;
using mount::RunningMount;

/// What the command line names: one profile, or all of them.
struct Chosen {
  Context& context;
  const CLI::Option* profile;

  std::vector<ProfilePaths> Profiles() const {
    return mount::ChosenProfiles(context, profile->count() > 0);
  }
  std::vector<RunningMount> Mounts() const { return mount::FindMounts(Profiles()); }
};

/// How far the uploads are that somebody waits for: a bar where there are bytes to send, else how
/// many changes are left; and once, what is in their way.
class DrainProgress {
 public:
  ~DrainProgress() { Clear(); }

  void Show(const Json::Value& progress) {
    int64_t left = progress["pendingBytes"].asInt64();
    for (const Json::Value& upload : progress["uploads"]) left -= upload["done"].asInt64();
    left = std::max<int64_t>(left, 0);
    Warn(progress["trouble"].asString());
    if (left > total) {
      Clear();
      total = left;
      bar = std::make_unique<ProgressBar>("Sending", total);
    }
    if (bar) return bar->Update(total - left);
    if (!IsTerminal(STDERR_FILENO)) return;
    std::fprintf(stderr, "\r\033[K%lld left to send",
                 static_cast<long long>(progress["pending"].asInt64()));
    std::fflush(stderr);
    line = true;
  }

 private:
  void Warn(const std::string& trouble) {
    if (trouble.empty() || trouble == warned) return;
    Clear();
    std::fprintf(stderr, "vormlane: still trying: %s\n", Printable(trouble).c_str());
    warned = trouble;
  }
  void Clear() {
    bar.reset();
    total = 0;
    if (line) std::fputs("\r\033[K", stderr);
    line = false;
  }

  std::unique_ptr<ProgressBar> bar;
  int64_t total = 0;  // bytes that the bar is of
  bool line = false;
  std::string warned;
};

void RunDrain(const Chosen& chosen) {
  const std::vector<RunningMount> mounts = chosen.Mounts();
  for (const RunningMount& running : mounts) {
    if (!running.Answers()) continue;
    DrainProgress shown;
    mount::Ask(running.paths, Request("drain"),
               [&](const Json::Value& progress) { shown.Show(progress); });
  }
  for (const RunningMount& running : mounts) running.RequireAnswer();
}

/// A mount whose host does not answer any more: killed while the kernel had it wait, or stuck.
void TakeAwayDeadMount(const fs::path& place) {
  if (!mount::TearDown(place))
    throw Failure("a dead mount at " + place.string() + " cannot be taken away",
                  "run `fusermount3 -uz` on it");
  std::fprintf(stderr, "vormlane: a dead mount at %s was taken away\n", place.c_str());
}

/// The mount at the folder, or the only one there is.
RunningMount MountToEnd(const Chosen& chosen, const fs::path& folder) {
  const std::vector<RunningMount> mounts = chosen.Mounts();
  if (folder.empty() && mounts.size() > 1)
    throw Failure("several profiles are mounted", "name the folder, see `vormlane status`");
  if (folder.empty()) return mounts[0];
  const mount::PlaceInMount place = mount::FindPlace(mounts, folder);
  if (place.below != ".")
    throw Failure("the mount is at " + place.mount.Folder().string(), "name that folder");
  return place.mount;
}

void RunUnmount(const Chosen& chosen, const fs::path& folder, bool now) {
  Json::Value request = Request("unmount");
  request["now"] = now;
  std::optional<RunningMount> running;
  try {
    running = MountToEnd(chosen, folder);
  } catch (const Failure&) {
    if (!now || folder.empty() || !mount::IsOwnMount(fs::absolute(folder))) throw;
    return TakeAwayDeadMount(fs::absolute(folder));
  }
  if (now && !running->Answers()) {
    if (mount::IsOwnMount(running->Folder())) TakeAwayDeadMount(running->Folder());
    return mount::MakeEnd(running->paths);
  }
  running->RequireAnswer();
  DrainProgress shown;
  const std::optional<Json::Value> last = mount::Ask(
      running->paths, request, [&](const Json::Value& progress) { shown.Show(progress); });
  mount::AwaitEnd(running->paths);
  if (last) mount::SayWhatIsLeft((*last)["pending"].asInt64());
}

void RunPin(const Chosen& chosen, const std::string& path, bool pinned) {
  const mount::PlaceInMount place = mount::FindPlace(chosen.Mounts(), path);
  place.mount.RequireAnswer();
  Json::Value request = Request(pinned ? "pin" : "unpin");
  request["path"] = place.below.string();
  mount::Ask(place.mount.paths, request);
}

std::string StatusOf(const Chosen& chosen, bool oneLine) {
  const std::vector<RunningMount> mounts = chosen.Mounts();
  for (const RunningMount& running : mounts)
    if (!running.Answers()) chosen.context.exitCode = 1;
  if (!chosen.context.json) {
    std::string text;
    for (const RunningMount& running : mounts)
      text += (text.empty() ? "" : "\n") + mount::StatusText(running.status, Paint(STDOUT_FILENO));
    return text;
  }
  Json::Value all;
  for (const RunningMount& running : mounts) all["mounts"].append(running.status);
  return oneLine ? CompactJson(all) + "\n" : PrettyJson(all);
}

void RunStatus(const Chosen& chosen, bool follow) {
  const InterruptWatch interrupts;
  const bool redraw = follow && !chosen.context.json && IsTerminal(STDOUT_FILENO);
  do Print((redraw ? "\033[H\033[2J" : "") + StatusOf(chosen, follow));
  while (follow && !InterruptWatch::WaitFor(1000));
}

constexpr double kLongestSeconds = 1e6;

/// "15s", "0.25s"
std::string Seconds(mount::Milliseconds time) {
  char text[32];
  std::snprintf(text, sizeof text, "%gs", static_cast<double>(time.count()) / 1000);
  return text;
}

void AddTimings(CLI::App* command, MountOptions& options) {
  const std::map<std::string, double> units = {
      {"ms", 0.001}, {"s", 1}, {"min", 60}, {"m", 60}, {"h", 3600}};
  const auto add = [&](const std::string& name, mount::Milliseconds& value, const std::string& text,
                       double least = 0) {
    command
        ->add_option_function<double>(
            name,
            [&value](double seconds) {
              value = mount::Milliseconds(static_cast<int64_t>(seconds * 1000));
            },
            text + " (default " + Seconds(value) + ")")
        ->transform(CLI::AsNumberWithUnit(units, CLI::AsNumberWithUnit::CASE_SENSITIVE))
        ->check(CLI::Range(least, kLongestSeconds))
        ->type_name("TIME");
  };
  add("--poll", options.settings.poll, "Time between two questions for changes", 0.01);
  add("--folder-age", options.settings.folderAge, "Look at folders again after");
  add("--patience", options.settings.patience, "Longest time a program waits for the service");
  add("--upload-delay", options.settings.uploadDelay, "Time from close to upload");
  add("--retry", options.settings.retryFirst, "First wait after a failed upload");
  add("--settle", options.settings.settle, "Wait before looking for the effect of a lost answer");
}

void AddMount(CLI::App& app, Context& context) {
  CLI::App* command = app.add_subcommand("mount", "Show the drive as a folder");
  auto options = std::make_shared<MountOptions>();
  command->add_option("DIR", options->folder, "An empty folder")->required();
  command->add_flag("--read-only", options->settings.readOnly, "Refuse every change");
  command->add_flag("--foreground", options->foreground, "Do not go to the background");
  command->add_flag("--allow-other", options->settings.allowOther, "Let other users in");
  command
      ->add_option("--cache-size", options->settings.cacheLimit,
                   "Room for files that can be fetched again (default 10G)")
      ->transform(CLI::AsSizeValue(false))
      ->type_name("BYTES");
  command->add_option("--uploads", options->settings.uploads, "Uploads at once")
      ->check(CLI::Range(1, 64))
      ->capture_default_str();
  AddTimings(command, *options);
  command->add_flag("!--no-push", options->push, "Poll only, even with a push service");
  command
      ->add_option_function<std::string>(
          "--fsync",
          [options](const std::string& where) {
            options->settings.fsyncRemote = where == "remote";
          },
          "What fsync waits for: the local disk or the service")
      ->check(CLI::IsMember({"local", "remote"}));
  command
      ->add_option_function<std::string>(
          "--documents",
          [options](const std::string& kind) {
            options->settings.desktopLinks = kind == "desktop";
          },
          "How Google documents are shown")
      ->check(CLI::IsMember({"webloc", "desktop"}));
  command->callback([&context, options] {
    options->folder = fs::absolute(options->folder).lexically_normal();
    if (!options->folder.has_filename()) options->folder = options->folder.parent_path();
    options->folder = mount::Resolved(options->folder);
    mount::RunMount(context, *options);
  });
}

}  // namespace

void AddMountCommands(CLI::App& app, Context& context) {
  AddMount(app, context);

  const Chosen chosen{context, app.get_option("--profile")};

  CLI::App* unmount = app.add_subcommand("unmount", "Send what is left and take the folder away");
  auto folder = std::make_shared<fs::path>();
  auto now = std::make_shared<bool>(false);
  unmount->add_option("DIR", *folder, "The mounted folder");
  unmount->add_flag("--now", *now, "Do not wait: what is left is sent after the next mount");
  unmount->callback([chosen, folder, now] { RunUnmount(chosen, *folder, *now); });

  CLI::App* drain = app.add_subcommand("drain", "Wait until every change is on the service");
  drain->callback([chosen] { RunDrain(chosen); });

  CLI::App* status = app.add_subcommand("status", "What the mounts are doing");
  auto follow = std::make_shared<bool>(false);
  status->add_flag("--follow", *follow, "Again every second");
  status->callback([chosen, follow] { RunStatus(chosen, *follow); });

  CLI::App* pin = app.add_subcommand("pin", "Keep a file or folder on this machine");
  auto path = std::make_shared<std::string>();
  auto remove = std::make_shared<bool>(false);
  pin->add_option("PATH", *path, "A path below a mount")->required();
  pin->add_flag("--remove", *remove, "Keep it no longer");
  pin->callback([chosen, path, remove] { RunPin(chosen, *path, !*remove); });
}

}  // namespace host
