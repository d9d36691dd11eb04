#include "kova/utils/Password.h"

#include <crypt.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <vector>

#include "../../src/AccountFile.h"
#include "TemporaryFolder.h"

namespace {

/// Size of the largest wipe.
std::size_t wiped = 0;

}  // namespace

extern "C" {
void explicit_bzero(void* data, std::size_t length) noexcept {
  wiped = std::max(wiped, length);
  std::memset(data, 0, length);
}
void __explicit_bzero_chk(void* data, std::size_t length, std::size_t /*room*/) noexcept {
  explicit_bzero(data, length);
}
}

namespace kova::utils {
namespace {

using namespace std::string_literals;
using tests::readText;
using tests::writeText;

constexpr char kPasswd[] = "/etc/passwd";
constexpr char kShadow[] = "/etc/shadow";
constexpr std::size_t kMaxAccountFile = std::size_t{1024} * 1024;

std::string accountLine(const std::string& name, const std::string& hash) {
  return name + ":" + hash + ":0:0:Administrator:/etc/persistent:/bin/sh\n";
}

bool matches(const std::string& user, const std::string& password) {
  bool result = true;
  authenticatePassword(user, password, result);
  return result;
}

class PasswordTest : public testing::Test {
 protected:
  void SetUp() override {
    unlink(kPasswd);
    unlink(kShadow);
    writeText(kPasswd, accountLine("admin", hash_));
  }

