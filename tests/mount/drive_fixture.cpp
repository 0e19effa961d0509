#include "tests/mount/drive_fixture.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <thread>

namespace host::mount {

Settings QuickSettings() {
  Settings settings;
  settings.poll = Milliseconds(3'600'000);  // tests poll when they want to
  settings.uploadDelay = Milliseconds(1);
  settings.heldOpenDelay = Milliseconds(20);
  settings.retryFirst = Milliseconds(10);
  settings.retryLast = Milliseconds(50);
  settings.settle = Milliseconds(10);
  settings.patience = Milliseconds(5'000);
  return settings;
}

DriveFixture::DriveFixture() {
  ProfileStore(paths).SetValue(ProfileStore(paths).Id(), "drive_api_url", service.ApiUrl());
  Credential credential;
  credential.accessToken = service.AccessToken();
  CredentialStore(paths.Credential(), nullptr).Save(credential);
}

DriveFixture::~DriveFixture() { Stop(); }

void DriveFixture::Start(Settings settings) {
  session = std::make_unique<Session>(paths, "", log);
  session->Connect();
  drive =
      std::make_unique<Drive>(session->Drive(), relay, paths.Database(), paths.data / "contents",
                              session->HasAccount() ? session->RootId() : "", settings);
  drive->Start();
}

void DriveFixture::Stop() {
  drive.reset();
  session.reset();
}

std::pair<Inode, std::string> DriveFixture::Place(const std::string& path) {
  const std::filesystem::path whole = std::filesystem::path("My Drive") / path;
  Inode folder = kRootInode;
  for (const auto& part : whole.parent_path()) {
    Item item;
    if (drive->tree.Lookup(folder, part.string(), item) != 0) return {0, ""};
    folder = item.ino;
  }
  return {folder, whole.filename().string()};
}

Inode DriveFixture::Find(const std::string& path) {
  const auto [folder, name] = Place(path);
  Item item;
  if (name.empty()) return folder;
  return folder != 0 && drive->tree.Lookup(folder, name, item) == 0 ? item.ino : 0;
}

int DriveFixture::Write(const std::string& path, const std::string& content) {
  const auto [folder, name] = Place(path);
  std::unique_ptr<OpenFile> file;
  Item item;
  const Inode known = Find(path);
  const int error = known != 0 ? drive->files.Open(known, O_WRONLY | O_TRUNC, file)
                               : drive->files.Create(folder, name, O_CREAT | O_WRONLY, item, file);
  if (error != 0) return -error;
  const ssize_t written = drive->files.Write(*file, content, 0);
  const int flushed = drive->files.Flush(*file);
  drive->files.Release(std::move(file));
  return written < 0 ? static_cast<int>(-written) : -flushed;
}

std::string DriveFixture::Read(const std::string& path) {
  Item item;
  std::unique_ptr<OpenFile> file;
  const Inode ino = Find(path);
  if (ino == 0 || drive->tree.Get(ino, item) != 0) return "(none)";
  if (drive->files.Open(ino, O_RDONLY, file) != 0) return "(unopened)";
  std::string content(static_cast<size_t>(item.size), '\0');
  const ssize_t count = drive->files.Read(*file, content, 0);
  drive->files.Release(std::move(file));
  return count < 0 ? "(error)" : content.substr(0, static_cast<size_t>(count));
}

int DriveFixture::MakeFolder(const std::string& path) {
  const auto [folder, name] = Place(path);
  Item item;
  return drive->tree.MakeFolder(folder, name, item);
}

int DriveFixture::Remove(const std::string& path) {
  const auto [folder, name] = Place(path);
  return drive->tree.RemoveFile(folder, name);
}

int DriveFixture::RemoveFolder(const std::string& path) {
  const auto [folder, name] = Place(path);
  return drive->tree.RemoveFolder(folder, name);
}

int DriveFixture::Rename(const std::string& from, const std::string& to) {
  const auto [source, name] = Place(from);
  const auto [target, newName] = Place(to);
  return drive->tree.Rename(source, name, target, newName, 0);
}

std::vector<std::string> DriveFixture::Names(const std::string& folder) {
  std::vector<Item> items;
  std::vector<std::string> names;
  drive->tree.List(Find(folder.empty() ? "" : folder), items);
  for (const Item& item : items) names.push_back(item.name);
  std::sort(names.begin(), names.end());
  return names;
}

void DriveFixture::Drain() {
  drive->queue.Hurry();
  if (drive->queue.Drain(Milliseconds(5'000))) return;
  std::lock_guard lock(drive->state.mutex);
  for (const JournalRow& row : drive->state.journal.All()) {
    const std::optional<Item> item = drive->state.items.Find(row.ino);
    ADD_FAILURE() << "still owed: " << (item ? item->name : "?") << " id=" << (item ? item->id : "")
                  << " deleted=" << (item && item->deleted) << " content=" << row.content
                  << " editing=" << row.editing << " times=" << row.times
                  << " attempted=" << row.attempted << " after=" << row.after << " " << row.error;
  }
  FAIL() << "not drained";
}

std::string DriveFixture::Refusal(const std::string& path) {
  const Inode ino = Find(path);
  drive->queue.Hurry();
  for (;;) {
    {
      std::lock_guard lock(drive->state.mutex);
      const std::optional<JournalRow> row = drive->state.journal.Find(ino);
      if (!row) return "(it was sent)";
      if (row->tries > 0) return row->error;
    }
    std::this_thread::yield();
  }
}

void DriveFixture::Refresh(const std::string& folder) {
  drive->Poll();
  ASSERT_EQ(drive->folders.RefreshNow(Find(folder)), 0);
}

std::string DriveFixture::AtService(const std::string& path) {
  const std::filesystem::path whole(path);
  const std::string parent = whole.parent_path().string();
  const std::optional<std::string> folder =
      parent.empty() ? service.RootId() : service.Find(parent);
  if (!folder) return "(none)";
  const std::vector<std::string> ids = service.ChildrenNamed(*folder, whole.filename().string());
  if (ids.size() != 1) return ids.empty() ? "(none)" : "(twins)";
  return service.Content(ids[0]).value_or("(folder)");
}

std::vector<std::string> DriveFixture::NamesAtService(const std::string& folder) {
  std::vector<std::string> names;
  const std::string id = folder.empty() ? service.RootId() : service.Find(folder).value_or("");
  for (const std::string& child : service.Children(id))
    names.push_back(service.Item(child)["name"].asString());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace host::mount
