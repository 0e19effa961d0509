#include "emulator/seed.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <vector>

#include "emulator/drive_emulator.h"
#include "emulator/ids.h"
#include "emulator/vocabulary.h"

namespace emulator {

namespace {

constexpr char kColleague[] = "ada@example.com";
constexpr int64_t kSeedTime = 1'709'294'400'000;  // 2024-03-01T12:00:00Z
constexpr int64_t kFilesInFolder = 1000;

std::string Lines(const std::string& what, int count) {
  std::string text;
  for (int i = 1; i <= count; ++i) text += what + ", line " + std::to_string(i) + "\n";
  return text;
}

void FillPhotos(Vocabulary& say) {
  for (int year = 2021; year <= 2023; ++year) {
    for (int month = 1; month <= 12; ++month) {
      const std::string folder = "Photos/" + std::to_string(year) + "/" + (month < 10 ? "0" : "") +
                                 std::to_string(month) + "/";
      for (int i = 1; i <= 8; ++i) {
        say.PutSynthetic(folder + "IMG_" + std::to_string(1000 + month * 40 + i) + ".jpg",
                         120'000 + 7919 * i + month, kDemoUser);
      }
    }
  }
}

void FillDocuments(Vocabulary& say) {
  say.Put("Welcome.txt", "This drive belongs to nobody. Write in it what you like.\n", "",
          kDemoUser);
  for (const char* name : {"Contract", "Invoice 2023-11", "Invoice 2023-12", "Minutes", "Travel"}) {
    say.Put(std::string("Documents/") + name + ".md", Lines(name, 40), "", kDemoUser);
  }
  say.Put("Documents/empty.txt", "", "", kDemoUser);
  say.Put("Documents/deep/er/and/deeper/bottom.txt", "the bottom\n", "", kDemoUser);
  say.Put("Projects/engine/main.c", "int main(void) { return 0; }\n", "", kDemoUser);
  say.Put("Projects/engine/notes/plan.md", Lines("plan", 12), "", kDemoUser);
  for (int i = 1; i <= 30; ++i) {
    say.Put("Projects/measurements/run-" + std::to_string(i) + ".csv",
            "time,value\n0," + std::to_string(i) + "\n1," + std::to_string(i * i) + "\n", "",
            kDemoUser);
  }
  say.PutSynthetic("Videos/recording.mp4", 64LL << 20, kDemoUser);
}

void FillGoogleDocuments(Vocabulary& say) {
  const std::string folder = say.MakeFolder("Google documents", kDemoUser);
  for (const auto& [name, kind] : {std::pair{"Report", "document"},
                                   {"Budget", "spreadsheet"},
                                   {"Pitch", "presentation"},
                                   {"Sketch", "drawing"},
                                   {"Survey", "form"},
                                   {"Macro", "script"},
                                   {"Site", "site"},
                                   {"Map", "fusiontable"}}) {
    say.PutUnder(folder, name, "", std::string("application/vnd.google-apps.") + kind);
  }
}

void FillNames(Store& store, Vocabulary& say) {
  const std::string folder = say.MakeFolder("Names", kDemoUser);
  for (const char* name :
       {"r\u00e9sum\u00e9 d'\u00e9t\u00e9.txt", "\u00c4rger \u00fcber \u00d6l.txt",
        "\u6587\u4ef6.txt", "rocket \U0001F680.txt", "either/or.txt", "twin.txt", "twin.txt",
        "Case.txt", "case.txt", " leading and trailing .txt", "quote ' and \".txt", "no ending",
        ".hidden", "back\\slash.txt"}) {
    say.PutUnder(folder, name, std::string("named ") + name + "\n", "text/plain");
  }
  Item both = say.ItemOf(
      say.Put("Projects/shared between folders.txt", "I live in two folders.\n", "", kDemoUser));
  store.SetParents(both, {say.ItemOf(say.MakeFolder("Projects", kDemoUser)),
                          say.ItemOf(say.MakeFolder("Documents", kDemoUser))});
}

void FillTeamDrives(Store& store, Vocabulary& say) {
  const int64_t organizer = say.UserOf(kDemoUser).n;
  for (const char* name : {"Engineering", "Marketing"}) {
    const Item drive = store.AddDrive(name, organizer, RootFolderId(HashText(name)));
    say.ShareWith(drive.id, kColleague, "fileOrganizer");
    const std::string plans = say.PutUnder(drive.id, "Plans", "", kFolderType);
    for (int i = 1; i <= 12; ++i) {
      say.PutUnder(plans, std::string(name) + " plan " + std::to_string(i) + ".md",
                   Lines(name, 5 + i), "");
    }
    say.PutUnder(drive.id, "Read me.txt", std::string("The drive of ") + name + ".\n", "");
  }
}

void FillShared(Vocabulary& say) {
  for (int i = 1; i <= 5; ++i) {
    say.ShareWith(say.Put("To be shared/letter " + std::to_string(i) + ".txt", Lines("letter", i),
                          "", kColleague),
                  kDemoUser, i % 2 == 0 ? "writer" : "reader");
  }
  const std::string folder = say.MakeFolder("Common work", kColleague);
  say.Put("Common work/agenda.md", Lines("agenda", 9), "", kColleague);
  say.Put("Common work/archive/old agenda.md", Lines("old agenda", 9), "", kColleague);
  say.ShareWith(folder, kDemoUser, "writer");
}

void FillDemo(Store& store) {
  Vocabulary say(store);
  say.FreezeTime(kSeedTime);
  store.AddUser(kColleague, "Ada Example", RootFolderId(HashText(kColleague)));
  FillDocuments(say);
  FillPhotos(say);
  FillGoogleDocuments(say);
  FillNames(store, say);
  FillTeamDrives(store, say);
  FillShared(say);
}

void FillNumber(Store& store, int64_t files) {
  Vocabulary say(store);
  say.FreezeTime(kSeedTime);
  const Item root = say.ItemOf(say.UserOf(kDemoUser).rootId);
  std::vector<Item> folders;
  for (int64_t made = 0; made < files; made += kFilesInFolder) {
    folders.push_back(say.ItemOf(
        say.PutUnder(root.id, "folder " + std::to_string(folders.size()), "", kFolderType)));
  }
  store.Fill([&] {
    int64_t made = 0;
    for (const Item& folder : folders) {
      const int64_t count = std::min(kFilesInFolder, files - made);
      store.AddMany(folder, count, "file-", static_cast<uint64_t>(made));
      made += count;
    }
  });
}

}  // namespace

void Seed(Store& store, const std::string& seed) {
  const auto work = store.Begin();
  store.AddUser(kDemoUser, "Demo User", RootFolderId(HashText(kDemoUser)));
  int64_t files = 0;
  const auto [end, error] = std::from_chars(seed.data(), seed.data() + seed.size(), files);
  if (seed == "demo") {
    FillDemo(store);
  } else if (error == std::errc() && end == seed.data() + seed.size() && files >= 0) {
    FillNumber(store, files);
  } else if (seed != "empty") {
    throw std::invalid_argument("the seed \"" + seed + "\" is neither demo, empty nor a number");
  }
  // Root folders are made by the store, which knows only the present.
  store.Sql().Run("UPDATE items SET created = ?, modified = ? WHERE root = 1", kSeedTime,
                  kSeedTime);
}

}  // namespace emulator
