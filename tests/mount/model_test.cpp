// Random work of programs on the mount and of people elsewhere, against a reference.
//
// Each round begins with mount and service alike. Then programs work here and others work at the
// service, in some rounds while the network is away (so that nobody knows of the other's work), in
// some while everything is on its way; the drive is ended or killed in between. When all has been
// sent and listed again, nothing that anybody wrote may be missing, doubled or back from the dead,
// both versions of what was changed on both sides must be there, and mount and service alike.
//
// VORMLANE_SEED and VORMLANE_ROUNDS choose which work and how much.
#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <utility>

#include "tests/mount/drive_fixture.h"

namespace host::mount {
namespace {

namespace fs = std::filesystem;

constexpr char kFolderType[] = "application/vnd.google-apps.folder";
constexpr int kNobody = -1;

/// What one side makes of a file or folder.
struct View {
  int parent = 0;
  std::string name;
  std::string content;
  bool written = false;  ///< in this round

  bool IsAt(const View& other) const { return parent == other.parent && name == other.name; }
};

struct Thing {
  bool folder = false;
  std::string id;     ///< empty: made here in this round
  Inode ino = 0;      ///< 0: made elsewhere in this round
  std::string shown;  ///< its name on the mount
  std::optional<View> base, here, there;
  std::string committed;  ///< what close or fsync returned for
  bool everCommitted = true;
  int over = kNobody;  ///< whom it was renamed over here

  bool IsMovedHere() const { return base && here && !here->IsAt(*base); }
  bool IsTouchedHere() const { return base && (!here || here->written || !here->IsAt(*base)); }
  bool IsTouchedThere() const { return base && (!there || there->written || !there->IsAt(*base)); }
};

struct Handle {
  std::unique_ptr<OpenFile> file;
  int thing = 0;
};

/// How often a content must and may stand at the service.
struct Claim {
  int must = 0;
  int may = 0;
};

int FromEnvironment(const char* name, int otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::atoi(text);
}

class Model : public DriveFixture, public ::testing::WithParamInterface<int> {
 protected:
  Model() {
    service.Put("a/b/first.txt", "first");
    service.Put("c/second.txt", "second");
    Begin();
  }
  ~Model() override { handles.clear(); }

  /// Others trash folders as soon as the network is away, a moment after they were last seen.
  void Begin() {
    Settings wary = QuickSettings();
    wary.standingAge = Milliseconds(0);
    Start(wary);
  }

  int Dice(int sides) { return static_cast<int>(random() % static_cast<unsigned>(sides)); }

