// ls, stat, cat, get, df, whoami
#include <signal.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>

#include "tests/host/drive_fixture.h"

namespace host_test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class DemoDrive : public DriveFixture {
 protected:
  DemoDrive() : DriveFixture("demo") {}
};
class EmptyDrive : public DriveFixture {};

/// The ending under which a Google document is shown; empty for everything else.
std::string DocumentEnding(const std::string& mimeType) {
  static const std::map<std::string, std::string> kTypes = {
      {"document", "Google Docs"},       {"drawing", "Google Drawing"},
      {"form", "Google Forms"},          {"fusiontable", "Google Fusion Tables"},
      {"presentation", "Google Slides"}, {"script", "Google Apps Scripts"},
      {"sites", "Google Sites"},         {"spreadsheet", "Google Sheets"}};
  const std::string prefix = "application/vnd.google-apps.";
  if (mimeType.rfind(prefix, 0) != 0) return {};
  const auto found = kTypes.find(mimeType.substr(prefix.size()));
  return found == kTypes.end() ? std::string() : "." + found->second + ".webloc";
}

std::string Trimmed(const std::string& name) {
  const size_t first = name.find_first_not_of(" \t\n");
  return first == std::string::npos
             ? ""
             : name.substr(first, name.find_last_not_of(" \t\n") + 1 - first);
}

using Lines = std::multiset<std::string>;

/// One line for each item of the emulator's own dump.
void AddDumped(const Json::Value& node, const std::string& folder, Lines& lines) {
  const std::string ending = DocumentEnding(node["mimeType"].asString());
  const bool isFolder = node.isMember("children");
  const std::string path = folder + "/" + Trimmed(node["name"].asString()) + ending;
  const std::string kind = isFolder ? "folder" : ending.empty() ? "file" : "document";
  const std::string size = kind == "file" ? std::to_string(node["size"].asInt64()) : "";
  // The listing of team drives brings no times.
  const std::string time = folder == "/Team Drives" ? "" : node["modifiedTime"].asString();
  lines.insert(path + " " + node["id"].asString() + " " + kind + " " + size + " " + time);
  for (const Json::Value& child : node["children"]) AddDumped(child, path, lines);
}

/// The same for what `ls -R --json` shows.
void AddShown(const Json::Value& nodes, const std::string& folder, Lines& lines) {
  for (const Json::Value& node : nodes) {
    const std::string path = folder + "/" + node["name"].asString();
    const std::string kind = node["kind"].asString();
    const std::string size = kind == "file" ? std::to_string(node["size"].asInt64()) : "";
    if (kind != "virtual folder")
      lines.insert(path + " " + node["id"].asString() + " " + kind + " " + size + " " +
                   (folder == "/Team Drives" ? "" : node["modified"].asString()));
    AddShown(node["children"], path, lines);
  }
}

TEST_F(DemoDrive, TheWholeTreeIsTheServicesOwn) {
  const Json::Value dump = drive.DumpTree();
  Lines expected, shown;
  AddDumped(dump["root"], "", expected);
  for (const Json::Value& node : dump["sharedWithMe"]) AddDumped(node, "/Shared with me", expected);
  for (const Json::Value& node : dump["teamDrives"]) AddDumped(node, "/Team Drives", expected);
  AddShown(JsonOutput({"ls", "-R", "/"}), "", shown);
  Lines missing, surplus;
  std::set_difference(expected.begin(), expected.end(), shown.begin(), shown.end(),
                      std::inserter(missing, missing.end()));
  std::set_difference(shown.begin(), shown.end(), expected.begin(), expected.end(),
                      std::inserter(surplus, surplus.end()));
  EXPECT_THAT(missing, testing::IsEmpty());
  EXPECT_THAT(surplus, testing::IsEmpty());
  EXPECT_GT(expected.size(), 300u);
}

TEST_F(DemoDrive, ADocumentIsAFileThatLeadsToTheWeb) {
  const std::string id =
      drive.PutUnder(drive.RootId(), "Plan", "", "application/vnd.google-apps.document");
  const std::string text = Output({"cat", "/My Drive/Plan.Google Docs.webloc"});
  EXPECT_THAT(text, HasSubstr(drive.Item(id)["webViewLink"].asString()));
  EXPECT_EQ(Output({"cat", "id:" + id, "--offset", "3", "--length", "10"}), text.substr(3, 10));
}

TEST_F(DemoDrive, TheAccountAndItsSpaceAreTheServices) {
  drive.SetQuota(emulator::kDemoUser, 1 << 30);
  EXPECT_THAT(Output({"whoami"}), HasSubstr("<demo@example.com>"));
  const Json::Value space = JsonOutput({"df"});
  EXPECT_EQ(space["total"].asInt64(), 1 << 30);
  EXPECT_EQ(space["used"].asInt64(), drive.QuotaUsed());
  EXPECT_EQ(space["free"].asInt64(), (1 << 30) - drive.QuotaUsed());
}

