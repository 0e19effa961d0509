#include "host/mount/mount_commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>

#include "host/cli/progress_bar.h"
#include "host/cli/terminal.h"
#include "host/core/interrupt.h"
#include "host/core/json_text.h"
#include "host/mount/mount_point.h"
#include "host/mount/mount_process.h"
#include "host/mount/mount_service.h"

namespace host {
namespace {

namespace fs = std::filesystem;
using mount::AskMount;
using mount::MountOptions;
using mount::SocketOf;

Json::Value Request(const std::string& command) {
  Json::Value request;
  request["command"] = command;
  return request;
}

[[noreturn]] void NothingMounted(const Context& context) {
  throw Failure("the profile \"" + context.profileName + "\" is not mounted",
                "mount it with `vormlane mount DIR`");
}

/// The last answer; nothing when there is no mount. Throws when it says that it failed.
std::optional<Json::Value> AskIfMounted(
    const Context& context, const Json::Value& request,
    const std::function<void(const Json::Value&)>& progress = nullptr) {
  Json::Value last;
  const bool done = AskMount(SocketOf(context.Paths()), request, [&](const Json::Value& answer) {
    last = answer;
    if (progress && !answer.isMember("done")) progress(answer);
  });
  if (!done && last.isNull()) return std::nullopt;
  if (!done) throw Failure("the mount has ended", "look at `vormlane status`");
  if (last.isMember("error"))
    throw Failure(request["command"].asString() + ": " + last["error"].asString());
  return last;
}

Json::Value Ask(const Context& context, const Json::Value& request,
                const std::function<void(const Json::Value&)>& progress = nullptr) {
  const std::optional<Json::Value> last = AskIfMounted(context, request, progress);
  if (!last) NothingMounted(context);
  return *last;
}

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
    std::fprintf(stderr, "\r\033[K%s changes to send",
                 std::to_string(progress["pending"].asInt64()).c_str());
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

void RunDrain(Context& context) {
  DrainProgress shown;
  Ask(context, Request("drain"), [&](const Json::Value& progress) { shown.Show(progress); });
}

void CheckFolder(const fs::path& given, const fs::path& mounted) {
  if (!given.empty() && fs::absolute(given).lexically_normal() != mounted)
    throw Failure("the profile is mounted at " + mounted.string() + ", not at " + given.string(),
                  "name that folder");
}

/// A mount whose host does not answer any more: killed while the kernel had it wait, or stuck.
bool TakeAwayDeadMount(const fs::path& folder) {
  const fs::path place = fs::absolute(folder).lexically_normal();
  if (folder.empty() || !mount::IsOwnMount(place)) return false;
  if (!mount::TearDown(place))
    throw Failure("a dead mount at " + place.string() + " cannot be taken away",
                  "run `fusermount3 -uz` on it");
  std::fprintf(stderr, "vormlane: a dead mount at %s was taken away\n", place.c_str());
  return true;
}

void RunUnmount(Context& context, const fs::path& folder, bool now) {
  Json::Value request = Request("unmount");
  request["now"] = now;
  std::optional<Json::Value> status;
  try {
    status = AskIfMounted(context, Request("status"));
  } catch (const Failure&) {
    if (!now) throw;
  }
  if (!status) {
    if (now && TakeAwayDeadMount(folder)) return;
    NothingMounted(context);
  }
  CheckFolder(folder, (*status)["mount"].asString());
  DrainProgress shown;
  const Json::Value last =
      Ask(context, request, [&](const Json::Value& progress) { shown.Show(progress); });
  mount::AwaitEnd(context.Paths());
  mount::SayWhatIsLeft(last["pending"].asInt64());
}

void RunPin(Context& context, const std::string& given, bool pinned) {
  const fs::path mounted = Ask(context, Request("status"))["mount"].asString();
  const fs::path path = fs::absolute(given).lexically_normal();
  const fs::path below = path.lexically_relative(mounted);
  if (below.empty() || below.begin()->string() == "..")
    throw Failure("\"" + given + "\" is not below the mount at " + mounted.string(),
                  "name a file or folder there");
  Json::Value request = Request(pinned ? "pin" : "unpin");
  request["path"] = below.string();
  Ask(context, request);
}

std::string TransferLines(const Json::Value& transfers) {
  std::string text;
  for (const Json::Value& transfer : transfers) {
    const int64_t bytes = std::max<int64_t>(transfer["bytes"].asInt64(), 1);
    text += "  " + PadLeft(std::to_string(transfer["done"].asInt64() * 100 / bytes) + " %", 6) +
            "  " + Printable(transfer["name"].asString()) + "  (" + HumanBytes(bytes) + ")\n";
  }
  return text;
}

std::string Rate(const Json::Value& bytesPerSecond) {
  return bytesPerSecond.asInt64() == 0 ? "" : " (" + HumanBytes(bytesPerSecond.asInt64()) + "/s)";
}

std::string WaitingLines(const Json::Value& status, const Paint& paint) {
  std::string text;
  for (const Json::Value& row : status["waiting"]) {
    text += "  " + PadRight(row["what"].asString(), 14) + Printable(row["name"].asString());
    if (row.isMember("error")) text += "  " + paint.Yellow(Printable(row["error"].asString()));
    text += "\n";
  }
  return text;
}

std::string StatusText(const Json::Value& status, const Paint& paint) {
  const Json::Value& cache = status["cache"];
  std::string text = paint.Bold(status["mount"].asString()) +
                     (status["connected"].asBool() ? "" : paint.Yellow("  (offline)")) + "\n";
  text += "  to send        " + std::to_string(status["pending"].asInt64()) + " changes, " +
          HumanBytes(cache["pendingBytes"].asInt64()) + "\n";
  text += "  cache          " + HumanBytes(cache["bytes"].asInt64()) + " of " +
          HumanBytes(cache["limit"].asInt64()) + "\n";
  text += "  known items    " + std::to_string(status["items"].asInt64()) + "\n";
  text += "  transferred    " + HumanBytes(status["bytesDown"].asInt64()) + " down" +
          Rate(status["bytesDownPerSecond"]) + ", " + HumanBytes(status["bytesUp"].asInt64()) +
          " up" + Rate(status["bytesUpPerSecond"]) + "\n";
  if (!status["uploads"].empty()) text += "sending\n" + TransferLines(status["uploads"]);
  if (!status["downloads"].empty()) text += "fetching\n" + TransferLines(status["downloads"]);
  if (!status["waiting"].empty()) text += "waiting\n" + WaitingLines(status, paint);
  if (!status["events"].empty()) text += "lately\n";
  for (const Json::Value& event : status["events"])
    text += "  " + paint.Faint(event["time"].asString()) + "  " +
            Printable(event["text"].asString()) + "\n";
  return text;
}

void RunStatus(Context& context, bool follow) {
  const Paint paint(STDOUT_FILENO);
  const InterruptWatch interrupts;
  do {
    Json::Value status = Ask(context, Request("status"));
    status.removeMember("done");
    const bool redraw = follow && !context.json && IsTerminal(STDOUT_FILENO);
    Print((redraw ? "\033[H\033[2J" : "") +
          (context.json ? (follow ? CompactJson(status) + "\n" : PrettyJson(status))
                        : StatusText(status, paint)));
  } while (follow && !InterruptWatch::WaitFor(1000));
}

void AddTimings(CLI::App* command, MountOptions& options) {
  const auto add = [&](const std::string& name, mount::Milliseconds& value,
                       const std::string& text) {
    command
        ->add_option_function<double>(
            name,
            [&value](double seconds) {
              value = mount::Milliseconds(static_cast<int64_t>(seconds * 1000));
            },
            text + " (default " + std::to_string(value.count() / 1000) + ")")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber);
  };
  add("--poll", options.settings.poll, "Time between two questions for changes");
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
    mount::RunMount(context, *options);
  });
}

}  // namespace

