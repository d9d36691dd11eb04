#include "Persistence.h"

#include <gmock/gmock.h>

#include "Commands.h"
#include "Platform.h"

namespace kova::ctlserver {
namespace {

class PersistenceTest : public testing::Test {
 protected:
  void SetUp() override { fakes::reset(); }

  static void fail(const std::string& failing) {
    platform().onRun = [failing](const std::string& command) {
      return fakes::ProcessResult{command == failing ? 1 : 0, "", ""};
    };
  }

  /// Services every 10 ms for so long.
  void pass(int milliseconds) {
    for (int elapsed = 0; elapsed < milliseconds; elapsed += 10) {
      platform().nowMs += 10;
      persistence_.service();
    }
  }

  Persistence persistence_;
};

TEST_F(PersistenceTest, IdleServiceRunsNoCommand) {
  EXPECT_TRUE(persistence_.persist(false));
  EXPECT_TRUE(persistence_.reset());
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_THAT(platform().log, IsEmpty());
}

TEST_F(PersistenceTest, ForcedSaveRunsWithNothingPending) {
  EXPECT_TRUE(persistence_.persist(true));
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
  ASSERT_EQ(platform().log.size(), 1U);
  EXPECT_EQ(platform().log[0].identity, "kova_ctlserver");
  EXPECT_EQ(platform().log[0].unit, "Persistence");
  EXPECT_EQ(platform().log[0].function, "persist");
  EXPECT_TRUE(platform().logged(6, "Persisted"));
}

TEST_F(PersistenceTest, SaveRunsMoreThanFiveSecondsLater) {
  persistence_.enqueue();
  platform().nowMs += 5000;
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, IsEmpty());
  platform().nowMs += 1;
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
  pass(20000);
  EXPECT_THAT(platform().commands, ElementsAre(kSave)) << "once only";
}

TEST_F(PersistenceTest, ThreeSavesAreWrittenOnceAfterLast) {
  persistence_.enqueue();
  pass(2000);
  persistence_.enqueue();
  pass(2000);
  persistence_.enqueue();
  pass(5000);
  EXPECT_THAT(platform().commands, IsEmpty());
  pass(10);
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
}

TEST_F(PersistenceTest, ForcedSaveSettlesPendingOne) {
  persistence_.enqueue();
  persistence_.persist(true);
  pass(10000);
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
}

TEST_F(PersistenceTest, SaveAfterEraseWritesConfigurationBack) {
  persistence_.enqueueReset();
  pass(5010);
  EXPECT_TRUE(persistence_.persist(true));
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot, kSave));
}

TEST_F(PersistenceTest, FailedSaveIsLoggedAndRetriedAtEveryPass) {
  fail(kSave);
  persistence_.enqueue();
  platform().nowMs += 5001;
  EXPECT_FALSE(persistence_.service());
  EXPECT_FALSE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kSave));
  EXPECT_TRUE(platform().logged(3, "Failed to persist"));
  platform().onRun = nullptr;
  EXPECT_TRUE(persistence_.service());
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kSave, kSave));
}

TEST_F(PersistenceTest, FailedForcedSaveWithNothingPendingIsNotRetried) {
  fail(kSave);
  EXPECT_FALSE(persistence_.persist(true));
  pass(20000);
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
}

TEST_F(PersistenceTest, FailedForcedSaveLeavesPendingSave) {
  fail(kSave);
  persistence_.enqueue();
  EXPECT_FALSE(persistence_.persist(true));
  platform().onRun = nullptr;
  pass(20000);
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kSave));
}

TEST_F(PersistenceTest, CancelDropsSaveButNotReset) {
  persistence_.enqueue();
  persistence_.enqueueReset();
  persistence_.cancel();
  pass(6000);
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
}

TEST_F(PersistenceTest, ResetErasesAndRebootsMoreThanFiveSecondsLater) {
  persistence_.enqueueReset();
  platform().nowMs += 5000;
  persistence_.service();
  EXPECT_THAT(platform().commands, IsEmpty());
  platform().nowMs += 1;
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
  EXPECT_TRUE(platform().logged(6, "Reset to defaults"));
  EXPECT_EQ(platform().log[0].function, "reset");
  pass(20000);
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
}

TEST_F(PersistenceTest, SecondResetRequestPostponesReset) {
  persistence_.enqueueReset();
  platform().nowMs += 3000;
  persistence_.enqueueReset();
  platform().nowMs += 5000;
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, IsEmpty());
  platform().nowMs += 1;
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
}

TEST_F(PersistenceTest, FailedEraseIsLoggedAtEveryPassWithoutReboot) {
  fail(kErase);
  persistence_.enqueueReset();
  platform().nowMs += 5001;
  EXPECT_FALSE(persistence_.service());
  EXPECT_FALSE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kErase));
  const LogLine failed{"Persistence", "reset", 3, 0, "Failed to reset"};
  EXPECT_THAT(platform().log, ElementsAre(failed, failed));
  platform().onRun = nullptr;  // the destructor tries once more
}

TEST_F(PersistenceTest, FailedRebootAfterEraseIsLoggedOnceWithoutRetry) {
  fail(kReboot);
  persistence_.enqueueReset();
  platform().nowMs += 5001;
  EXPECT_TRUE(persistence_.service());
  pass(10000);
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
  EXPECT_THAT(platform().log,
              ElementsAre(LogLine{"Persistence", "reset", 6, 0, "Reset to defaults"},
                          LogLine{"Persistence", "reset", 3, 0, "Failed to perform reboot"}));
}

TEST_F(PersistenceTest, SaveRunsBeforeReset) {
  persistence_.enqueue();
  persistence_.enqueueReset();
  platform().nowMs += 5001;
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kErase, kReboot));
}

TEST_F(PersistenceTest, FailingSaveHoldsBackDueReset) {
  fail(kSave);
  persistence_.enqueue();
  persistence_.enqueueReset();
  platform().nowMs += 5001;
  EXPECT_FALSE(persistence_.service());
  EXPECT_FALSE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kSave));
  platform().onRun = nullptr;
}

TEST_F(PersistenceTest, ResetDropsSaveRequestedMeanwhile) {
  persistence_.enqueueReset();
  platform().nowMs += 4000;
  persistence_.enqueue();
  platform().nowMs += 1001;
  EXPECT_TRUE(persistence_.service());
  pass(10000);
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
}

TEST(PersistenceAtExit, WritesPendingSaveThenRunsPendingReset) {
  fakes::reset();
  {
    Persistence persistence;
    persistence.enqueue();
    persistence.enqueueReset();
  }
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kErase, kReboot));
}

TEST(PersistenceAtExit, FailedSaveDoesNotHoldBackReset) {
  fakes::reset();
  platform().onRun = [](const std::string& command) {
    return fakes::ProcessResult{command == kSave ? 1 : 0, "", ""};
  };
  {
    Persistence persistence;
    persistence.enqueue();
    persistence.enqueueReset();
  }
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kErase, kReboot));
}

TEST(PersistenceAtExit, RunsNothingIfNothingIsPending) {
  fakes::reset();
  { Persistence persistence; }
  EXPECT_THAT(platform().commands, IsEmpty());
}

}  // namespace
}  // namespace kova::ctlserver
