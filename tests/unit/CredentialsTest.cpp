#include <cerrno>

#include "CredentialsFixture.h"

namespace kova::ctlserver {
namespace {

using fakes::platform;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using variant::Variant;

TEST_F(CredentialsTest, RequestWithoutFieldsOnlyReadsName) {
  EXPECT_TRUE(change({}));
  EXPECT_EQ(reply_, Variant(Variant::Map{{"username", "admin"}}));
  EXPECT_THAT(platform().log, IsEmpty());
  expectNothingWritten();
}

TEST_F(CredentialsTest, UnopenableStoreFails) {
  platform().config.initResult = false;
  EXPECT_FALSE(change({}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to initialize system.cfg manager")));
}

TEST_F(CredentialsTest, UnreadableNameFails) {
  platform().config.failingGet = "users.1.name";
  EXPECT_FALSE(change({}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to read username")));
  EXPECT_TRUE(reply_.isEmpty());
}

TEST_F(CredentialsTest, NameMissingFromStoreFails) {
  platform().config.values.erase("users.1.name");
  EXPECT_FALSE(change({}));
  EXPECT_THAT(platform().log, ElementsAre(error("Username missing from the system.cfg")));
  EXPECT_TRUE(reply_.isEmpty());
}

// What a change has to give.

class IncompleteClaimTest : public CredentialsTest,
                            public testing::WithParamInterface<Variant::Map> {};

TEST_P(IncompleteClaimTest, NeedsNameAndOldPassword) {
  EXPECT_FALSE(change(GetParam()));
  EXPECT_THAT(platform().log, ElementsAre(error("Username and old password must be present")));
  EXPECT_EQ(reply_.find("username"), nullptr);
  expectNothingWritten();
}

INSTANTIATE_TEST_SUITE_P(
    Claims, IncompleteClaimTest,
    testing::Values(Variant::Map{{"username", "admin"}}, Variant::Map{{"passwordOld", "secret"}},
                    Variant::Map{{"passwordNew", "fresh"}},
                    Variant::Map{{"username", "a"}, {"passwordNew", "fresh"}},
                    Variant::Map{{"passwordOld", "secret"}, {"passwordNew", "fresh"}}));

TEST_F(CredentialsTest, EmptyOldPasswordIsRefusedBeforeName) {
  EXPECT_FALSE(change({{"username", "no:name"}, {"passwordOld", ""}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Old password empty")));
  expectNothingWritten();
}

TEST_F(CredentialsTest, OldPasswordOf64BytesIsChecked) {
  const std::string password(64, 'p');
  platform().accounts.hashes["admin"] = "old$" + password;
  EXPECT_TRUE(change({{"username", "admin"}, {"passwordOld", password}}));
  EXPECT_THAT(platform().journal, Contains("authenticatePassword admin"));
}

TEST_F(CredentialsTest, OldPasswordOf65BytesIsRefusedUnchecked) {
  EXPECT_FALSE(change({{"username", "no:name"}, {"passwordOld", std::string(65, 'p')}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Old password too long")));
  EXPECT_THAT(platform().journal, Not(Contains("authenticatePassword admin")));
  expectNothingWritten();
}

TEST_F(CredentialsTest, PasswordLimitCountsBytesNotCharacters) {
  std::string password;
  for (int i = 0; i < 33; ++i) {
    password += "é";
  }
  EXPECT_FALSE(change({{"username", "admin"}, {"passwordOld", password}}));
  EXPECT_FALSE(
      change({{"username", "admin"}, {"passwordOld", "secret"}, {"passwordNew", password}}));
  EXPECT_THAT(platform().log,
              ElementsAre(error("Old password too long"), error("New password too long")));
}

TEST_F(CredentialsTest, InvalidNameIsRefusedBeforePasswordCheck) {
  reply_["kept"] = true;
  for (const char* name : {"", "a:0:0", "a\nroot::0:0", "1st", "a b", "../x", "$(id)"}) {
    platform().log.clear();
    EXPECT_FALSE(change({{"username", name}, {"passwordOld", "secret"}})) << name;
    EXPECT_THAT(platform().log, ElementsAre(error("Failed to validate username", EINVAL)));
  }
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("authenticatePassword"))));
  EXPECT_EQ(reply_["kept"], Variant(true));
  expectNothingWritten();
}

// The check of the old password.

TEST_F(CredentialsTest, ReplyIsEmptiedOnceClaimIsComplete) {
  reply_["stale"] = true;
  EXPECT_FALSE(change({{"username", "admin"}, {"passwordOld", "wrong"}}));
  EXPECT_TRUE(reply_.isEmpty());
}

TEST_F(CredentialsTest, UnreadableHashFailsNamingStoredUser) {
  platform().accounts.readResult = EACCES;
  EXPECT_FALSE(change({{"username", "boss"}, {"passwordOld", "secret"}}));
  EXPECT_THAT(platform().log,
              ElementsAre(error("Failed to read password hash for username admin")));
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("authenticatePassword"))));
  expectNothingWritten();
}

TEST_F(CredentialsTest, WrongOldPasswordFailsNamingStoredUser) {
  EXPECT_FALSE(change({{"username", "boss"}, {"passwordOld", "wrong"}, {"passwordNew", ""}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Authentication failure for user admin")));
  expectNothingWritten();
}

TEST_F(CredentialsTest, UncheckableOldPasswordFails) {
  platform().accounts.authenticateResults = {EIO};
  EXPECT_FALSE(change({{"username", "admin"}, {"passwordOld", "secret"}, {"passwordNew", "n"}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Authentication failure for user admin")));
  expectNothingWritten();
}

TEST_F(CredentialsTest, LockedAccountAuthenticatesNobody) {
  platform().accounts.hashes["admin"] = "!old$secret";
  EXPECT_FALSE(change({{"username", "admin"}, {"passwordOld", "secret"}, {"passwordNew", "n"}}));
  expectNothingWritten();
}

// The new password.

TEST_F(CredentialsTest, EmptyNewPasswordIsRefused) {
  EXPECT_FALSE(change({{"username", "boss"}, {"passwordOld", "secret"}, {"passwordNew", ""}}));
  EXPECT_THAT(platform().log, ElementsAre(error("New password empty")));
  expectNothingWritten();
}

TEST_F(CredentialsTest, NewPasswordOver64BytesIsRefused) {
  EXPECT_FALSE(change(
      {{"username", "admin"}, {"passwordOld", "secret"}, {"passwordNew", std::string(65, 'p')}}));
  EXPECT_THAT(platform().log, ElementsAre(error("New password too long")));
  expectNothingWritten();
  EXPECT_TRUE(change(
      {{"username", "admin"}, {"passwordOld", "secret"}, {"passwordNew", std::string(64, 'p')}}));
  EXPECT_EQ(stored("users.1.password"), "salt1$" + std::string(64, 'p'));
}

TEST_F(CredentialsTest, UncheckableNewPasswordFails) {
  platform().accounts.authenticateResults = {0, EIO};
  EXPECT_FALSE(change({{"username", "boss"}, {"passwordOld", "secret"}, {"passwordNew", "n"}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Authentication failure for user admin")));
  EXPECT_EQ(platform().accounts.salts, 0U);
  expectNothingWritten();
}

TEST_F(CredentialsTest, NewPasswordWithNulIsRefused) {
  for (const std::string& password : {std::string("\0rest", 5), std::string("part\0rest", 9)}) {
    platform().log.clear();
    EXPECT_FALSE(
        change({{"username", "admin"}, {"passwordOld", "secret"}, {"passwordNew", password}}));
    EXPECT_THAT(platform().log, ElementsAre(error("Failed to hash the new password")));
  }
  expectNothingWritten();
}

TEST_F(CredentialsTest, AccountNeverGetsEmptyHash) {
  platform().accounts.saltResult = false;
  EXPECT_FALSE(
      change({{"username", "admin"}, {"passwordOld", "secret"}, {"passwordNew", "fresh"}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to hash the new password")));
  expectNothingWritten();
}

TEST_F(CredentialsTest, PasswordsAndHashesAreNotLogged) {
  platform().config.closeResult = false;
  change({{"username", "boss"}, {"passwordOld", "wrong-guess"}, {"passwordNew", "fresh-one"}});
  change({{"username", "boss"}, {"passwordOld", "secret"}, {"passwordNew", "fresh-one"}});
  platform().config.failingSet = "users.1.password";
  change({{"username", "admin"}, {"passwordOld", "secret"}, {"passwordNew", "fresh-one"}});
  EXPECT_EQ(platform().log.size(), 3U);
  for (const auto& text : platform().logTexts()) {
    for (const char* hidden : {"wrong-guess", "secret", "fresh-one", "$"}) {
      EXPECT_EQ(text.find(hidden), std::string::npos) << text;
    }
  }
}

}  // namespace
}  // namespace kova::ctlserver
