// demo
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <chrono>
#include <fstream>
#include <thread>

#include "host/cli/commands.h"
#include "host/cli/demo_drive.h"
#include "host/cli/demo_mount.h"
#include "host/cli/terminal.h"
#include "host/core/interrupt.h"

namespace host {
namespace {

using Words = std::vector<std::string>;

std::string Quoted(const std::string& word) {
  const bool plain = word.find_first_of(" *?'\"\\&;|<>()$`") == std::string::npos;
  return plain && !word.empty() ? word : "\"" + word + "\"";
}

/// Shows the commands of a tour with what they answer, as if somebody typed them.
class Tour {
 public:
  Tour(Context& shared, DemoDrive& demoDrive)
      : context(shared), demo(demoDrive), paint(STDOUT_FILENO) {}

  void Say(const std::string& text) {
    InterruptWatch::ThrowIfInterrupted("the demo");
    Print("\n" + paint.Yellow("# " + text) + "\n");
  }

  void Type(const Words& words) {
    InterruptWatch::ThrowIfInterrupted("the demo");
    std::string line;
    for (const std::string& word : words) line += " " + Quoted(word);
    Print(paint.Faint("$ ") + paint.Bold("vormlane" + line) + "\n");
    CLI::App app("", "vormlane");
    app.fallthrough();
    AddCommands(app, context);
    app.parse(Words(words.rbegin(), words.rend()));
  }

  void Shell(const std::string& command) {
    InterruptWatch::ThrowIfInterrupted("the demo");
    Print(paint.Faint("$ ") + paint.Bold(command) + "\n");
    if (RunShell(demo, command) != 0) throw Failure("the demo's command failed: " + command);
  }

  /// A file made by somebody else as soon as the drive listens for pushed changes.
  std::jthread ChangeElsewhere(const std::string& path) {
    return std::jthread([this, path](const std::stop_token& stop) {
      try {
        while (!Listening()) {
          if (stop.stop_requested()) return;
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        Json::Value item;
        item["path"] = path;
        item["content"] = "Written by somebody else.\n";
        demo.Emulator().Post("/items", item);
      } catch (const Failure&) {
        // Without the change the tour's watch shows nothing and ends by itself.
      }
    });
  }

 private:
  bool Listening() const {
    const Json::Value status = demo.Emulator().Get("/status");
    return status["pushConnections"].asInt() > 0 && status["openChannels"].asInt() > 0;
  }

  Context& context;
  DemoDrive& demo;
  const Paint paint;
};

void ShowReading(Tour& tour, const std::filesystem::path& directory) {
  tour.Say("Whose drive is it, and how full?");
  tour.Type({"whoami"});
  tour.Type({"df"});
  tour.Say("The tree: the account's own folders, what others share, team drives.");
  tour.Type({"ls", "--tree", "--depth", "2", "/"});
  tour.Type({"ls", "-l", "/My Drive/Google documents"});
  tour.Say("A document has no bytes; it is shown as a file that leads to the web.");
  tour.Type({"cat", "/My Drive/Google documents/Report.Google Docs.webloc"});
  tour.Say("Some of a file's bytes, then a large file whole.");
  tour.Type({"cat", "--offset", "11", "--length", "18", "/My Drive/Welcome.txt"});
  Print("\n");
  tour.Type({"get", "/My Drive/Videos/recording.mp4", directory.string()});
}

void ShowWriting(Tour& tour, const std::filesystem::path& directory) {
  const auto note = directory / "note.txt";
  std::ofstream(note) << "First, a note.\nSecond, another one.\n";
  tour.Say("A write, a new folder, a move with a new name.");
  tour.Type({"put", note.string(), "/My Drive/Documents"});
  tour.Type({"mkdir", "-p", "/My Drive/Archive/2024"});
  tour.Type({"mv", "/My Drive/Documents/note.txt", "/My Drive/Archive/2024/My first note.txt"});
  tour.Type({"ls", "-l", "/My Drive/Archive/2024"});
  tour.Type({"cat", "/My Drive/Archive/2024/My first note.txt"});
}

void ShowChanges(Tour& tour) {
  tour.Say("Somebody else adds a file: the service pushes a notice, no poll is due for an hour.");
  const std::jthread somebody = tour.ChangeElsewhere("Projects/shared result.txt");
  tour.Type({"watch", "--interval", "3600", "--count", "1", "--for", "10"});
}

/// The drive as a folder, shown by the programs that everybody has.
void ShowMount(Tour& tour, DemoDrive& demo) {
  if (const std::string why = DemoMount::Missing(demo); !why.empty())
    return tour.Say("The drive as a folder is left out: " + why + ".");
  tour.Say("The same drive as a folder, for every program.");
  DemoMount mount(demo);
  const std::string folder = mount.Folder().string();
  tour.Shell("vormlane --profile demo mount " + folder);
  tour.Shell("ls -l '" + folder + "/My Drive'");
  tour.Shell("grep -c line '" + folder + "/My Drive/Documents/Contract.md'");
  tour.Shell("echo 'Written by the shell.' > '" + folder + "/My Drive/from the shell.txt'");
  if (IsTerminal(STDIN_FILENO) && IsTerminal(STDOUT_FILENO)) {
    tour.Say("The folder stays until Ctrl-C: look around in it, from a file manager or a shell.");
    while (!InterruptWatch::WaitFor(-1)) {
    }
    Print("\n");
    if (mount.Unmount() == 0) Print("Everything is on the service; the folder is unmounted.\n");
    return;
  }
  tour.Shell("vormlane --profile demo unmount " + folder);
  tour.Type({"cat", "/My Drive/from the shell.txt"});
}

void RunDemo(Context& context) {
  const InterruptWatch interrupts;
  const Paint paint(STDOUT_FILENO);
  DemoDrive demo(context);
  Print(paint.Bold("A tour of an emulated drive.") +
        " Nothing leaves this machine, nothing stays on it.\n");
  Tour tour(context, demo);
  ShowReading(tour, demo.Directory());
  ShowWriting(tour, demo.Directory());
  ShowChanges(tour);
  ShowMount(tour, demo);
  if (InterruptWatch::Interrupted()) return;
  tour.Say("For your own account: `vormlane login`, then the same commands.");
}

}  // namespace

void AddDemoCommand(CLI::App& app, Context& context) {
  app.add_subcommand("demo", "Show what this can do, on an emulated drive")->callback([&] {
    RunDemo(context);
  });
}

}  // namespace host