  /// A text like no other.
  std::string Text() {
    std::string text = "<" + std::to_string(++texts) + ">";
    const int length = Dice(12) == 0 ? Dice(150'000) : Dice(60);
    for (int i = 0; i < length; ++i) text += static_cast<char>('a' + (texts + i) % 26);
    return text;
  }

  // Choosing. All return kNobody when there is nobody.

  template <typename Condition>
  int Pick(Condition&& condition) {
    std::vector<int> found;
    for (int i = 1; i < static_cast<int>(things.size()); ++i)
      if (condition(things[static_cast<size_t>(i)])) found.push_back(i);
    return found.empty() ? kNobody
                         : found[static_cast<size_t>(Dice(static_cast<int>(found.size())))];
  }
  Thing& At(int thing) { return things[static_cast<size_t>(thing)]; }

  /// While requests get through, nobody touches what the other side has touched.
  bool IsFreeHere(const Thing& thing) { return thing.here && (offline || !thing.IsTouchedThere()); }
  bool IsFreeThere(const Thing& thing) {
    return thing.base && thing.there && (offline || (!thing.IsTouchedHere() && !IsOpen(thing)));
  }
  bool IsOpen(const Thing& thing) {
    return std::any_of(handles.begin(), handles.end(),
                       [&](const Handle& handle) { return &At(handle.thing) == &thing; });
  }
  int FileHere() {
    return Pick([&](const Thing& thing) { return !thing.folder && IsFreeHere(thing); });
  }
  int FolderHere() {
    const int found = Pick([&](const Thing& thing) { return thing.folder && IsFreeHere(thing); });
    return found == kNobody || Dice(3) == 0 ? 0 : found;
  }
  int FileThere() {
    return Pick([&](const Thing& thing) { return !thing.folder && IsFreeThere(thing); });
  }
  int FolderThere() {
    const int found = Pick([&](const Thing& thing) {
      return thing.folder && thing.there && !thing.id.empty() && (offline || thing.here);
    });
    return found == kNobody || Dice(3) == 0 ? 0 : found;
  }
  std::string Name(const char* side) {
    // Names meet only while nobody can know of the other's.
    return (offline ? "n" : side) + std::to_string(Dice(12)) + ".txt";
  }
  int ChildHere(int folder, const std::string& shown) {
    return Pick([&](const Thing& thing) {
      return thing.here && thing.here->parent == folder && thing.shown == shown;
    });
  }
  static bool IsBelow(const std::vector<Thing>& all, int thing, int ancestor,
                      std::optional<View> Thing::*side) {
    while (thing != 0 && thing != ancestor) thing = (all[static_cast<size_t>(thing)].*side)->parent;
    return thing == ancestor;
  }
  bool IsEmptyHere(int folder) {
    return std::none_of(things.begin() + 1, things.end(), [&](const Thing& thing) {
      return thing.here && thing.here->parent == folder;
    });
  }

  // What programs do.

  void WriteHere(int thing, OpenFile& file, const std::string& text, size_t offset) {
    const ssize_t written =
        drive->files.Write(file, {text.data(), text.size()}, static_cast<int64_t>(offset));
    if (written < 0 && offline) return;  // its bytes are not here
    ASSERT_EQ(written, static_cast<ssize_t>(text.size()));
    View& view = *At(thing).here;
    view.written = true;
    if (view.content.size() < offset + text.size()) view.content.resize(offset + text.size());
    view.content.replace(offset, text.size(), text);
    Note("write " + std::to_string(thing) + " " + Begin(view.content));
  }

  void Committed(int thing) {
    At(thing).committed = At(thing).here ? At(thing).here->content : "";
    At(thing).everCommitted = true;
  }

  /// Closes, or leaves it open.
  void Leave(Handle handle) {
    if (Dice(3) != 0) return Close(std::move(handle));
    if (Dice(2) == 0) {
      ASSERT_EQ(drive->files.Fsync(*handle.file), 0);
      Committed(handle.thing);
    }
    handles.push_back(std::move(handle));
  }

  void Close(Handle handle) {
    ASSERT_EQ(drive->files.Flush(*handle.file), 0);
    Committed(handle.thing);
    drive->files.Release(std::move(handle.file));
  }

  void CloseSome(bool all) {
    while (!handles.empty() && (all || Dice(2) == 0)) {
      Handle handle = std::move(handles.back());
      handles.pop_back();
      Close(std::move(handle));
    }
  }

  void CreateFile() {
    const int folder = FolderHere();
    const std::string name = Name("here");
    if (ChildHere(folder, name) != kNobody) return;
    Item item;
    Handle handle;
    const int error =
        drive->files.Create(At(folder).ino, name, O_CREAT | O_EXCL | O_WRONLY, item, handle.file);
    ASSERT_EQ(error, 0) << name;
    handle.thing = static_cast<int>(things.size());
    Thing thing;
    thing.ino = item.ino;
    thing.shown = name;
    thing.here = View{folder, name, "", true};
    thing.everCommitted = false;
    things.push_back(thing);
    Note("create " + std::to_string(handle.thing) + " " + name + " in " + std::to_string(folder));
    if (Dice(8) != 0) WriteHere(handle.thing, *handle.file, Text(), 0);
    Leave(std::move(handle));
  }

  void EditFile() {
    const int thing = FileHere();
    if (thing == kNobody) return;
    Handle handle;
    handle.thing = thing;
    const bool fresh = Dice(2) == 0;
    ASSERT_EQ(drive->files.Open(At(thing).ino, O_RDWR | (fresh ? O_TRUNC : 0), handle.file), 0);
    std::string& content = At(thing).here->content;
    if (fresh) content.clear();
    const int size = static_cast<int>(content.size());
    WriteHere(thing, *handle.file, Text(),
              static_cast<size_t>(Dice(2) == 0 ? size : Dice(size + 1)));
    Leave(std::move(handle));
  }

  void EditThroughHandle() {
    if (handles.empty()) return;
    Handle& handle = handles[static_cast<size_t>(Dice(static_cast<int>(handles.size())))];
    if (At(handle.thing).here) {
      if (!IsFreeHere(At(handle.thing))) return;
      const size_t size = At(handle.thing).here->content.size();
      return WriteHere(handle.thing, *handle.file, Text(), size);
    }
    drive->files.Write(*handle.file, {"lost", 4}, 0);  // its name is gone
  }

  void Cut() {
    const int thing = FileHere();
    if (thing == kNobody) return;
    std::string& content = At(thing).here->content;
    const auto size = static_cast<size_t>(Dice(static_cast<int>(content.size()) + 20));
    const int error = drive->files.Truncate(At(thing).ino, static_cast<int64_t>(size));
    if (error != 0 && offline) return;
    ASSERT_EQ(error, 0);
    content.resize(size);
    Note("cut " + std::to_string(thing) + " to " + std::to_string(size));
    At(thing).here->written = true;
    if (!IsOpen(At(thing))) Committed(thing);
  }

  void MakeFolderHere() {
    const int folder = FolderHere();
    const std::string name = Name("folder here");
    if (ChildHere(folder, name) != kNobody) return;
    Item item;
    const int error = drive->tree.MakeFolder(At(folder).ino, name, item);
    if (error == EEXIST && !offline) return;  // others have taken the name
    ASSERT_EQ(error, 0) << name;
    Thing thing;
    thing.folder = true;
    thing.ino = item.ino;
    thing.shown = name;
    thing.here = View{folder, name, "", false};
    Note("mkdir " + std::to_string(things.size()) + " " + name + " in " + std::to_string(folder));
    things.push_back(thing);
  }

  void RenameHere() {
    const int thing = Pick([&](const Thing& candidate) {
      return IsFreeHere(candidate) && (!candidate.folder || foldersMoveHere);
    });
    if (thing == kNobody) return;
    int folder = Dice(2) == 0 ? At(thing).here->parent : FolderHere();
    std::string name = Name("here");
    if (const int other = FileHere(); Dice(2) == 0 && other != kNobody) {
      folder = At(other).here->parent;
      name = At(other).shown;
    }
    const int over = ChildHere(folder, name);
    if (over == thing || IsBelow(things, folder, thing, &Thing::here)) return;
    if (over != kNobody && (At(over).folder != At(thing).folder || !IsFreeHere(At(over)) ||
                            (At(over).folder && !IsEmptyHere(over))))
      return;
    View& view = *At(thing).here;
    const int error =
        drive->tree.Rename(At(view.parent).ino, At(thing).shown, At(folder).ino, name, 0);
    if (error == ENOTEMPTY && !offline) return;  // others have put something into it
    ASSERT_EQ(error, 0) << At(thing).shown << " -> " << name;
    Note("rename " + std::to_string(thing) + " to " + name + " in " + std::to_string(folder) +
         (over == kNobody ? "" : " over " + std::to_string(over)));
    if (over != kNobody) At(over).here.reset();
    if (over != kNobody) At(thing).over = over;
    if (At(thing).shown != name) view.name = name;
    At(thing).shown = name;
    view.parent = folder;
  }

  void RemoveHere() {
    const int thing = Pick([&](const Thing& candidate) { return IsFreeHere(candidate); });
    if (thing == kNobody || (At(thing).folder && !IsEmptyHere(thing))) return;
    const Inode folder = At(At(thing).here->parent).ino;
    const int error = At(thing).folder ? drive->tree.RemoveFolder(folder, At(thing).shown)
                                       : drive->tree.RemoveFile(folder, At(thing).shown);
    if (error == ENOTEMPTY && !offline) return;  // others have put something into it
    ASSERT_EQ(error, 0) << At(thing).shown;
    Note("remove " + std::to_string(thing) + " " + At(thing).shown);
    At(thing).here.reset();
  }

  void SetTimeHere() {
    const int thing = FileHere();
    if (thing == kNobody) return;
    const int64_t time = int64_t{1'000'000'000} * Dice(1'700'000'000);
    ASSERT_EQ(drive->files.SetTime(At(thing).ino, time), 0);
  }

  void ReadHere() {
    const int thing = FileHere();
    if (thing == kNobody) return;
    const std::string read = Slurp(At(thing).ino);
    const bool fetched = !offline || !read.starts_with("(error");
    EXPECT_TRUE(!fetched || read == At(thing).here->content) << At(thing).shown;
  }

  std::string Slurp(Inode ino) {
    Item item;
    std::unique_ptr<OpenFile> file;
    if (drive->tree.Get(ino, item) != 0 || drive->files.Open(ino, O_RDONLY, file) != 0)
      return "(unopened)";
    drive->files.Overlay(item);
    std::string content(static_cast<size_t>(item.size), '\0');
    const ssize_t count = drive->files.Read(*file, content, 0);
    drive->files.Release(std::move(file));
    return count == item.size ? content : "(error " + std::to_string(count) + ")";
  }

  void OperateHere() {
    const bool many = things.size() > 40;
    switch (Dice(20)) {
      case 0:
      case 1:
      case 2:
        return many ? RemoveHere() : CreateFile();
      case 3:
      case 4:
      case 5:
        return EditFile();
      case 6:
        return EditThroughHandle();
      case 7:
        return Cut();
      case 8:
        return MakeFolderHere();
      case 9:
      case 10:
      case 11:
      case 12:
      case 13:
        return RenameHere();
      case 14:
      case 15:
        return RemoveHere();
      case 16:
        return SetTimeHere();
      case 17:
        return ReadHere();
      default:
        return CloseSome(false);
    }
  }

  // What others do.

  void CreateThere() {
    const int folder = FolderThere();
    Thing thing;
    thing.folder = Dice(4) == 0;
    thing.there = View{folder, Name("there"), thing.folder ? "" : Text(), true};
    thing.id = service.PutUnder(At(folder).id, thing.there->name, thing.there->content,
                                thing.folder ? kFolderType : "text/plain");
    Note("THERE create " + std::to_string(things.size()) + " " + thing.there->name + " in " +
         std::to_string(folder) + " " + Begin(thing.there->content));
    things.push_back(thing);
  }

  void EditThere() {
    const int thing = FileThere();
    if (thing == kNobody) return;
    View& view = *At(thing).there;
    view.content = Text();
    view.written = true;
    Note("THERE write " + std::to_string(thing) + " " + Begin(view.content));
    service.Write(At(thing).id, view.content);
  }

  /// Folders only while this host cannot know of it, and only those that it does not move itself.
  int AnyThere(bool moving) {
    return Pick([&](const Thing& thing) {
      return IsFreeThere(thing) && (!thing.folder || (offline && (!moving || !foldersMoveHere)));
    });
  }

  void RenameThere() {
    const int thing = AnyThere(false);
    if (thing == kNobody) return;
    At(thing).there->name = Name("there");
    Note("THERE rename " + std::to_string(thing) + " " + At(thing).there->name);
    service.Rename(At(thing).id, At(thing).there->name);
  }

  void MoveThere() {
    const int thing = AnyThere(true);
    const int folder = FolderThere();
    if (thing == kNobody || IsBelow(things, folder, thing, &Thing::there)) return;
    if (!offline) {
      // Where it arrives, programs must not meet it by a name of theirs.
      At(thing).there->name = "moved " + std::to_string(thing) + ".txt";
      service.Rename(At(thing).id, At(thing).there->name);
    }
    At(thing).there->parent = folder;
    Note("THERE move " + std::to_string(thing) + " to " + std::to_string(folder));
    service.Move(At(thing).id, At(folder).id);
  }

  void RemoveThere() {
    const int thing = AnyThere(false);
    if (thing == kNobody) return;
    const bool trash = Dice(2) == 0;
    Note((trash ? "THERE trash " : "THERE remove ") + std::to_string(thing));
    if (trash)
      service.Trash(At(thing).id);
    else
      service.Remove(At(thing).id);
    for (int i = 1; i < static_cast<int>(things.size()); ++i)
      if (i != thing && At(i).there && IsBelow(things, i, thing, &Thing::there)) below.push_back(i);
    for (const int i : below) At(i).there.reset();
    below.clear();
    At(thing).there.reset();
  }

  void OperateThere() {
    switch (Dice(8)) {
      case 0:
      case 1:
        return CreateThere();
      case 2:
      case 3:
      case 4:
        return EditThere();
      case 5:
        return RenameThere();
      case 6:
        return MoveThere();
      default:
        return RemoveThere();
    }
  }

  // The network, and the end of the host.

  void CutNetwork() {
    emulator::Fault fault;
    fault.kind = "reset-before";
    fault.times = 1'000'000'000;
    service.ClearFaults();  // those that came first would be served first
    service.Inject(fault);
  }

  void InjectFaults() {
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

  void Restart() {
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

  /// Writes that no close had returned for may be there or not.
  void TakeUpInterrupted() {
    for (Thing& thing : things) {
      if (!thing.here || thing.folder) continue;
      if (thing.here->content == thing.committed && thing.everCommitted) continue;
      std::string shown = Slurp(thing.ino);
      if (offline && shown.starts_with("(error")) {  // only clean bytes can be missing
        const Thing* replaced = ReplacedAtService(thing);
        shown = thing.everCommitted || !replaced ? thing.committed : replaced->base->content;
      }
      const Thing* replaced = Replaced(thing, [&](const Thing& other) {
        return (other.base && other.base->content == shown) ||
               (other.everCommitted && other.committed == shown);
      });
      EXPECT_TRUE(shown == thing.here->content || replaced ||
                  (thing.everCommitted && shown == thing.committed))
          << thing.shown << ": " << shown.substr(0, 60);
      if (thing.base && shown == thing.base->content) thing.here->written = false;
      if (Thing* at = replaced && !thing.base ? ReplacedAtService(thing) : nullptr)
        TakeOver(thing, *at, shown);
      thing.here->content = thing.committed = shown;
      thing.everCommitted = true;
    }
    const std::vector<Thing> known = things;
    for (int i = 0; i < static_cast<int>(known.size()); ++i)
      if (known[static_cast<size_t>(i)].folder && known[static_cast<size_t>(i)].here)
        TakeUpRecovered(i);
  }

  /// The nearest of those that it was renamed over, one after the other.
  template <typename Condition>
  Thing* Replaced(const Thing& thing, Condition&& condition) {
    for (int over = thing.over; over != kNobody; over = At(over).over)
      if (condition(At(over))) return &At(over);
    return nullptr;
  }
  Thing* ReplacedAtService(const Thing& thing) {
    return Replaced(thing, [](const Thing& other) { return other.base.has_value(); });
  }

  /// It has the Drive id of what it replaced, and bytes of that, none of its own.
  static void TakeOver(Thing& thing, Thing& replaced, const std::string& shown) {
    thing.id = replaced.id;
    thing.base = std::exchange(replaced.base, std::nullopt);
    thing.there = std::exchange(replaced.there, std::nullopt);
    thing.here->written = shown != thing.base->content;
  }

  void TakeUpRecovered(int folder) {
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

  // What is told of a failure.

  void Note(const std::string& what) {
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    history.emplace(now.count(), what);
  }
  /// With the requests that were to change something.
  std::string History() {
    for (const emulator::JournalEntry& entry : service.Journal())
      if (entry.httpMethod != "GET")
        history.emplace(entry.startSeconds, "    " + entry.httpMethod + " " + entry.path + " " +
                                                entry.query + " " +
                                                entry.requestBody.substr(0, 120) + " -> " +
                                                std::to_string(entry.status));
    std::string text = offline ? "offline\n" : "online\n";
    for (const auto& [at, what] : history) text += "  " + what + "\n";
    return text;
  }
  static std::string Begin(const std::string& content) {
    return "\"" + content.substr(0, 40) + "\" (" + std::to_string(content.size()) + ")";
  }

  // What must be there in the end.

  void Claims() {
    for (const Thing& thing : things)
      if (!thing.folder) ClaimContent(thing);
  }

  void ClaimContent(const Thing& thing) {
    if (!thing.base) {
      if (thing.here) ++claims[thing.here->content].must;
      if (thing.there) ++claims[thing.there->content].must;
      return;
    }
    const bool writtenHere = thing.here && thing.here->written;
    const bool writtenThere = thing.there && thing.there->written;
    if (writtenHere) ++claims[thing.here->content].must;
    if (writtenThere) ++claims[thing.there->content].must;
    if (thing.here && thing.there && !writtenHere && !writtenThere)
      ++claims[thing.base->content].must;
    // One side moved it, the other removed it; or its bytes went over to another's place.
    const bool moved = thing.IsMovedHere() || (thing.there && !thing.there->IsAt(*thing.base));
    if ((!thing.here || !thing.there || writtenThere) && (moved || thing.over != kNobody))
      ++claims[thing.base->content].may;
  }

  /// The path that a thing must have at the service; empty where both sides had a say.
  std::string PathOf(int index) {
    std::string path;
    for (int i = index; i != 0;) {
      const Thing& thing = At(i);
      if (thing.IsTouchedHere() && thing.IsTouchedThere()) return "";
      if (thing.base && (!thing.here || !thing.there)) return "";
      // It may have got the Drive id, and with it the history, of what it replaced.
      if (thing.over != kNobody && offline) return "";
      const View& view = !thing.there || thing.IsTouchedHere() ? *thing.here : *thing.there;
      path = "/" + view.name + path;
      i = view.parent;
    }
    return path;
  }

  void CompareWithService() {
    std::multimap<std::string, std::string> found;  // content, path
    std::multiset<std::string> folders;
    WalkService(service.RootId(), "", found, folders);
    for (const auto& [content, claim] : claims) {
      const int count = static_cast<int>(found.count(content));
      EXPECT_GE(count, claim.must) << "missing: " << Describe(content);
      EXPECT_LE(count, claim.must + claim.may) << "too often: " << Describe(content);
    }
    for (const auto& [content, path] : found)
      EXPECT_EQ(claims.count(content), 1u) << "unexpected: " << path << ": " << Describe(content);
    for (int i = 1; i < static_cast<int>(things.size()); ++i) {
      const Thing& thing = At(i);
      const std::string path = thing.here || thing.there ? PathOf(i) : "";
      if (path.empty()) continue;
      const View& view = thing.here && thing.here->written ? *thing.here
                         : thing.there                     ? *thing.there
                                                           : *thing.here;
      const auto [from, to] = found.equal_range(view.content);
      const bool there =
          thing.folder ? folders.count(path) > 0
                       : std::any_of(from, to, [&](const auto& at) { return at.second == path; });
      std::string places;
      for (auto at = from; at != to; ++at) places += " " + at->second;
      EXPECT_TRUE(there) << "not at its place: " << path << " " << Describe(view.content)
                         << "\nbut at" << places;
    }
    const auto known = std::count_if(things.begin() + 1, things.end(),
                                     [](const Thing& thing) { return thing.folder; });
    EXPECT_LE(static_cast<int64_t>(folders.size()), known) << "folders were doubled";
  }

  std::string Describe(const std::string& content) {
    std::string text = Begin(content);
    for (const Thing& thing : things) {
      for (const auto& [side, view] :
           {std::pair("base", &thing.base), {"here", &thing.here}, {"there", &thing.there}})
        if (*view && (*view)->content == content && !thing.folder)
          text += std::string(" ") + side + " " + std::to_string(&thing - things.data()) + ":" +
                  (*view)->name + " in " + std::to_string((*view)->parent);
    }
    return text;
  }

  void WalkService(const std::string& folder, const std::string& path,
                   std::multimap<std::string, std::string>& found,
                   std::multiset<std::string>& folders) {
    for (const std::string& id : service.Children(folder)) {
      const std::string name = path + "/" + service.Item(id)["name"].asString();
      const std::optional<std::string> content = service.Content(id);
      if (content) found.emplace(*content, name);
      if (content) continue;
      folders.insert(name);
      WalkService(id, name, found, folders);
    }
  }

  /// Compares a folder of the mount with the service's and takes it up as the next round's base.
  void TakeUp(int folder) {
    std::vector<Item> items;
    const std::string id = At(folder).id;
    ASSERT_EQ(drive->tree.List(At(folder).ino, items), 0);
    std::set<std::string> shown;
    for (const Item& item : items) shown.insert(item.id);
    const std::vector<std::string> listed = service.Children(id);
    EXPECT_EQ(shown, std::set<std::string>(listed.begin(), listed.end()))
        << "in " << At(folder).shown;
    EXPECT_EQ(items.size(), shown.size());
    for (const Item& item : items) {
      Thing thing;
      thing.folder = item.IsFolder();
      thing.id = item.id;
      thing.ino = item.ino;
      thing.shown = item.name;
      const std::string content = item.IsFolder() ? "" : Slurp(item.ino);
      thing.base = View{folder, service.Item(item.id)["name"].asString(), content, false};
      thing.here = thing.there = thing.base;
      thing.committed = content;
      EXPECT_TRUE(thing.folder || content == service.Content(item.id))
          << item.name << " differs: " << content.substr(0, 40);
      things.push_back(thing);
      if (item.IsFolder()) TakeUp(static_cast<int>(things.size()) - 1);
    }
  }

  void TakeUpAll() {
    things.assign(1, Thing{});
    things[0].folder = true;
    things[0].id = service.RootId();
    things[0].ino = Find("");
    things[0].base = things[0].here = things[0].there = View{};
    TakeUp(0);
  }

  void RefreshBelow(Inode folder) {
    const int error = drive->folders.RefreshNow(folder);
    ASSERT_NE(error, ETIMEDOUT);  // a folder that is gone cannot be listed
    std::vector<Item> items;
    drive->tree.List(folder, items);
    for (const Item& item : items)
      if (item.IsFolder()) RefreshBelow(item.ino);
  }

  void Round() {
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

  void Run(int seed, int rounds) {
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

  std::mt19937 random;
  std::multimap<double, std::string> history;  // of this round, by seconds since 1970
  int texts = 0;
  bool offline = false;          // in this round
  bool foldersMoveHere = false;  // in this round; else they may be moved elsewhere
  std::vector<Thing> things;     // the first is the root
  std::vector<int> below;
  std::vector<Handle> handles;
  std::map<std::string, Claim> claims;
};

TEST_P(Model, LosesNothingDoublesNothingKeepsBoth) {
  Run(FromEnvironment("VORMLANE_SEED", GetParam()), FromEnvironment("VORMLANE_ROUNDS", 10));
}

INSTANTIATE_TEST_SUITE_P(Seeds, Model, ::testing::Range(1, 5));

}  // namespace
}  // namespace host::mount
