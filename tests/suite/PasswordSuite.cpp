#include <cerrno>

#include "Rig.h"
#include "kova/utils/Password.h"

namespace kova::suite {
namespace {

using namespace std::string_literals;
using utils::authenticatePassword;
using utils::generateHash;
using utils::generateSalt;
using utils::lockPassword;
using utils::readUserHash;
using utils::unlockPassword;
using utils::username_valid;

class PasswordSuite : public PlatformSuite {
 protected:
  void SetUp() override {
    PlatformSuite::SetUp();
    hash_ = generateHash("secret", generateSalt());
    writeAccounts({{"admin", hash_}, {"other", generateHash("another", generateSalt())}});
  }

  static bool matches(const std::string& user, const std::string& password) {
    bool verdict = false;
    EXPECT_EQ(authenticatePassword(user, password, verdict), 0);
    return verdict;
  }

  static std::string hashOf(const std::string& user) {
    std::string hash;
    EXPECT_EQ(readUserHash(user, hash), 0);
    return hash;
  }

  std::string hash_;
};

TEST_F(PasswordSuite, HashAuthenticatesOnlyItsPassword) {
  EXPECT_TRUE(matches("admin", "secret"));
  for (const std::string& password : {""s, "Secret"s, "secre"s, "secret "s, "secret\0"s,
                                      std::string(1'000'000, 's'), "another"s, hash_}) {
    EXPECT_FALSE(matches("admin", password)) << password;
  }
  EXPECT_FALSE(matches("other", "secret"));
}

TEST_F(PasswordSuite, PasswordMayHoldAnyByteExceptNul) {
  for (const std::string& password : {std::string(64, 'p'), "a:b"s, "a$b"s, "é\xff\n"s}) {
    writeAccounts({{"admin", generateHash(password.c_str(), generateSalt())}});
    EXPECT_TRUE(matches("admin", password)) << testing::PrintToString(password);
  }
}

TEST_F(PasswordSuite, LongestPasswordCountsToLastByte) {
  writeAccounts({{"admin", generateHash(std::string(64, 'p').c_str(), generateSalt())}});
  EXPECT_FALSE(matches("admin", std::string(63, 'p')));
  EXPECT_FALSE(matches("admin", std::string(63, 'p') + "q"));
}

TEST_F(PasswordSuite, FreshSaltsMakeHashesDiffer) {
  const std::string salt = generateSalt();
  EXPECT_FALSE(salt.empty());
  EXPECT_NE(salt, generateSalt());
  EXPECT_EQ(generateHash("secret", salt), generateHash("secret", salt));
  EXPECT_NE(generateHash("secret", salt), generateHash("secret", generateSalt()));
}

TEST_F(PasswordSuite, HashFitsAccountLineUnlocked) {
  EXPECT_EQ(hash_.find_first_of(":\n!"), std::string::npos);
}

TEST_F(PasswordSuite, HashNeedsSalt) {
  EXPECT_EQ(generateHash("secret", ""), "");
}

TEST_F(PasswordSuite, AbsentAccountIsReported) {
  std::string hash = "before";
  bool verdict = true;
  EXPECT_EQ(readUserHash("nobody", hash), ENOENT);
  EXPECT_EQ(hash, "before");
  EXPECT_EQ(authenticatePassword("nobody", "secret", verdict), ENOENT);
  EXPECT_FALSE(verdict);
}

TEST_F(PasswordSuite, AccountWithoutPasswordAuthenticatesNobody) {
  for (const char* hash : {"", "*", "!", "!!"}) {
    writeAccounts({{"admin", hash}});
    EXPECT_FALSE(matches("admin", "")) << hash;
    EXPECT_FALSE(matches("admin", hash)) << hash;
  }
}

TEST_F(PasswordSuite, LockedAccountAuthenticatesNobodyUntilUnlocked) {
  EXPECT_TRUE(lockPassword("admin"));
  EXPECT_FALSE(matches("admin", "secret"));
  EXPECT_TRUE(matches("other", "another"));
  EXPECT_TRUE(unlockPassword("admin"));
  EXPECT_TRUE(matches("admin", "secret"));
  EXPECT_EQ(hashOf("admin"), hash_);
}

TEST_F(PasswordSuite, LockingTwiceLeavesOneMark) {
  EXPECT_TRUE(lockPassword("admin"));
  EXPECT_TRUE(lockPassword("admin"));
  EXPECT_EQ(hashOf("admin"), "!" + hash_);
}

TEST_F(PasswordSuite, UnlockingUnlockedAccountChangesNothing) {
  EXPECT_TRUE(unlockPassword("admin"));
  EXPECT_EQ(hashOf("admin"), hash_);
}

TEST_F(PasswordSuite, AbsentAccountCannotBeLockedOrUnlocked) {
  errno = 0;
  EXPECT_FALSE(lockPassword("nobody"));
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_FALSE(unlockPassword("nobody"));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(PasswordSuite, UnlockingNeverLeavesAccountWithoutPassword) {
  writeAccounts({{"admin", "!"}});
  errno = 0;
  EXPECT_FALSE(unlockPassword("admin"));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(hashOf("admin"), "!");
}

TEST_F(PasswordSuite, StrictNamesAreThoseOfAccounts) {
  for (const std::string& name : {"a"s, "_x"s, "Admin"s, "aZ.z-c_09"s, std::string(32, 'n')}) {
    EXPECT_TRUE(username_valid(name, true)) << name;
  }
  for (const std::string& name : {""s, "9a"s, "-a"s, ".a"s, "a b"s, "a:b"s, "a\nb"s, "a/b"s,
                                  "a\0b"s, "é"s, "a$"s, std::string(33, 'n')}) {
    errno = 0;
    EXPECT_FALSE(username_valid(name, true)) << testing::PrintToString(name);
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST_F(PasswordSuite, OtherNamesMustNotBreakAccountLine) {
  EXPECT_TRUE(username_valid("9 a$é", false));
  for (const std::string& name :
       {""s, "a:b"s, "a\n"s, "a\rb"s, "\x7f"s, "a\0b"s, std::string(33, 'n')}) {
    EXPECT_FALSE(username_valid(name, false)) << testing::PrintToString(name);
  }
}

}  // namespace
}  // namespace kova::suite
