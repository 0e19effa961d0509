// Every operation against every way in which a request fails: the code that comes back, and that
// the next operation works.
#include "tests/plugin/drive/drive_fixture.h"

namespace {

struct Operation {
  const char* name;
  const char* method;  ///< the request that is made to fail
  AERROR refused;      ///< 4xx and 5xx that are not tried again
  AERROR exhausted;    ///< 403, 429 and 500 to the end
  AERROR broken;       ///< the transfer itself fails
  AERROR malformed;    ///< an answer that is no JSON
};

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

class FaultMatrixTest : public DriveTest, public testing::WithParamInterface<Operation> {
 protected:
  FaultMatrixTest() {
    CatchUp();
    file = service.Put("file.bin", Bytes(3000));
    folder = service.MakeFolder("folder");
  }

  AERROR Run() {
    auto record = Record("file.bin", file);
    record.parent_id = root;
    record.parents = {root};
    ItemList list;
    Fetched fetched;
    const std::string name = GetParam().name;
    if (name == "List") return List(root, &list);
    if (name == "TeamDrives") return List(kTeamDrives, &list);
    if (name == "Info") return Info(file, &record);
    if (name == "Read") return Read(file, 0, 3000, &fetched);
    if (name == "Rename") return drive->Rename(file.c_str(), "file.bin", &record, nullptr);
    if (name == "Move") return drive->Move(file.c_str(), root.c_str(), &record, nullptr);
    if (name == "Times") return drive->SetFileTime(file.c_str(), "", "", Time(), &record, nullptr);
    if (name == "UploadStart" || name == "UploadContent") return Upload(root, &record, "new");
    if (name == "Changes") return GetChanges();
    if (name == "Delete") return Delete();
    auto made = Record("made");
    if (name == "MakeFolder") return drive->CreateDirectory(root.c_str(), &made, nullptr);
    clock.Advance(std::chrono::seconds(60));
    return drive->GetQuota(nullptr, nullptr);
  }

  /// Runs once under the faults that are set and once without; both results.
  void Expect(AERROR expected, const std::string& fault) {
    EXPECT_EQ(Run(), expected) << GetAERRORA(expected) << " for " << fault;
    service.ClearFaults();
    EXPECT_EQ(Run(), AERROR::SUCCESS) << "after " << fault;
  }

  std::string file, folder;

 private:
  static const char* Time() { return "2015-03-04T05:06:07.000Z"; }
  AERROR GetChanges() {
    ChangeSink sink;
    return drive->GetChanges(&sink, nullptr);
  }
  /// Of a new item each time, as the last one may be gone.
  AERROR Delete() {
    auto doomed = Record("doomed", service.PutUnder(folder, "doomed", "x"));
    return drive->Delete(&doomed, nullptr);
  }
};

TEST_P(FaultMatrixTest, RefusalsHaveTheirCodes) {
  const Operation& operation = GetParam();
  for (const int status : {400, 402, 404, 405, 408, 409, 410, 412, 416, 451, 501, 502, 503, 504}) {
    service.FailNext(operation.method, status);
    Expect(operation.refused, "HTTP " + std::to_string(status));
  }
  EXPECT_TRUE(clock.SleptSeconds().empty());
  for (const int status : {403, 429, 500}) {
    FailAlways(operation.method, status);
    Expect(operation.exhausted, "HTTP " + std::to_string(status) + " for ever");
    service.FailNext(operation.method, status, 5);
    EXPECT_EQ(Run(), AERROR::SUCCESS) << "five times HTTP " << status;
  }
  const std::vector<long long> waits{1, 2, 4, 8, 16};
  std::vector<long long> expected;
  for (int i = 0; i < 6; ++i) expected.insert(expected.end(), waits.begin(), waits.end());
  EXPECT_EQ(clock.SleptSeconds(), expected);
}

TEST_P(FaultMatrixTest, ATokenThatIsNotRenewedEndsTheOperation) {
  authoriser.onRenew = nullptr;
  service.FailNext(GetParam().method, 401);
  EXPECT_EQ(Run(), GetParam().broken) << "the same as when there is no answer";
  EXPECT_EQ(authoriser.renewals, 1);
  EXPECT_EQ(Run(), AERROR::SUCCESS);
}

TEST_P(FaultMatrixTest, BrokenTransfersHaveTheirCode) {
  std::vector<const char*> kinds{"reset-before", "applied-not-answered"};
  // The answer that opens an upload has no body to break off in.
  if (std::string(GetParam().method) != "drive.upload.start") kinds.push_back("truncate");
  for (const char* kind : kinds) {
    Fault(GetParam().method, kind, 1, 2);  // libcurl may try once more on a fresh connection
    EXPECT_EQ(Run(), GetParam().broken) << kind;
    service.ClearFaults();
    EXPECT_EQ(Run(), AERROR::SUCCESS) << kind;
  }
}

TEST_P(FaultMatrixTest, MalformedAnswersHaveTheirCode) {
  for (const char* body : {"{", "<html>", "[[[", "\xff\xfe", "7"}) {
    AnswerNext(GetParam().method, body);
    Expect(GetParam().malformed, body);
  }
}

constexpr AERROR kOk = AERROR::SUCCESS;
constexpr AERROR kFailed = AERROR::FAILED;
constexpr AERROR kUnread = AERROR::FILE_READ_FAILED;
constexpr AERROR kUnwritten = AERROR::FILE_WRITE_FAILED;

const Operation kOperations[] = {
    {"List", "drive.files.list", kFailed, kFailed, kFailed, kFailed},
    {"TeamDrives", "drive.teamdrives.list", kFailed, kFailed, kFailed, kFailed},
    {"Info", "drive.files.get", kFailed, kFailed, kFailed, kFailed},
    {"Read", "drive.files.get.media", kUnread, kUnread, kUnread, kOk},
    {"Rename", "drive.files.update", kFailed, kFailed, kFailed, kOk},
    {"Move", "drive.files.update", kFailed, kFailed, kFailed, kOk},
    {"Times", "drive.files.update", kFailed, kFailed, kFailed, kFailed},
    {"MakeFolder", "drive.files.create", AERROR::CAN_NOT_MAKE, kFailed, kFailed, kFailed},
    {"UploadStart", "drive.upload.start", kUnwritten, kUnwritten, kUnwritten, kOk},
    {"UploadContent", "drive.upload.content", kFailed, kFailed, kFailed, kUnwritten},
    {"Changes", "drive.changes.list", kOk, kOk, kOk, kOk},
    {"Quota", "drive.about.get.v2", kOk, kOk, kOk, kOk},
};

INSTANTIATE_TEST_SUITE_P(All, FaultMatrixTest, testing::ValuesIn(kOperations),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
