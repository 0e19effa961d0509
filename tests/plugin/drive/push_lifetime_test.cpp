// The end of a drive whose push thread may be anywhere: connecting, polling, inside the sink.
#include <future>
#include <random>

#include "tests/plugin/drive/push_fixture.h"
#include "tests/rounds.h"

namespace {

using PushLifetimeTest = PushTest;
using emulator::PushBehaviour;

TEST_F(PushLifetimeTest, HundredsOfDrivesComeAndGoWhateverThePushServiceDoes) {
  constexpr int kRounds = Rounds(300);
  constexpr PushBehaviour kBehaviours[] = {PushBehaviour::kAccept, PushBehaviour::kRefuse,
                                           PushBehaviour::kStall, PushBehaviour::kDrop,
                                           PushBehaviour::kFlood};
  std::minstd_rand random(7);
  for (int round = 0; round < kRounds; ++round) {
    service.SetPushBehaviour(kBehaviours[random() % std::size(kBehaviours)]);
    const auto pushed = std::make_unique<ChangeSink>();
    auto opened = NewDrive();
    Connect(*opened);
    ASSERT_EQ(opened->SetChangesCallback(pushed.get()), AERROR::SUCCESS) << round;
    service.Put("file" + std::to_string(random() % 4), "x");
    if (random() % 2 == 0) (void)log.WaitFor("[PROTOCOL  ] Push ", round / 2);
    opened.reset();
    pushed->Close();
  }
  EXPECT_TRUE(log.WaitFor(kLoopDone, kRounds)) << "a push thread did not end";
  EXPECT_EQ(service.OpenChannels(), 0);
}

TEST_F(PushLifetimeTest, AServiceThatIsGoneEndsNothingButTheConnection) {
  profile.Set("push_server_url", "ws://127.0.0.1:1/");
  Connect(*drive);
  EXPECT_EQ(drive->SetChangesCallback(&sink), AERROR::SUCCESS);
  EXPECT_TRUE(log.WaitFor("Push returns error"));
  EXPECT_EQ(Names(root), std::vector<std::string>{});
  drive.reset();
  EXPECT_TRUE(log.WaitFor(kLoopDone));
}

TEST_F(PushLifetimeTest, TheSinkMayReleaseTheDriveFromThePushThread) {
  auto pushed = std::make_unique<ChangeSink>();
  GoogleDrive* released = drive.release();
  std::promise<void> done;
  pushed->onChanged = [&](const std::string&) {
    released->Release();
    pushed->Close();
    done.set_value();
  };
  ASSERT_EQ(released->SetChangesCallback(pushed.get()), AERROR::SUCCESS);
  ASSERT_TRUE(WaitForConnections(1));
  const std::string folder = service.MakeFolder("folder");
  service.PutUnder(folder, "a.txt", "x");
  ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_TRUE(log.WaitFor(kLoopDone));
  EXPECT_EQ(service.OpenChannels(), 0);
}

TEST_F(PushLifetimeTest, TheSinkMayReleaseTheDriveWhileThePushThreadWaitsForThatPoll) {
  auto pushed = std::make_unique<ChangeSink>();
  ChangeSink own;
  CatchUp();
  FailAlways(kWatch, 404);  // without a watch only the test sends notices
  GoogleDrive* released = drive.release();
  ASSERT_EQ(released->SetChangesCallback(pushed.get()), AERROR::FAILED);
  ASSERT_TRUE(WaitForConnections(1));
  own.onChanged = [&](const std::string&) {
    service.SendPush(Channel(), "while the host polls");
    EXPECT_TRUE(log.WaitFor("Message received"));
    released->Release();
    own.Close();
    pushed->Close();
  };
  service.Put("a.txt", "x");
  EXPECT_EQ(released->GetChanges(&own, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(own.Ids().size(), 1u);
  pushed.reset();
  EXPECT_TRUE(log.WaitFor(kLoopDone));
}

TEST_F(PushLifetimeTest, ReleaseWaitsForTheSinkThatIsRunning) {
  auto pushed = std::make_unique<ChangeSink>();
  std::promise<void> entered;
  std::atomic<AERROR> last{AERROR::SUCCESS};
  pushed->onChanged = [&](const std::string&) {
    entered.set_value();
    // Once the release has begun the drive opens no second connection that would outlive it.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (last == AERROR::SUCCESS && std::chrono::steady_clock::now() < end) {
      last = drive->SetChangesCallback(pushed.get());
    }
  };
  Open(pushed.get());
  service.Put("a.txt", "x");
  entered.get_future().wait();
  GoogleDrive* released = drive.get();
  released->Release();
  (void)drive.release();
  EXPECT_EQ(last, AERROR::FAILED);
  pushed.reset();
  EXPECT_TRUE(log.WaitFor(kLoopDone));
}

TEST_F(PushLifetimeTest, AReplacedSinkIsNotCalledOnceTheCallHasReturned) {
  Open(&sink);
  for (int i = 0; i < 50; ++i) {
    ChangeSink passing;
    EXPECT_EQ(drive->SetChangesCallback(&passing), AERROR::SUCCESS);
    // The first change is waited for; the notices of the others arrive while the sink is replaced.
    for (int k = 0; k < 4; ++k) service.Put("file" + std::to_string(k), std::to_string(i));
    EXPECT_TRUE(passing.WaitFor(root));
    EXPECT_EQ(drive->SetChangesCallback(&sink), AERROR::SUCCESS);
    passing.Close();
  }
}

}  // namespace