void AddMountCommands(CLI::App& app, Context& context) {
  AddMount(app, context);

  CLI::App* unmount = app.add_subcommand("unmount", "Send what is left and take the folder away");
  auto folder = std::make_shared<fs::path>();
  auto now = std::make_shared<bool>(false);
  unmount->add_option("DIR", *folder, "The mounted folder");
  unmount->add_flag("--now", *now, "Do not wait: what is left is sent after the next mount");
  unmount->callback([&context, folder, now] { RunUnmount(context, *folder, *now); });

  CLI::App* drain = app.add_subcommand("drain", "Wait until every change is on the service");
  drain->callback([&context] { RunDrain(context); });

  CLI::App* status = app.add_subcommand("status", "What the mount is doing");
  auto follow = std::make_shared<bool>(false);
  status->add_flag("--follow", *follow, "Again every second");
  status->callback([&context, follow] { RunStatus(context, *follow); });

  CLI::App* pin = app.add_subcommand("pin", "Keep a file or folder on this machine");
  auto path = std::make_shared<std::string>();
  auto remove = std::make_shared<bool>(false);
  pin->add_option("PATH", *path, "A path below the mount")->required();
  pin->add_flag("--remove", *remove, "Keep it no longer");
  pin->callback([&context, path, remove] { RunPin(context, *path, !*remove); });
}

}  // namespace host
