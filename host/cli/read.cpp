// cat, get
#include <sys/stat.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>

#include "host/cli/commands.h"
#include "host/cli/progress_bar.h"
#include "host/cli/terminal.h"
#include "host/core/atomic_file.h"
#include "host/core/download.h"
#include "host/core/drive_tree.h"
#include "host/core/interrupt.h"
#include "host/core/time_text.h"

namespace host {
namespace {

namespace fs = std::filesystem;

struct CatOptions {
  std::string path;
  int64_t offset = 0;
  int64_t length = std::numeric_limits<int64_t>::max();
};

struct GetOptions {
  std::string remote;
  std::string local;
};

Item FindFile(DriveTree& tree, const DrivePath& path) {
  Item item = tree.Find(path);
  if (IsFolder(item))
    throw Failure("\"" + path.Text() + "\" is a folder", "name a file in it",
                  AERROR::INVALID_PARAMETER);
  return item;
}

void WriteAll(int descriptor, std::span<const char> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0)
      throw Failure(std::string("cannot write the output: ") + std::strerror(errno),
                    "check where it goes to");
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
}

void RunCat(Context& context, const CatOptions& options) {
  Session& session = context.Connected();
  DriveTree tree(session);
  const DrivePath path = DrivePath::Parse(options.path);
  const Item file = FindFile(tree, path);
  Download(session, file, options.offset, options.length, std::make_shared<_FS_HANDLE>(),
           path.Text(),
           [](int64_t, std::span<const char> bytes) { WriteAll(STDOUT_FILENO, bytes); });
}

/// LOCAL itself, or the remote file's name in it when it is a folder. A name that the service
/// chose must not lead out of that folder.
fs::path TargetFile(const std::string& local, const Item& file) {
  std::error_code ignored;
  const fs::path target = local;
  if (!fs::is_directory(target, ignored)) return target;
  std::string name = file.name;
  for (char& c : name)
    if (c == '/') c = '_';
  if (name == "." || name == "..") name = "_" + name;
  return target / name;
}

void RunGet(Context& context, const GetOptions& options) {
  Session& session = context.Connected();
  DriveTree tree(session);
  const DrivePath path = DrivePath::Parse(options.remote);
  const Item file = FindFile(tree, path);
  const fs::path target = TargetFile(options.local, file);
  const auto handle = std::make_shared<_FS_HANDLE>();
  const InterruptWatch watch(handle);
  AtomicFile out(target, 0666);
  ProgressBar bar(file.name, file.size);
  try {
    Download(session, file, 0, file.size, handle, path.Text(),
             [&](int64_t offset, std::span<const char> bytes) {
               out.WriteAt(offset, bytes);
               bar.Update(offset + static_cast<int64_t>(bytes.size()));
             });
  } catch (const Failure&) {
    InterruptWatch::ThrowIfInterrupted("the download of \"" + path.Text() + "\"");
    throw;
  }
  if (const auto modified = ParseRfc3339(file.time1)) out.SetTime(*modified / 1000);
  out.Commit();
  bar.Finish("got");
}

}  // namespace

void AddReadCommands(CLI::App& app, Context& context) {
  CLI::App* cat = app.add_subcommand("cat", "Write a file's bytes to the output");
  auto catOptions = std::make_shared<CatOptions>();
  cat->add_option("PATH", catOptions->path, "Path or id:ID")->required();
  cat->add_option("--offset", catOptions->offset, "First byte")
      ->type_name("BYTES")
      ->check(CLI::NonNegativeNumber);
  cat->add_option("--length", catOptions->length, "Number of bytes; to the end without it")
      ->type_name("BYTES")
      ->check(CLI::NonNegativeNumber);
  cat->callback([&context, catOptions] { RunCat(context, *catOptions); });

  CLI::App* get = app.add_subcommand("get", "Copy a file from the drive");
  auto getOptions = std::make_shared<GetOptions>();
  get->add_option("REMOTE", getOptions->remote, "Path or id:ID")->required();
  get->add_option("LOCAL", getOptions->local, "File to write, or folder to put it in")
      ->default_val(".");
  get->callback([&context, getOptions] { RunGet(context, *getOptions); });
}

}  // namespace host
