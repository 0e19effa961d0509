// watch
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <limits>
#include <mutex>
#include <utility>

#include "host/cli/commands.h"
#include "host/cli/terminal.h"
#include "host/core/interrupt.h"
#include "host/core/json_text.h"
#include "host/core/path_finder.h"
#include "host/core/sinks.h"
#include "host/core/time_text.h"

namespace host {
namespace {

struct WatchOptions {
  int interval = 15;  // seconds between polls
  int count = 0;      // changes after which to end; 0: never
  int seconds = 0;    // time after which to end; 0: never
  bool once = false;
  bool push = true;
};

/// Ids from the poll and from the push thread, for the one thread that prints.
class ChangedFolders {
 public:
  void Add(const std::string& id) {
    {
      std::lock_guard lock(mutex);
      if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
    }
    InterruptWatch::Wake();
  }
  std::deque<std::string> Take() {
    std::lock_guard lock(mutex);
    return std::exchange(ids, {});
  }

 private:
  std::mutex mutex;
  std::deque<std::string> ids;  // guarded by mutex
};

bool HasPushService(const ProfileStore& profile) {
  for (const char* key : {"user_token", "api_server_url", "drive_id", "device_id"})
    if (!profile.Value(key)) return false;
  return true;
}

/// True when changes will be pushed. A push service that is not there is no reason to stop:
/// polling finds the same changes later.
bool StartPush(Session& session, ChangeSink& sink) {
  HostLog::TakeLastError();
  const AERROR code = session.Drive().SetChangesCallback(&sink);
  if (code == AERROR::SUCCESS) return true;
  session.Log().Error(session.Failed("no pushed changes", code).what());
  return false;
}

void PrintChange(const Context& context, const std::string& id,
                 const std::optional<DrivePath>& path) {
  const std::string now = FormatRfc3339(NowMilliseconds());
  if (context.json) {
    Json::Value json;
    json["time"] = now;
    json["id"] = id;
    json["folder"] = path ? Json::Value(path->Text()) : Json::Value();
    return Print(CompactJson(json) + "\n");
  }
  const Paint paint(STDOUT_FILENO);
  Print(paint.Faint(ShortTime(now)) + "  " +
        (path ? Printable(path->Text()) : "id:" + id + " (not visible any more)") + "\n");
}

void Follow(Context& context, const WatchOptions& options, ChangedFolders& changed,
            ChangeSink& sink) {
  Session& session = context.Connected();
  PathFinder finder(session);
  const bool pushed = options.push && HasPushService(session.Profile()) && StartPush(session, sink);
  if (IsTerminal(STDERR_FILENO) && !options.once)
    std::fprintf(stderr, "watching, polling every %d s%s; Ctrl-C ends it\n", options.interval,
                 pushed ? " and by push" : "");
  const int64_t end = options.seconds > 0 ? NowMilliseconds() + options.seconds * int64_t{1000}
                                          : std::numeric_limits<int64_t>::max();
  int printed = 0;
  while (!InterruptWatch::Interrupted() && NowMilliseconds() < end) {
    session.Drive().GetChanges(&sink, nullptr);
    // Pushed changes come between two polls and are shown without another one.
    const int64_t next = std::min(end, NowMilliseconds() + options.interval * int64_t{1000});
    do {
      for (const std::string& id : changed.Take()) {
        PrintChange(context, id, finder.PathOf(id));
        if (options.count > 0 && ++printed >= options.count) return;
      }
      if (options.once) return;
      InterruptWatch::WaitFor(static_cast<int>(std::max<int64_t>(next - NowMilliseconds(), 0)));
    } while (!InterruptWatch::Interrupted() && NowMilliseconds() < next);
  }
}

void RunWatch(Context& context, const WatchOptions& options) {
  ChangedFolders changed;
  ChangeSink sink([&](const std::string& id) { changed.Add(id); });
  // The module keeps the sink until its drive is released.
  struct CloseFirst {
    Context& context;
    ~CloseFirst() { context.Close(); }
  } const close{context};
  const InterruptWatch interrupts;
  Follow(context, options, changed, sink);
}

}  // namespace

void AddWatchCommand(CLI::App& app, Context& context) {
  CLI::App* watch = app.add_subcommand("watch", "Print the folders whose content changes");
  auto options = std::make_shared<WatchOptions>();
  watch->add_option("--interval", options->interval, "Time between two polls")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  watch->add_option("--count", options->count, "End after that many changes")
      ->check(CLI::NonNegativeNumber);
  watch->add_option("--for", options->seconds, "End after that time")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, 86400));
  watch->add_flag("--once", options->once, "Poll once and end");
  watch->add_flag("!--no-push", options->push, "Poll only, even with a push service");
  watch->callback([&context, options] { RunWatch(context, *options); });
}

}  // namespace host
