#include <cerrno>
#include <functional>

#include "CredentialsFixture.h"

namespace kova::ctlserver {
namespace {

TEST_F(CredentialsTest, RequestWithoutFieldsOnlyReadsName) {
  EXPECT_TRUE(change({}));
  EXPECT_EQ(reply_, Variant(Map{{"username", "admin"}}));
  EXPECT_THAT(platform().log, IsEmpty());
  expectNothingWritten();
}

// Refusals before anything is written.

struct Refusal {
  std::string text;
  Map fields;
  std::function<void(fakes::Platform&)> arrange = [](fakes::Platform&) {};
};

class RefusedChangeTest : public CredentialsTest, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusedChangeTest, IsLoggedAndWritesNothing) {
  GetParam().arrange(platform());
  expectFailure(GetParam().fields, GetParam().text);
  EXPECT_TRUE(reply_.isEmpty());
  expectNothingWritten();
}

constexpr char kIncomplete[] = "Username and old password must be present";

INSTANTIATE_TEST_SUITE_P(
    Refusals, RefusedChangeTest,
    testing::Values(
        Refusal{"Failed to initialize system.cfg manager",
                {},
                [](auto& camera) { camera.config.initResult = false; }},
        Refusal{"Failed to read username",
                {},
                [](auto& camera) { camera.config.failingGet = "users.1.name"; }},
        Refusal{"Username missing from the system.cfg",
                {},
                [](auto& camera) { camera.config.values.erase("users.1.name"); }},
        Refusal{kIncomplete, {{"username", "admin"}}},
        Refusal{kIncomplete, {{"passwordOld", "secret"}}},
        Refusal{kIncomplete, {{"passwordNew", "fresh"}}},
        Refusal{kIncomplete, {{"username", "a"}, {"passwordNew", "fresh"}}},
        Refusal{kIncomplete, {{"passwordOld", "secret"}, {"passwordNew", "fresh"}}},
        Refusal{"Old password empty", claim("no:name", "", "fresh")},
        Refusal{"Old password too long", claim("no:name", std::string(65, 'p'), "fresh")},
        Refusal{"Failed to read password hash for username admin",
                {{"username", "boss"}, {"passwordOld", "secret"}},
                [](auto& camera) { camera.accounts.readResult = EACCES; }},
        Refusal{"Authentication failure for user admin", claim("admin", "secret", "fresh"),
                [](auto& camera) { camera.accounts.authenticateResults = {EIO}; }},
        Refusal{"Authentication failure for user admin", claim("admin", "secret", "fresh"),
                [](auto& camera) { camera.accounts.hashes["admin"] = "!old$secret"; }},
        Refusal{"New password empty", claim("boss", "secret", "")},
        Refusal{"Authentication failure for user admin", claim("boss", "secret", "fresh"),
                [](auto& camera) {
                  camera.accounts.authenticateResults = {0, EIO};
                }},
        Refusal{"Failed to hash the new password", claim("admin", "secret", "fresh"),
                [](auto& camera) { camera.accounts.saltResult = false; }}));

// Required fields of a change.

TEST_F(CredentialsTest, OldPasswordOf64BytesIsChecked) {
  const std::string password(64, 'p');
  platform().accounts.hashes["admin"] = "old$" + password;
  EXPECT_TRUE(change({{"username", "admin"}, {"passwordOld", password}}));
  EXPECT_THAT(platform().journal, Contains("authenticatePassword admin"));
}

TEST_F(CredentialsTest, PasswordLimitCountsBytesNotCharacters) {
  std::string password;
  for (int i = 0; i < 33; ++i) {
    password += "é";
  }
  expectFailure({{"username", "admin"}, {"passwordOld", password}}, "Old password too long");
  expectFailure(claim("admin", "secret", password), "New password too long");
}

TEST_F(CredentialsTest, InvalidNameIsRefusedBeforePasswordCheck) {
  reply_["kept"] = true;
  for (const char* name : {"", "a:0:0", "a\nroot::0:0", "1st", "a b", "../x", "$(id)"}) {
    SCOPED_TRACE(name);
    expectFailure({{"username", name}, {"passwordOld", "secret"}}, "Failed to validate username",
                  EINVAL);
  }
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("authenticatePassword"))));
  EXPECT_EQ(reply_["kept"], Variant(true));
  expectNothingWritten();
}

// The check of the old password.

TEST_F(CredentialsTest, PasswordWithoutAccountIsHashedNevertheless) {
  platform().accounts.readResult = ENOENT;
  EXPECT_FALSE(change({{"username", "admin"}, {"passwordOld", "secret"}}));
  EXPECT_EQ(platform().accounts.salts, 1U) << "it takes as long as with an account";
}

TEST_F(CredentialsTest, ReplyIsEmptiedOnceClaimIsComplete) {
  reply_["stale"] = true;
  EXPECT_FALSE(change({{"username", "admin"}, {"passwordOld", "wrong"}}));
  EXPECT_TRUE(reply_.isEmpty());
}

TEST_F(CredentialsTest, WrongOldPasswordFailsNamingStoredUser) {
  expectFailure(claim("boss", "wrong", ""), "Authentication failure for user admin");
  expectNothingWritten();
}

// The new password.

TEST_F(CredentialsTest, NewPasswordOver64BytesIsRefused) {
  expectFailure(claim("admin", "secret", std::string(65, 'p')), "New password too long");
  expectNothingWritten();
  EXPECT_TRUE(change(claim("admin", "secret", std::string(64, 'p'))));
  EXPECT_EQ(stored("users.1.password"), "salt1$" + std::string(64, 'p'));
}

TEST_F(CredentialsTest, NewPasswordWithNulIsRefused) {
  for (const std::string& password : {std::string("\0rest", 5), std::string("part\0rest", 9)}) {
    expectFailure(claim("admin", "secret", password), "Failed to hash the new password");
  }
  expectNothingWritten();
}

TEST_F(CredentialsTest, PasswordsAndHashesAreNotLogged) {
  platform().config.closeResult = false;
  change(claim("boss", "wrong-guess", "fresh-one"));
  change(claim("boss", "secret", "fresh-one"));
  platform().config.failingSet = "users.1.password";
  change(claim("admin", "secret", "fresh-one"));
  EXPECT_EQ(platform().log.size(), 3U);
  for (const auto& text : platform().logTexts()) {
    for (const char* hidden : {"wrong-guess", "secret", "fresh-one", "$"}) {
      EXPECT_EQ(text.find(hidden), std::string::npos) << text;
    }
  }
}

}  // namespace
}  // namespace kova::ctlserver
