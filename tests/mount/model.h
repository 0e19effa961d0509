// Random work of programs on the mount and of people elsewhere, against a reference.
//
// Each round begins with mount and service alike. Then programs work here and others work at the
// service, in some rounds while the network is away (so that nobody knows of the other's work), in
// some while everything is on its way; the drive is ended or killed in between. When all has been
// sent and listed again, nothing that anybody wrote may be missing, doubled or back from the dead,
// both versions of what was changed on both sides must be there, and mount and service alike.
//
// VORMLANE_SEED and VORMLANE_ROUNDS choose which work and how much.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "tests/mount/drive_fixture.h"

namespace host::mount {

inline constexpr char kFolderType[] = "application/vnd.google-apps.folder";
inline constexpr int kNobody = -1;

/// What one side makes of a file or folder.
struct View {
  int parent = 0;
  std::string name;
  std::string content;
  bool written = false;  ///< in this round
  bool moved = false;    ///< or renamed, in this round; perhaps back

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
  std::vector<int> over;  ///< whom it was renamed over here, and they before, the latest last
  View made;              ///< a folder, as it was made here in this round

  bool IsMovedHere() const { return base && here && !here->IsAt(*base); }
  bool IsTouchedHere() const {
    return base && (!here || here->written || here->moved || !over.empty());
  }
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

class Model : public DriveFixture, public ::testing::WithParamInterface<int> {
 protected:
  Model() {
    service.Put("a/b/first.txt", "first");
    service.Put("c/second.txt", "second");
    Begin();
  }
  ~Model() override;

  /// Others trash folders as soon as the network is away, a moment after they were last seen.
  void Begin();
  int Dice(int sides);

  /// A text like no other.
  std::string Text();

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
  bool IsFreeHere(const Thing& thing);
  bool IsFreeThere(const Thing& thing);
  bool IsOpen(const Thing& thing);
  int FileHere();
  int FolderHere();
  int FileThere();
  int FolderThere();
  std::string Name(const char* side);
  int ChildHere(int folder, const std::string& shown);
  static bool IsBelow(const std::vector<Thing>& all, int thing, int ancestor,
                      std::optional<View> Thing::*side);
  bool IsEmptyHere(int folder);

  // What programs do.

  void WriteHere(int thing, OpenFile& file, const std::string& text, size_t offset);
  void Committed(int thing);

  /// Closes, or leaves it open.
  void Leave(Handle handle);
  void Close(Handle handle);
  void CloseSome(bool all);
  void CreateFile();
  void EditFile();
  void EditThroughHandle();
  void Cut();
  void MakeFolderHere();
  void RenameHere();
  void RemoveHere();
  void SetTimeHere();
  void ReadHere();
  std::string Slurp(Inode ino);
  void OperateHere();

  // What others do.

  void CreateThere();
  void EditThere();

  /// Folders only while this host cannot know of it, and only those that it does not move itself.
  int AnyThere(bool moving);
  void RenameThere();
  void MoveThere();
  void RemoveThere();
  void OperateThere();

  // The network, and the end of the host.

  void CutNetwork();
  void InjectFaults();
  void Restart();

  /// Writes that no close had returned for may be there or not.
  void TakeUpInterrupted();

  /// The latest of those that it was renamed over.
  template <typename Condition>
  Thing* Replaced(const Thing& thing, Condition&& condition) {
    for (auto over = thing.over.rbegin(); over != thing.over.rend(); ++over)
      if (condition(At(*over))) return &At(*over);
    return nullptr;
  }
  Thing* ReplacedAtService(const Thing& thing);

  /// It has the Drive id of what it replaced, and bytes of that, none of its own.
  static void TakeOver(Thing& thing, Thing& replaced, const std::string& shown);
  void TakeUpRecovered(int folder);

  // What is told of a failure.

  void Note(const std::string& what);
  /// With the requests that were to change something.
  std::string History();
  static std::string Begin(const std::string& content);

  // What must be there in the end.

  void Claims();
  void ClaimContent(const Thing& thing);

  /// The path that a thing must have at the service; empty where both sides had a say.
  std::string PathOf(int index);
  bool MayBeTakenForOurs(const Thing& thing);
  void CompareWithService();
  std::string Describe(const std::string& content);
  void WalkService(const std::string& folder, const std::string& path,
                   std::multimap<std::string, std::string>& found,
                   std::multiset<std::string>& folders);

  /// Compares a folder of the mount with the service's and takes it up as the next round's base.
  void TakeUp(int folder);
  void TakeUpAll();
  void RefreshBelow(Inode folder);
  void Round();
  void Run(int seed, int rounds);

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

}  // namespace host::mount