TEST_F(EmptyDrive, OddRangesAreTheServicesBytes) {
  constexpr int64_t kSize = 3 * 524288 + 17;
  const std::string id = drive.PutSynthetic("big.bin", kSize);
  const std::vector<std::pair<int64_t, int64_t>> ranges = {
      {0, 1},         {1, 524287},      {7, 524288}, {524287, 2},     {13, 524289}, {99, 0},
      {kSize - 1, 1}, {kSize - 5, 100}, {kSize, 10}, {kSize + 10, 1}, {0, kSize}};
  for (const auto& [offset, length] : ranges) {
    const std::string bytes = Output({"cat", "/My Drive/big.bin", "--offset",
                                      std::to_string(offset), "--length", std::to_string(length)});
    const int64_t count = std::clamp<int64_t>(kSize - offset, 0, length);
    const std::string expected = count == 0 ? "" : drive.Content(id, offset, count).value();
    EXPECT_TRUE(bytes == expected) << offset << "+" << length << ": " << bytes.size() << " bytes";
  }
  EXPECT_TRUE(Output({"cat", "id:" + id}) == drive.Content(id, 0, kSize));
}

TEST_F(EmptyDrive, PatternsListWhatTheyMatch) {
  for (const char* name : {"a.txt", "b.txt", "c.md", "star*.txt", "ä.txt"}) drive.Put(name, "x");
  EXPECT_EQ(Output({"ls", "/My Drive/?.txt"}), "a.txt\nb.txt\nä.txt\n");
  EXPECT_EQ(Output({"ls", "/My Drive/[bc].*"}), "b.txt\nc.md\n");
  EXPECT_EQ(Output({"ls", "/My Drive/star*.txt"}), "star*.txt\n") << "the name itself comes first";
  EXPECT_THAT(Complaint({"ls", "/My Drive/*.pdf"}), HasSubstr("matches \"*.pdf\""));
}

TEST_F(EmptyDrive, DifficultNamesAreShownAndReached) {
  drive.PutUnder(drive.RootId(), "in/out", "slash");
  drive.PutUnder(drive.RootId(), "back\\slash", "back");
  drive.PutUnder(drive.RootId(), "line\nfeed", "feed");
  drive.PutUnder(drive.RootId(), "id:x", "looks like an id");
  EXPECT_EQ(Output({"cat", "/My Drive/in\\/out"}), "slash");
  EXPECT_EQ(Output({"cat", "/My Drive/back\\\\slash"}), "back");
  EXPECT_EQ(Output({"cat", "/My Drive/back\\slash"}), "back");
  EXPECT_EQ(Output({"cat", "/My Drive/line\nfeed"}), "feed");
  EXPECT_EQ(Output({"cat", "/My Drive/id:x"}), "looks like an id");
  EXPECT_THAT(Output({"ls", "/My Drive"}), HasSubstr("line?feed\n"));
}

TEST_F(EmptyDrive, TwinsAreBothShownAndNeitherIsGuessed) {
  const std::string first = drive.PutUnder(drive.RootId(), "twin", "1");
  const std::string second = drive.PutUnder(drive.RootId(), "twin", "2");
  EXPECT_EQ(Output({"ls", "/My Drive"}), "twin\ntwin\n");
  EXPECT_THAT(Complaint({"cat", "/My Drive/twin"}),
              AllOf(HasSubstr("id:" + first), HasSubstr("id:" + second)));
  EXPECT_EQ(Output({"cat", "id:" + second}), "2");
  EXPECT_EQ(JsonOutput({"stat", "id:" + first})["name"], "twin");
}

TEST_F(EmptyDrive, AFolderOfManyPagesIsShownWhole) {
  drive.AddChildren(drive.MakeFolder("many"), 2345, "n");
  EXPECT_EQ(JsonOutput({"ls", "/My Drive/many"}).size(), 2345u);
}

TEST_F(EmptyDrive, GetWritesTheFileWithItsTime) {
  const std::string content = Bytes(1'000'003);
  const std::string id = drive.Put("folder/data.bin", content);
  Output({"get", "/My Drive/folder/data.bin", (Home() / "copy").string()});
  EXPECT_TRUE(ReadFile(Home() / "copy") == content);
  std::filesystem::create_directory(Home() / "in");
  Output({"get", "id:" + id, (Home() / "in").string()});
  EXPECT_TRUE(ReadFile(Home() / "in/data.bin") == content);
}

