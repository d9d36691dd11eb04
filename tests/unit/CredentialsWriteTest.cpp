#include <sys/mount.h>

#include <cerrno>

#include "../../platform/utils/files/tests/FileSizeLimit.h"
#include "CredentialsFixture.h"

namespace kova::ctlserver {
namespace {

const Map kNewPassword = claim("admin", "secret", "fresh");
const Map kNewNameAndPassword = claim("boss", "secret", "fresh");

TEST_F(CredentialsTest, SameNameWithoutNewPasswordWritesNothing) {
  EXPECT_TRUE(change({{"username", "admin"}, {"passwordOld", "secret"}}));
  EXPECT_EQ(platform().accounts.salts, 0U);
  EXPECT_THAT(platform().log, IsEmpty());
  expectNothingWritten();
}

TEST_F(CredentialsTest, SameNameAndSamePasswordWriteNothing) {
  EXPECT_TRUE(change(claim("admin", "secret", "secret")));
  EXPECT_EQ(platform().accounts.salts, 1U);
  expectNothingWritten();
}

TEST_F(CredentialsTest, NewPasswordGoesToStoreAndAccountFile) {
  EXPECT_TRUE(change(kNewPassword));
  EXPECT_THAT(platform().journal,
              ElementsAre("SystemCfgManager::init", "get users.1.name",
                          "authenticatePassword admin", "authenticatePassword admin",
                          "set users.1.password=salt1$fresh", "close true false"));
  EXPECT_EQ(stored("users.1.password"), "salt1$fresh");
  EXPECT_EQ(accounts(), accountLine("admin", "salt1$fresh"));
  EXPECT_TRUE(reply_.isEmpty());
  EXPECT_THAT(platform().log, IsEmpty());
}

TEST_F(CredentialsTest, NewNameAloneKeepsSystemHash) {
  platform().accounts.hashes["admin"] = "system$secret";
  EXPECT_TRUE(change({{"username", "boss"}, {"passwordOld", "secret"}}));
  EXPECT_EQ(stored("users.1.name"), "boss");
  EXPECT_EQ(stored("users.1.password"), "old$secret");
  EXPECT_EQ(accounts(), accountLine("boss", "system$secret"));
  EXPECT_EQ(platform().accounts.salts, 0U);
}

TEST_F(CredentialsTest, NewNameWithSamePasswordRehashesOnlyAccountFile) {
  EXPECT_TRUE(change(claim("boss", "secret", "secret")));
  EXPECT_EQ(stored("users.1.name"), "boss");
  EXPECT_EQ(stored("users.1.password"), "old$secret");
  EXPECT_EQ(accounts(), accountLine("boss", "salt1$secret"));
}

TEST_F(CredentialsTest, NewNameIsStoredBeforeNewPassword) {
  EXPECT_TRUE(change(kNewNameAndPassword));
  EXPECT_THAT(
      platform().journal,
      ElementsAre("SystemCfgManager::init", "get users.1.name", "authenticatePassword admin",
                  "authenticatePassword admin", "set users.1.name=boss",
                  "set users.1.password=salt1$fresh", "close true false"));
  EXPECT_EQ(accounts(), accountLine("boss", "salt1$fresh"));
}

TEST_F(CredentialsTest, NamesAreCaseSensitive) {
  EXPECT_TRUE(change({{"username", "Admin"}, {"passwordOld", "secret"}}));
  EXPECT_EQ(stored("users.1.name"), "Admin");
}

TEST_F(CredentialsTest, PasswordFieldIsAddedToStoreWithoutOne) {
  platform().config.values.erase("users.1.password");
  EXPECT_TRUE(change(kNewPassword));
  EXPECT_EQ(stored("users.1.password"), "salt1$fresh");
}

// Failures.

TEST_F(CredentialsTest, UnstorableNameFailsWithoutTouchingAccountFile) {
  platform().config.failingSet = "users.1.name";
  expectFailure(kNewNameAndPassword, "Failed to update username");
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("set users.1.password"))));
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("close"))));
  EXPECT_EQ(accounts(), kOldAccounts);
}

TEST_F(CredentialsTest, UnstorablePasswordLeavesStoreOpenAndUnwritten) {
  platform().config.failingSet = "users.1.password";
  expectFailure(kNewNameAndPassword, "Failed to update password");
  EXPECT_THAT(platform().journal, Contains("set users.1.name=boss"));
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("close"))));
  EXPECT_EQ(stored("users.1.name"), "admin");
  EXPECT_EQ(accounts(), kOldAccounts);
}

TEST_F(CredentialsTest, UnclosableStoreFailsBeforeAccountFileIsTouched) {
  platform().config.closeResult = false;
  expectFailure(kNewNameAndPassword, "Failed to close system.cfg manager");
  EXPECT_EQ(accounts(), kOldAccounts);
}

TEST_F(CredentialsTest, UnopenableAccountFileFailsWithStoreWritten) {
  ASSERT_EQ(chmod("/etc", 0555), 0);
  expectFailure(kNewPassword, "Failed to open /etc/passwd", EACCES);
  ASSERT_EQ(chmod("/etc", 0755), 0);
  EXPECT_EQ(stored("users.1.password"), "salt1$fresh");
  EXPECT_EQ(accounts(), kOldAccounts);
}

TEST_F(CredentialsTest, UnwritableAccountFileKeepsItsContent) {
  const bool changed = [&] {
    const tests::FileSizeLimit limit(10);
    return change(kNewPassword);
  }();
  EXPECT_FALSE(changed);
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to write to /etc/passwd", EFBIG)));
  EXPECT_EQ(accounts(), kOldAccounts);
}

TEST_F(CredentialsTest, IrreplaceableAccountFileFails) {
  // rename(2) fails with EBUSY over a mount point.
  ASSERT_EQ(mount(kAccountFile, kAccountFile, nullptr, MS_BIND, nullptr), 0);
  expectFailure(kNewPassword, "Failed to write to /etc/passwd", EBUSY);
  ASSERT_EQ(umount(kAccountFile), 0);
  EXPECT_EQ(accounts(), kOldAccounts);
}

TEST_F(CredentialsTest, MissingAccountFileIsCreated) {
  ASSERT_EQ(unlink(kAccountFile), 0);
  EXPECT_TRUE(change(kNewPassword));
  EXPECT_EQ(accounts(), accountLine("admin", "salt1$fresh"));
}

TEST_F(CredentialsTest, AccountFileKeepsItsMode) {
  ASSERT_EQ(chmod(kAccountFile, 0640), 0);
  EXPECT_TRUE(change(kNewPassword));
  struct stat info {};
  ASSERT_EQ(stat(kAccountFile, &info), 0);
  EXPECT_EQ(info.st_mode & 07777U, 0640U);
  ASSERT_EQ(chmod(kAccountFile, 0644), 0);
}

}  // namespace
}  // namespace kova::ctlserver
