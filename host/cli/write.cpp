// put, mkdir, mv, rm, touch
#include <CLI/CLI.hpp>
#include <filesystem>
#include <vector>

#include "host/cli/commands.h"
#include "host/cli/progress_bar.h"
#include "host/core/drive_tree.h"
#include "host/core/interrupt.h"
#include "host/core/local_file.h"
#include "host/core/time_text.h"
#include "host/core/upload.h"

namespace host {
namespace {

std::string Quoted(const DrivePath& path) { return "\"" + path.Text() + "\""; }

Failure Exists(const DrivePath& path) {
  return Failure(Quoted(path) + " exists already", "remove it first or choose another name",
                 AERROR::ALREADY_EXISTS);
}

/// Where `name` goes when the user says `target`: into it when it is a folder, else to its place.
Place PlaceFor(DriveTree& tree, DrivePath& target, const std::string& name) {
  auto existing = tree.FindIfThere(target);
  if (!existing || !IsFolder(*existing)) return tree.FindPlace(target);
  if (name.empty())
    throw Failure(Quoted(target) + " is a folder", "say FOLDER/NAME", AERROR::INVALID_NAME);
  target = target.Child(name);
  Place place{*existing, name, std::nullopt};
  for (Item& item : tree.Children(*existing, target.Parent())) {
    if (item.name != name) continue;
    if (place.existing)
      throw Failure(Quoted(target) + " names several items", "remove one, or use id:ID");
    place.existing = std::move(item);
  }
  return place;
}

void RunPut(Context& context, const std::string& local, const std::string& remote) {
  const LocalFile source(local);
  Session& session = context.Connected();
  DriveTree tree(session);
  DrivePath path = DrivePath::Parse(remote);
  const std::string name = local == "-" ? "" : std::filesystem::path(local).filename().string();
  const Place place = PlaceFor(tree, path, name);
  if (place.existing && (IsFolder(*place.existing) || IsDocument(*place.existing)))
    throw Failure(Quoted(path) + " is a " + KindOf(*place.existing), "choose another name",
                  AERROR::ALREADY_EXISTS);
  Item file = place.existing.value_or(Item());
  file.name = place.name;
  file.size = source.Size();
  const auto handle = std::make_shared<_FS_HANDLE>();
  const InterruptWatch watch(handle);
  ProgressBar bar(place.name, file.size);
  const auto read = [&](int64_t offset, std::span<char> buffer) {
    bar.Update(offset);
    return source.Read(offset, buffer);
  };
  try {
    Upload(session, place.folder.id, file, read, handle, path.Text());
  } catch (const Failure&) {
    InterruptWatch::ThrowIfInterrupted("the upload of " + Quoted(path));
    throw;
  }
  bar.Finish("put");
}

Item MakeFolder(Session& session, const Item& parent, const DrivePath& path) {
  Item folder;
  folder.name = path.names.back();
  Perform(session, "cannot make the folder " + Quoted(path), [&](char** message) {
    return session.Drive().CreateDirectory(parent.id.c_str(), &folder, message);
  });
  return folder;
}

void MakeFolderAndParents(Session& session, const DrivePath& path) {
  DriveTree tree(session);
  DrivePath at{path.startId, {}};
  Item folder = tree.FindFolder(at);
  bool made = false;  // below a new folder there is nothing to look for
  for (const std::string& name : path.names) {
    at = at.Child(name);
    const auto existing = made ? std::nullopt : tree.FindIfThere(at);
    if (existing && !IsFolder(*existing)) throw Exists(at);
    made = !existing;
    folder = existing ? *existing : MakeFolder(session, folder, at);
  }
}

void RunMkdir(Context& context, const std::vector<std::string>& paths, bool parents) {
  Session& session = context.Connected();
  DriveTree tree(session);
  for (const std::string& text : paths) {
    const DrivePath path = DrivePath::Parse(text);
    if (parents) {
      MakeFolderAndParents(session, path);
      continue;
    }
    const Place place = tree.FindPlace(path);
    if (place.existing) throw Exists(path);
    MakeFolder(session, place.folder, path);
  }
}

void RunMove(Context& context, const std::string& from, const std::string& to) {
  Session& session = context.Connected();
  DriveTree tree(session);
  const DrivePath source = DrivePath::Parse(from);
  DrivePath target = DrivePath::Parse(to);
  Item item = tree.Find(source);
  const Place place = PlaceFor(tree, target, item.name);
  if (place.existing && place.existing->id == item.id) return;
  if (place.existing) throw Exists(target);
  const std::string doing = "cannot move " + Quoted(source) + " to " + Quoted(target);
  const std::string name = ServiceNameFor(item, place.name);
  IProtocol_V2& drive = session.Drive();
  Perform(session, doing, [&](char** message) {
    if (place.folder.id == item.parent_id)
      return drive.Rename(item.id.c_str(), name.c_str(), &item, message);
    // A move restates the name, so that one request both moves and renames.
    item.name = name;
    const auto move = IsFolder(item) ? &IProtocol_V2::MoveDir : &IProtocol_V2::Move;
    return (drive.*move)(item.id.c_str(), place.folder.id.c_str(), &item, message);
  });
}

void RunRemove(Context& context, const std::vector<std::string>& paths, bool recursive) {
  Session& session = context.Connected();
  DriveTree tree(session);
  for (const std::string& text : paths) {
    const DrivePath path = DrivePath::Parse(text);
    Item item = tree.Find(path);
    if (IsFolder(item) && !recursive)
      throw Failure(Quoted(path) + " is a folder",
                    "say -r to remove it and everything in it for good");
    Perform(session, "cannot remove " + Quoted(path), [&](char** message) {
      return IsFolder(item) ? session.Drive().DeleteDirectory(&item, message)
                            : session.Drive().Delete(&item, message);
    });
  }
}

void MakeEmptyFile(Session& session, const Place& place, const DrivePath& path) {
  Item file;
  file.name = place.name;
  const auto nothing = [](int64_t, std::span<char>) -> uint64_t { return 0; };
  Upload(session, place.folder.id, file, nothing, std::make_shared<_FS_HANDLE>(), path.Text());
}

void RunTouch(Context& context, const std::vector<std::string>& paths, const std::string& time) {
  const std::string modified = FormatRfc3339(ParseUserTime(time));
  Session& session = context.Connected();
  DriveTree tree(session);
  for (const std::string& text : paths) {
    const DrivePath path = DrivePath::Parse(text);
    auto item = tree.FindIfThere(path);
    if (!item) {
      MakeEmptyFile(session, tree.FindPlace(path), path);
      if (time == "now") continue;
      item = tree.Find(path);
    }
    Perform(session, "cannot set the time of " + Quoted(path), [&](char** message) {
      return session.Drive().SetFileTime(item->id.c_str(), "", "", modified, &*item, message);
    });
  }
}

void AddPut(CLI::App& app, Context& context) {
  CLI::App* put = app.add_subcommand("put", "Copy a file to the drive, replacing its content");
  auto local = std::make_shared<std::string>();
  auto remote = std::make_shared<std::string>();
  put->add_option("LOCAL", *local, "File to read; - for standard input")->required();
  put->add_option("REMOTE", *remote, "Path, or folder to put it in")->required();
  put->callback([=, &context] { RunPut(context, *local, *remote); });
}

void AddMkdir(CLI::App& app, Context& context) {
  CLI::App* mkdir = app.add_subcommand("mkdir", "Make folders");
  auto paths = std::make_shared<std::vector<std::string>>();
  auto parents = std::make_shared<bool>(false);
  mkdir->add_option("PATH", *paths)->required();
  mkdir->add_flag("-p,--parents", *parents, "Missing folders above too; existing ones are fine");
  mkdir->callback([=, &context] { RunMkdir(context, *paths, *parents); });
}

void AddMove(CLI::App& app, Context& context) {
  CLI::App* move = app.add_subcommand("mv", "Rename or move an item, or both");
  auto source = std::make_shared<std::string>();
  auto target = std::make_shared<std::string>();
  move->add_option("SOURCE", *source, "Path or id:ID")->required();
  move->add_option("TARGET", *target, "New path, or folder to move it to")->required();
  move->callback([=, &context] { RunMove(context, *source, *target); });
}

void AddRemove(CLI::App& app, Context& context) {
  CLI::App* remove = app.add_subcommand("rm", "Remove items for good, past the trash");
  auto paths = std::make_shared<std::vector<std::string>>();
  auto recursive = std::make_shared<bool>(false);
  remove->add_option("PATH", *paths, "Paths or id:ID")->required();
  remove->add_flag("-r,--recursive", *recursive, "Folders too, with everything in them");
  remove->callback([=, &context] { RunRemove(context, *paths, *recursive); });
}

void AddTouch(CLI::App& app, Context& context) {
  CLI::App* touch = app.add_subcommand("touch", "Set the modification time; make missing files");
  auto paths = std::make_shared<std::vector<std::string>>();
  auto time = std::make_shared<std::string>("now");
  touch->add_option("PATH", *paths)->required();
  touch->add_option("-d,--date", *time, "\"YYYY-MM-DD HH:MM\", RFC 3339, @SECONDS or now")
      ->type_name("TIME");
  touch->callback([=, &context] { RunTouch(context, *paths, *time); });
}

}  // namespace

void AddWriteCommands(CLI::App& app, Context& context) {
  AddPut(app, context);
  AddMkdir(app, context);
  AddMove(app, context);
  AddRemove(app, context);
  AddTouch(app, context);
}

}  // namespace host