TEST_F(EmptyDrive, ANameFromTheServiceDoesNotLeadOutOfTheFolder) {
  const std::string id = drive.PutUnder(drive.RootId(), "../../outside", "x");
  std::filesystem::create_directories(Home() / "a/b");
  Output({"get", "id:" + id, (Home() / "a/b").string()});
  EXPECT_FALSE(std::filesystem::exists(Home() / "outside"));
  EXPECT_EQ(ReadFile(Home() / "a/b/.._.._outside"), "x");
}

class Downloads : public EmptyDrive {
 protected:
  Downloads() { std::filesystem::create_directory(Target().parent_path()); }
  std::filesystem::path Target() const { return Home() / "target/file"; }
  bool NothingIsThere() const { return std::filesystem::is_empty(Target().parent_path()); }
  /// Returns once a download has begun to write.
  void WaitUntilSomethingIsThere(const Process& process) const {
    while (NothingIsThere() && process.IsRunning()) usleep(1000);
  }
};

TEST_F(Downloads, AFullDiskLeavesTheOldFileAndNothingElse) {
  drive.PutSynthetic("big.bin", 5 << 20);
  WriteFile(Target(), "old");
  const std::string command = "trap '' XFSZ; ulimit -f 2048; exec " + program.string() +
                              " get '/My Drive/big.bin' " + Target().string();
  Process process({"/bin/bash", "-c", command}, Environment());
  EXPECT_THAT(ComplaintOf(process.Finish()), HasSubstr(Target().string()));
  EXPECT_EQ(ReadFile(Target()), "old");
  std::filesystem::remove(Target());
  EXPECT_TRUE(NothingIsThere());
}

TEST_F(Downloads, InterruptedInTheMiddleNothingIsLeft) {
  drive.PutSynthetic("big.bin", 64 << 20);
  drive.SetBandwidth(4 << 20);
  const auto process = Start({"get", "/My Drive/big.bin", Target().string()});
  WaitUntilSomethingIsThere(*process);
  process->Signal(SIGINT);
  EXPECT_THAT(ComplaintOf(process->Finish()), HasSubstr("was stopped"));
  EXPECT_TRUE(NothingIsThere());
}

TEST_F(Downloads, InterruptedWhileTheServiceIsSilentNothingIsLeft) {
  drive.PutSynthetic("big.bin", 8 << 20);
  emulator::Fault stall;
  stall.method = "drive.files.get.media";
  stall.kind = "delay-body";
  stall.at = 1 << 20;
  stall.delay = std::chrono::minutes(1);
  drive.Inject(stall);
  const auto process = Start({"get", "/My Drive/big.bin", Target().string()});
  WaitUntilSomethingIsThere(*process);
  process->Signal(SIGTERM);
  EXPECT_THAT(ComplaintOf(process->Finish()), HasSubstr("was stopped"));
  EXPECT_TRUE(NothingIsThere());
}

class BrokenDownloads : public Downloads {
 protected:
  /// Each of the next downloads ends one MiB after its beginning.
  void BreakDownloads(int times) {
    emulator::Fault fault;
    fault.method = "drive.files.get.media";
    fault.kind = "truncate";
    fault.at = 1 << 20;
    fault.times = times;
    drive.Inject(fault);
  }
  Arguments Get() const { return {"get", "/My Drive/big.bin", Target().string()}; }
};

TEST_F(BrokenDownloads, AreTakenUpWhereTheyEnded) {
  const std::string id = drive.PutSynthetic("big.bin", (5 << 20) + 3);
  BreakDownloads(2);
  Output(Get());
  EXPECT_TRUE(ReadFile(Target()) == drive.Content(id));
  EXPECT_TRUE(drive.PendingFaults().empty());
}

TEST_F(BrokenDownloads, AreGivenUpInTheEndAndLeaveNothing) {
  drive.PutSynthetic("big.bin", 64 << 20);
  BreakDownloads(100);
  EXPECT_THAT(Complaint(Get()), HasSubstr("/My Drive/big.bin"));
  EXPECT_TRUE(NothingIsThere());
}

TEST_F(BrokenDownloads, NeverMixTwoVersions) {
  const std::string id = drive.Put("big.bin", Bytes(4 << 20, 1));
  BreakDownloads(1);
  emulator::Fault slow;  // holds up the second part until the file is another one
  slow.method = "drive.files.get.media";
  slow.kind = "delay";
  slow.delay = std::chrono::seconds(2);
  drive.Inject(slow);
  const auto process = Start(Get());
  while (drive.Count("drive.files.get.media") < 2 && process->IsRunning()) usleep(1000);
  drive.Write(id, Bytes(4 << 20, 2));
  EXPECT_THAT(ComplaintOf(process->Finish()), HasSubstr("changed"));
  EXPECT_TRUE(NothingIsThere());
}

}  // namespace
}  // namespace host_test
