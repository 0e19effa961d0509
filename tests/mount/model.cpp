#include "tests/mount/model.h"

#include <algorithm>

namespace host::mount {

namespace fs = std::filesystem;

Model::~Model() { handles.clear(); }

void Model::Begin() {
  Settings wary = QuickSettings();
  wary.standingAge = Milliseconds(0);
  Start(wary);
}

int Model::Dice(int sides) { return static_cast<int>(random() % static_cast<unsigned>(sides)); }

std::string Model::Text() {
  std::string text = "<" + std::to_string(++texts) + ">";
  const int length = Dice(12) == 0 ? Dice(150'000) : Dice(60);
  for (int i = 0; i < length; ++i) text += static_cast<char>('a' + (texts + i) % 26);
  return text;
}

bool Model::IsFreeHere(const Thing& thing) {
  return thing.here && (offline || !thing.IsTouchedThere());
}

bool Model::IsFreeThere(const Thing& thing) {
  return thing.base && thing.there && (offline || (!thing.IsTouchedHere() && !IsOpen(thing)));
}

bool Model::IsOpen(const Thing& thing) {
  return std::any_of(handles.begin(), handles.end(),
                     [&](const Handle& handle) { return &At(handle.thing) == &thing; });
}

int Model::FileHere() {
  return Pick([&](const Thing& thing) { return !thing.folder && IsFreeHere(thing); });
}

int Model::FolderHere() {
  const int found = Pick([&](const Thing& thing) { return thing.folder && IsFreeHere(thing); });
  return found == kNobody || Dice(3) == 0 ? 0 : found;
}

int Model::FileThere() {
  return Pick([&](const Thing& thing) { return !thing.folder && IsFreeThere(thing); });
}

int Model::FolderThere() {
  const int found = Pick([&](const Thing& thing) {
    return thing.folder && thing.there && !thing.id.empty() && (offline || thing.here);
  });
  return found == kNobody || Dice(3) == 0 ? 0 : found;
}

std::string Model::Name(const char* side) {
  // Names meet only while nobody can know of the other's.
  return (offline ? "n" : side) + std::to_string(Dice(12)) + ".txt";
}

int Model::ChildHere(int folder, const std::string& shown) {
  return Pick([&](const Thing& thing) {
    return thing.here && thing.here->parent == folder && thing.shown == shown;
  });
}

bool Model::IsBelow(const std::vector<Thing>& all, int thing, int ancestor,
                    std::optional<View> Thing::*side) {
  while (thing != 0 && thing != ancestor) thing = (all[static_cast<size_t>(thing)].*side)->parent;
  return thing == ancestor;
}

bool Model::IsEmptyHere(int folder) {
  return std::none_of(things.begin() + 1, things.end(), [&](const Thing& thing) {
    return thing.here && thing.here->parent == folder;
  });
}

void Model::CutNetwork() {
  emulator::Fault fault;
  fault.kind = "reset-before";
  fault.times = 1'000'000'000;
  service.ClearFaults();  // those that came first would be served first
  service.Inject(fault);
}

void Model::InjectFaults() {
  static const char* const kMethods[] = {
      "drive.upload.start", "drive.upload.content", "drive.files.create", "drive.files.update",
      "drive.files.delete", "drive.files.get",      "drive.files.list"};
  static const char* const kKinds[] = {"applied-not-answered", "reset-before", "truncate",
                                       "garbage"};
  for (int i = Dice(5); i > 0; --i) {
    emulator::Fault fault;
    fault.method = kMethods[Dice(std::size(kMethods))];
    fault.kind = kKinds[Dice(std::size(kKinds))];
    fault.times = 1 + Dice(3);
    service.Inject(fault);
  }
}

void Model::Restart() {
  if (Dice(2) == 0) {
    CloseSome(true);
    Stop();
    return Begin();
  }
  // What is on the disk now is what a killed host leaves behind: no request follows.
  CutNetwork();
  const fs::path left = directory.Path() / "left";
  {
    std::lock_guard lock(drive->state.mutex);
    fs::create_directories(left / "contents");
    // Files that are unlinked meanwhile have no row any more.
    std::error_code unlinked;
    for (const fs::directory_entry& file : fs::directory_iterator(paths.data / "contents"))
      fs::copy_file(file.path(), left / "contents" / file.path().filename(), unlinked);
    drive->state.database.Run("VACUUM INTO '" + (left / paths.Database().filename()).string() +
                              "'");
  }
  Note("kill");
  for (Handle& handle : handles) drive->files.Release(std::move(handle.file));
  handles.clear();
  Stop();
  fs::remove_all(paths.data);
  fs::rename(left, paths.data);
  if (!offline) service.ClearFaults();
  Begin();
  TakeUpInterrupted();
}

void Model::TakeUpInterrupted() {
  for (Thing& thing : things) {
    if (!thing.here || thing.folder) continue;
    if (thing.here->content == thing.committed && thing.everCommitted) continue;
    std::string shown = Slurp(thing.ino);
    if (offline && shown.starts_with("(error")) {  // only clean bytes can be missing
      const Thing* replaced = ReplacedAtService(thing);
      shown = thing.everCommitted || !replaced ? thing.committed : replaced->base->content;
    }
    Thing* replaced = Replaced(thing, [&](const Thing& other) {
      return (other.base && other.base->content == shown) ||
             (other.everCommitted && other.committed == shown);
    });
    EXPECT_TRUE(shown == thing.here->content || replaced ||
                (thing.everCommitted && shown == thing.committed))
        << thing.shown << ": " << shown.substr(0, 60);
    if (thing.base && shown == thing.base->content) thing.here->written = false;
    if (replaced && !replaced->base) replaced = ReplacedAtService(thing);
    if (replaced && !thing.base) TakeOver(thing, *replaced, shown);
    thing.here->content = thing.committed = shown;
    thing.everCommitted = true;
  }
  const std::vector<Thing> known = things;
  for (int i = 0; i < static_cast<int>(known.size()); ++i)
    if (known[static_cast<size_t>(i)].folder && known[static_cast<size_t>(i)].here)
      TakeUpRecovered(i);
}

Thing* Model::ReplacedAtService(const Thing& thing) {
  return Replaced(thing, [](const Thing& other) { return other.base.has_value(); });
}

void Model::TakeOver(Thing& thing, Thing& replaced, const std::string& shown) {
  thing.id = replaced.id;
  thing.base = std::exchange(replaced.base, std::nullopt);
  thing.there = std::exchange(replaced.there, std::nullopt);
  thing.here->written = shown != thing.base->content;
}

void Model::TakeUpRecovered(int folder) {
  std::vector<Item> items;
  drive->tree.List(At(folder).ino, items);
  for (const Item& item : items) {
    if (item.name.find(" (recovered ") == std::string::npos) continue;
    if (std::any_of(things.begin(), things.end(),
                    [&](const Thing& thing) { return thing.ino == item.ino; }))
      continue;
    Thing thing;
    thing.ino = item.ino;
    thing.shown = item.name;
    thing.committed = Slurp(item.ino);
    thing.here = View{folder, item.driveName, thing.committed, true};
    things.push_back(thing);
  }
}

void Model::Note(const std::string& what) {
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  history.emplace(now.count(), what);
}

std::string Model::History() {
  for (const emulator::JournalEntry& entry : service.Journal())
    if (entry.httpMethod != "GET")
      history.emplace(entry.startSeconds, "    " + entry.httpMethod + " " + entry.path + " " +
                                              entry.query + " " + entry.requestBody.substr(0, 120) +
                                              " -> " + std::to_string(entry.status));
  std::string text = offline ? "offline\n" : "online\n";
  for (const auto& [at, what] : history) text += "  " + what + "\n";
  return text;
}

std::string Model::Begin(const std::string& content) {
  return "\"" + content.substr(0, 40) + "\" (" + std::to_string(content.size()) + ")";
}

void Model::TakeUpAll() {
  things.assign(1, Thing{});
  things[0].folder = true;
  things[0].id = service.RootId();
  things[0].ino = Find("");
  things[0].base = things[0].here = things[0].there = View{};
  TakeUp(0);
}

void Model::RefreshBelow(Inode folder) {
  const int error = drive->folders.RefreshNow(folder);
  ASSERT_NE(error, ETIMEDOUT);  // a folder that is gone cannot be listed
  std::vector<Item> items;
  drive->tree.List(folder, items);
  for (const Item& item : items)
    if (item.IsFolder()) RefreshBelow(item.ino);
}

void Model::Round() {
  history.clear();
  service.ClearJournal();
  for (size_t i = 1; i < things.size(); ++i)
    Note(std::to_string(i) + ": " + things[i].base->name + " in " +
         std::to_string(things[i].base->parent) + " " + Begin(things[i].base->content));
  offline = Dice(2) == 0;
  foldersMoveHere = Dice(2) == 0;
  if (offline)
    CutNetwork();
  else
    InjectFaults();
  const int restartAt = Dice(3) == 0 ? Dice(30) : -1;
  for (int step = 0; step < 30 && !HasFailure(); ++step) {
    if (step == restartAt) Restart();
    if (Dice(4) == 0)
      OperateThere();
    else
      OperateHere();
    if (!offline && Dice(10) == 0) drive->Poll();
  }
  CloseSome(true);
  service.ClearFaults();
  for (int i = Dice(2); i < 5 && !HasFailure(); ++i) {
    if (i % 2 == 0)
      Drain();
    else
      RefreshBelow(Find(""));
  }
  Drain();
  RefreshBelow(Find(""));
  claims.clear();
  Claims();
  CompareWithService();
  EXPECT_EQ(drive->queue.Pending(), 0);
}

void Model::Run(int seed, int rounds) {
  random.seed(static_cast<unsigned>(seed));
  drive->folders.RefreshNow(Find(""));
  TakeUpAll();
  for (int round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE("VORMLANE_SEED=" + std::to_string(seed) + " round " + std::to_string(round));
    try {
      Round();
      if (!HasFailure()) TakeUpAll();
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
    if (HasFailure()) ADD_FAILURE() << History();
  }
}

}  // namespace host::mount
