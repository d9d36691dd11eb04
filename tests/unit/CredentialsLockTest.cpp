#include <functional>

#include "CredentialsFixture.h"

namespace kova::ctlserver {
namespace {

class LockTest : public CredentialsTest {
 protected:
  bool enable() {
    ipc::messages::EnableUsernamePassword request;
    return server_.enableUsernamePassword(request, reply_);
  }

  bool disable() {
    ipc::messages::DisableUsernamePassword request;
    return server_.disableUsernamePassword(request, reply_);
  }
};

TEST_F(LockTest, DisablingMarksStoredHashAndLocksSystemAccount) {
  EXPECT_TRUE(disable());
  EXPECT_EQ(stored("users.1.password"), "!old$secret");
  EXPECT_THAT(
      platform().journal,
      ElementsAre("SystemCfgManager::init", "get users.1.name", "get users.1.password",
                  "lockPassword admin", "set users.1.password=!old$secret", "close true false"));
  EXPECT_TRUE(reply_.isEmpty());
  EXPECT_THAT(platform().log, IsEmpty());
}

TEST_F(LockTest, EnablingUnmarksStoredHashAndUnlocksSystemAccount) {
  platform().config.values["users.1.password"] = "!old$secret";
  platform().accounts.hashes["admin"] = "!old$secret";
  EXPECT_TRUE(enable());
  EXPECT_EQ(stored("users.1.password"), "old$secret");
  EXPECT_THAT(
      platform().journal,
      ElementsAre("SystemCfgManager::init", "get users.1.name", "get users.1.password",
                  "unlockPassword admin", "set users.1.password=old$secret", "close true false"));
  EXPECT_THAT(platform().log, IsEmpty());
}

TEST_F(LockTest, DisablingTwiceLeavesOneMark) {
  EXPECT_TRUE(disable());
  platform().journal.clear();
  EXPECT_TRUE(disable());
  EXPECT_EQ(stored("users.1.password"), "!old$secret");
  EXPECT_THAT(platform().journal,
              ElementsAre("SystemCfgManager::init", "get users.1.name", "get users.1.password",
                          "set users.1.password=!old$secret", "close true false"));
}

TEST_F(LockTest, EnablingUnlockedAccountOnlyRewritesStore) {
  EXPECT_TRUE(enable());
  EXPECT_EQ(stored("users.1.password"), "old$secret");
  EXPECT_THAT(platform().journal,
              ElementsAre("SystemCfgManager::init", "get users.1.name", "get users.1.password",
                          "set users.1.password=old$secret", "close true false"));
}

TEST_F(LockTest, EnablingRemovesOnlyOneMark) {
  platform().config.values["users.1.password"] = "!!old$secret";
  EXPECT_TRUE(enable());
  EXPECT_EQ(stored("users.1.password"), "!old$secret");
}

TEST_F(LockTest, EmptyStoredHashCanBeLocked) {
  platform().config.values["users.1.password"] = "";
  EXPECT_TRUE(disable());
  EXPECT_EQ(stored("users.1.password"), "!");
}

TEST_F(LockTest, StoredHashIsMarkedEvenIfSystemAccountIsNot) {
  platform().accounts.lockResult = false;
  EXPECT_TRUE(disable());
  EXPECT_EQ(stored("users.1.password"), "!old$secret");
  EXPECT_TRUE(enable());
  EXPECT_EQ(stored("users.1.password"), "old$secret");
  EXPECT_THAT(
      platform().log,
      ElementsAre(LogLine{"CtlServer", "Process", LOG_WARNING, 0, "Failed to lock user: admin"},
                  LogLine{"CtlServer", "Process", LOG_WARNING, 0, "Failed to unlock user: admin"}));
}

TEST_F(LockTest, AccountFileAndReplyAreLeftAlone) {
  reply_["kept"] = 1;
  EXPECT_TRUE(disable());
  EXPECT_TRUE(enable());
  EXPECT_EQ(accounts(), kOldAccounts);
  EXPECT_EQ(reply_, Variant(Map{{"kept", 1}}));
}

struct LockFailure {
  std::string text;
  std::function<void(fakes::ConfigStore&)> arrange;
};

class LockFailureTest : public LockTest, public testing::WithParamInterface<LockFailure> {};

TEST_P(LockFailureTest, FailsAndLeavesStore) {
  GetParam().arrange(platform().config);
  const auto before = platform().config.values;
  const LogLine line{"CtlServer", "ProcessUsernamePassword", LOG_ERR, 0, GetParam().text};
  EXPECT_FALSE(disable());
  EXPECT_THAT(platform().log, ElementsAre(line));
  EXPECT_FALSE(enable());
  EXPECT_THAT(platform().log, ElementsAre(line, line));
  EXPECT_EQ(platform().config.values, before);
}

INSTANTIATE_TEST_SUITE_P(
    Failures, LockFailureTest,
    testing::Values(LockFailure{"Failed to initialize system.cfg manager",
                                [](auto& store) { store.initResult = false; }},
                    LockFailure{"Failed to read username",
                                [](auto& store) { store.failingGet = "users.1.name"; }},
                    LockFailure{"Username missing from the system.cfg",
                                [](auto& store) { store.values.erase("users.1.name"); }},
                    LockFailure{"Failed to read password",
                                [](auto& store) { store.failingGet = "users.1.password"; }},
                    LockFailure{"Password missing from the system.cfg",
                                [](auto& store) { store.values.erase("users.1.password"); }},
                    LockFailure{"Failed to update password",
                                [](auto& store) { store.failingSet = "users.1.password"; }},
                    LockFailure{"Failed to close system.cfg manager",
                                [](auto& store) { store.closeResult = false; }}));

TEST_F(LockTest, AccountWithoutStoredHashIsNotTouched) {
  platform().config.values.erase("users.1.password");
  EXPECT_FALSE(disable());
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("lockPassword"))));
}

}  // namespace
}  // namespace kova::ctlserver
