#include "Persistence.h"

#include "UnitTest.h"

namespace kova::ctlserver {
namespace {

class PersistenceTest : public testing::Test {
 protected:
  void SetUp() override { fakes::reset(); }

  bool serviceAfter(std::uint64_t milliseconds) {
    platform().nowMs += milliseconds;
    return persistence_.service();
  }

  /// Services every 10 ms for this long.
  void pass(int milliseconds) {
    for (int elapsed = 0; elapsed < milliseconds; elapsed += 10) {
      serviceAfter(10);
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
  EXPECT_THAT(platform().log, ElementsAre(LogLine{"Persistence", "persist", 6, 0, "Persisted"}));
}

TEST_F(PersistenceTest, SaveRunsMoreThanFiveSecondsLater) {
  persistence_.enqueue();
  EXPECT_TRUE(serviceAfter(5000));
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_TRUE(serviceAfter(1));
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
  failRunOf(kSave);
  persistence_.enqueue();
  EXPECT_FALSE(serviceAfter(5001));
  EXPECT_FALSE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kSave));
  EXPECT_TRUE(platform().logged(3, "Failed to persist"));
  platform().onRun = nullptr;
  EXPECT_TRUE(persistence_.service());
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kSave, kSave));
}

TEST_F(PersistenceTest, FailedForcedSaveWithNothingPendingIsNotRetried) {
  failRunOf(kSave);
  EXPECT_FALSE(persistence_.persist(true));
  pass(20000);
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
}

TEST_F(PersistenceTest, FailedForcedSaveLeavesPendingSave) {
  failRunOf(kSave);
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
  EXPECT_TRUE(serviceAfter(5000));
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_TRUE(serviceAfter(1));
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
  EXPECT_THAT(platform().log,
              ElementsAre(LogLine{"Persistence", "reset", 6, 0, "Reset to defaults"}));
  pass(20000);
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
}

TEST_F(PersistenceTest, SecondResetRequestPostponesReset) {
  persistence_.enqueueReset();
  platform().nowMs += 3000;
  persistence_.enqueueReset();
  EXPECT_TRUE(serviceAfter(5000));
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_TRUE(serviceAfter(1));
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
}

TEST_F(PersistenceTest, FailedEraseIsLoggedAtEveryPassWithoutReboot) {
  failRunOf(kErase);
  persistence_.enqueueReset();
  EXPECT_FALSE(serviceAfter(5001));
  EXPECT_FALSE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kErase));
  const LogLine failed{"Persistence", "reset", 3, 0, "Failed to reset"};
  EXPECT_THAT(platform().log, ElementsAre(failed, failed));
}

TEST_F(PersistenceTest, FailedRebootAfterEraseIsLoggedOnceWithoutRetry) {
  failRunOf(kReboot);
  persistence_.enqueueReset();
  EXPECT_TRUE(serviceAfter(5001));
  pass(10000);
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
  EXPECT_THAT(platform().log,
              ElementsAre(LogLine{"Persistence", "reset", 6, 0, "Reset to defaults"},
                          LogLine{"Persistence", "reset", 3, 0, "Failed to perform reboot"}));
}

TEST_F(PersistenceTest, SaveRunsBeforeReset) {
  persistence_.enqueue();
  persistence_.enqueueReset();
  EXPECT_TRUE(serviceAfter(5001));
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
  EXPECT_TRUE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kErase, kReboot));
}

TEST_F(PersistenceTest, FailingSaveHoldsBackDueReset) {
  failRunOf(kSave);
  persistence_.enqueue();
  persistence_.enqueueReset();
  EXPECT_FALSE(serviceAfter(5001));
  EXPECT_FALSE(persistence_.service());
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kSave));
}

TEST_F(PersistenceTest, ResetDropsSaveRequestedMeanwhile) {
  persistence_.enqueueReset();
  platform().nowMs += 4000;
  persistence_.enqueue();
  EXPECT_TRUE(serviceAfter(1001));
  pass(10000);
  EXPECT_THAT(platform().commands, ElementsAre(kErase, kReboot));
}

TEST_F(PersistenceTest, ExitRunsPendingSaveThenPendingReset) {
  for (const char* failing : {"", kSave}) {
    platform().commands.clear();
    failRunOf(failing);
    {
      Persistence persistence;
      persistence.enqueue();
      persistence.enqueueReset();
    }
    EXPECT_THAT(platform().commands, ElementsAre(kSave, kErase, kReboot)) << failing;
  }
}

TEST_F(PersistenceTest, ExitRunsNothingIfNothingIsPending) {
  { Persistence persistence; }
  EXPECT_THAT(platform().commands, IsEmpty());
}

}  // namespace
}  // namespace kova::ctlserver
