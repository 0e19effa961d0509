// demo
#include <signal.h>

#include "tests/host/drive_fixture.h"

namespace host_test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class Demo : public DriveFixture {
 protected:
  Demo() { std::filesystem::create_directory(Temporary()); }
  std::filesystem::path Temporary() const { return Home() / "tmp"; }
  std::unique_ptr<Process> StartDemo() const {
    auto environment = Environment();
    environment["TMPDIR"] = Temporary().string();
    return std::make_unique<Process>(Arguments{program.string(), "demo"}, environment);
  }
};

// The emulator holds the other end of the error output: that the program's output ends at all
// says that the emulator has ended too.
TEST_F(Demo, ShowsEverythingAndLeavesNothing) {
  const Outcome outcome = StartDemo()->Finish();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_THAT(outcome.out,
              AllOf(HasSubstr("demo@example.com"), HasSubstr("15.0 GiB"), HasSubstr("Team Drives"),
                    HasSubstr("Report.Google Docs.webloc"), HasSubstr("<key>URL</key>"),
                    HasSubstr("belongs to nobody."), HasSubstr("My first note.txt")));
  EXPECT_THAT(outcome.out, HasSubstr("/My Drive/Projects\n")) << "the pushed change";
  EXPECT_THAT(outcome.out,
              testing::AnyOf(HasSubstr("\nWritten by the shell.\n"), HasSubstr("is left out:")));
  EXPECT_TRUE(std::filesystem::is_empty(Temporary()));
}

TEST_F(Demo, InterruptedItLeavesNothing) {
  const auto demo = StartDemo();
  demo->WaitForOutput("$ vormlane df");
  demo->Signal(SIGINT);
  EXPECT_THAT(ComplaintOf(demo->Finish()), HasSubstr("stopped"));
  EXPECT_TRUE(std::filesystem::is_empty(Temporary()));
}

TEST_F(Demo, WithoutAnEmulatorItSaysWhatIsMissing) {
  std::filesystem::create_directory(Home() / "bin");
  std::filesystem::copy_file(program, Home() / "bin/vormlane");
  program = Home() / "bin/vormlane";
  EXPECT_THAT(ComplaintOf(StartDemo()->Finish()), HasSubstr("drive-emulator"));
  EXPECT_TRUE(std::filesystem::is_empty(Temporary()));
}

}  // namespace
}  // namespace host_test