  const std::string hash_ = generateHash("secret", generateSalt());
};

std::string hashIn(const std::string& text, const std::string& name) {
  const auto field = internal::findHashField(text, name);
  return field ? text.substr(field->begin, field->length) : "(none)";
}

TEST(AccountFileTest, FirstWholeLineOfNameCounts) {
  const std::string text = "adm:1:\nadmin\nadmin:cut\nxadmin:2:\n:3:\nadmin:4:x\nadmin:5:";
  EXPECT_EQ(hashIn(text, "admin"), "4");
  EXPECT_FALSE(internal::findHashField(text, ""));
  EXPECT_FALSE(internal::findHashField(text, "admin:4"));
  EXPECT_FALSE(internal::findHashField(text, "adm:1:\nadmin"));
  EXPECT_FALSE(internal::findHashField("", "admin"));
}

TEST(AccountFileTest, LinesWithNulAreSkipped) {
  EXPECT_EQ(hashIn("admin:1\0:x\nadmin:2:x\n"s, "admin"), "2");
}

TEST_F(PasswordTest, HashIsReadFromShadowIfLineSaysSo) {
  writeText(kPasswd, accountLine("admin", "x"));
  std::string hash = "before";
  EXPECT_EQ(readUserHash("admin", hash), ENOENT);
  EXPECT_EQ(hash, "before");
  writeText(kShadow, "root:*:1:0:99999:7:::\nadmin:" + hash_ + ":1:0:99999:7:::\n");
  EXPECT_EQ(readUserHash("admin", hash), 0);
  EXPECT_EQ(hash, hash_);
  EXPECT_TRUE(matches("admin", "secret"));
}

TEST_F(PasswordTest, UnknownAccountIsReported) {
  std::string hash;
  EXPECT_EQ(readUserHash("admin:x", hash), EINVAL);
  EXPECT_EQ(readUserHash("", hash), EINVAL);
  writeText(kPasswd, accountLine("9 a$", "h"));
  EXPECT_EQ(readUserHash("9 a$", hash), 0) << "not a name that adduser(8) creates";
}

TEST_F(PasswordTest, AccountFileIsReadUpTo1MiB) {
  std::string hash;
  writeText(kPasswd, std::string(kMaxAccountFile / 2, 'x') + "\n" + accountLine("admin", "h"));
  EXPECT_EQ(readUserHash("admin", hash), 0);
  EXPECT_EQ(hash, "h");
  writeText(kPasswd, accountLine("admin", "h") + std::string(kMaxAccountFile, 'x'));
  EXPECT_EQ(readUserHash("admin", hash), EFBIG);
  unlink(kPasswd);
  EXPECT_EQ(readUserHash("admin", hash), ENOENT);
}

TEST_F(PasswordTest, UnreadableAccountFileIsReported) {
  ASSERT_EQ(chmod(kPasswd, 0), 0);
  std::string hash;
  EXPECT_EQ(readUserHash("admin", hash), EACCES);
}

TEST_F(PasswordTest, AccountsWithoutUsableHashMatchNothing) {
  for (const std::string& hash :
       {"*0"s, "$6$"s, "!" + hash_, hash_.substr(0, hash_.size() - 1), hash_ + "x"}) {
    writeText(kPasswd, accountLine("admin", hash));
    bool result = true;
    EXPECT_EQ(authenticatePassword("admin", "secret", result), 0) << hash;
    EXPECT_FALSE(result) << hash;
    EXPECT_FALSE(matches("admin", "")) << hash;
  }
}

TEST_F(PasswordTest, OtherSchemesOfSystemAreChecked) {
  for (const char* salt : {"$y$j9T$F5Jx5fExrKuPp53xLKQ..1", "$5$abcdefgh", "$1$abcdefgh"}) {
    const std::string hash = generateHash("secret", salt);
    ASSERT_NE(hash, "") << salt;
    writeText(kPasswd, accountLine("admin", hash));
    EXPECT_TRUE(matches("admin", "secret")) << salt;
    EXPECT_FALSE(matches("admin", "other")) << salt;
  }
}

TEST_F(PasswordTest, SaltFitsScheme) {
  const std::string salt = generateSalt();
  EXPECT_TRUE(salt.starts_with("$6$"));
  EXPECT_GE(salt.size(), 3U + 8U);
  EXPECT_EQ(salt.find('$', 3), std::string::npos) << "the cost is the default";
  EXPECT_TRUE(hash_.starts_with("$6$"));
}

TEST_F(PasswordTest, HashNeedsPasswordAndSalt) {
  EXPECT_EQ(generateHash(nullptr, generateSalt()), "");
  EXPECT_EQ(generateHash("secret", "$unknown$"), "");
  EXPECT_EQ(generateHash(std::string(512, 'x').c_str(), generateSalt()), "");
  EXPECT_NE(generateHash(std::string(511, 'x').c_str(), generateSalt()), "");
}

TEST_F(PasswordTest, HashingStateIsWiped) {
  wiped = 0;
  generateHash("secret", "$1$abcdefgh");
  EXPECT_EQ(wiped, sizeof(crypt_data));
}

TEST_F(PasswordTest, LockingChangesNothingElseInFile) {
  const std::string before = "# odd\n\nroot:*:0:0\nadmin:cut\n\0nul\r\n"s;
  const std::string after = "adminx:h:1:1:::\nno line break";
  writeText(kPasswd, before + accountLine("admin", hash_) + after);
  ASSERT_EQ(chmod(kPasswd, 0604), 0);
  EXPECT_TRUE(lockPassword("admin"));
  EXPECT_EQ(readText(kPasswd), before + accountLine("admin", "!" + hash_) + after);
  EXPECT_EQ(tests::modeOf(kPasswd), 0604U);
}

TEST_F(PasswordTest, LockingChangesFileThatHoldsHash) {
  const std::string passwd = accountLine("admin", "x");
  writeText(kPasswd, passwd);
  writeText(kShadow, "admin:" + hash_ + ":1:0:99999:7:::\n");
  ASSERT_EQ(chmod(kShadow, 0600), 0);
  EXPECT_TRUE(lockPassword("admin"));
  EXPECT_EQ(readText(kShadow), "admin:!" + hash_ + ":1:0:99999:7:::\n");
  EXPECT_EQ(readText(kPasswd), passwd);
  EXPECT_EQ(tests::modeOf(kShadow), 0600U);
}

// Measures processor time, which does not depend on other processes.
double checkingTime(const std::string& user) {
  const std::clock_t start = std::clock();
  EXPECT_FALSE(matches(user, "a wrong password")) << user;
  return static_cast<double>(std::clock() - start);
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Wide bounds: with unequal work the ratio exceeds 10.
TEST_F(PasswordTest, WrongPasswordCostsSameForEveryAccount) {
  const std::string cheap = generateHash("secret", "$1$abcdefgh");
  writeText(kPasswd, accountLine("admin", hash_) + accountLine("locked", "!" + hash_) +
                         accountLine("empty", "") + accountLine("starred", "*") +
                         accountLine("broken", "$6$cut") + accountLine("cheap", cheap) +
                         accountLine("cheap.locked", "!" + cheap));
  std::map<std::string, std::vector<double>> times;
  for (int round = 0; round < 15; ++round) {
    for (const char* user : {"admin", "locked", "empty", "starred", "broken", "absent", "in:valid",
                             "cheap", "cheap.locked"}) {
      times[user].push_back(checkingTime(user));
    }
  }
  for (const auto& [user, measured] : times) {
    const double different = median(times[user.starts_with("cheap") ? "cheap" : "admin"]);
    ASSERT_GT(different, 0);
    EXPECT_GT(median(measured) / different, 1.0 / 3) << user;
    EXPECT_LT(median(measured) / different, 3.0) << user;
  }
}

}  // namespace
}  // namespace kova::utils
