#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "../../platform/utils/tests/TemporaryFolder.h"
#include "Child.h"
#include "Peer.h"

namespace kova::ctl::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using variant::Variant;

class Passwords : public BusTest {
 protected:
  std::string fileWith(const std::string& name, const std::string& content) const {
    tests::writeText(folder_ / name, content);
    return folder_ / name;
  }

  // The fields of the last request: name, old and new password.
  std::vector<std::string> asked() const {
    const Peer::Request request = peer_.received().back();
    return {request.find("username")->toText(), request.find("passwordOld")->toText(),
            request.find("passwordNew")->toText()};
  }

  tests::TemporaryFolder folder_;
  Peer peer_{answering(0, Variant::Map{{"username", "admin"}})};
};

TEST_F(Passwords, UserShowPrintsName) {
  expectOutput(run({"user", "show"}), 0, "admin\n");
}

TEST_F(Passwords, AreReadFromStandardInput) {
  EXPECT_EQ(run({"user", "passwd", "--stdin"}, "old one\nnew\nrest\n").status, 0);
  EXPECT_EQ(asked(), (std::vector<std::string>{"admin", "old one", "new"}));
  EXPECT_EQ(run({"user", "passwd", "--stdin", "--name", "boss"}, "a\nb").status, 0);
  EXPECT_EQ(asked(), (std::vector<std::string>{"boss", "a", "b"}));
}

TEST_F(Passwords, AreReadFromFiles) {
  EXPECT_EQ(run({"user", "passwd", "--old-file", fileWith("old", "a b\nrest"), "--new-file",
                 fileWith("new", "c")})
                .status,
            0);
  EXPECT_EQ(asked(), (std::vector<std::string>{"admin", "a b", "c"}));
  expectFailure(
      run({"user", "passwd", "--old-file", folder_ / "none", "--new-file", fileWith("new", "c")}),
      6, "No such file");
}

TEST_F(Passwords, InvalidPasswordsAreNotSent) {
  for (const std::string& input :
       {std::string("\nnew\n"), std::string("old\n\n"), std::string(65, 'x') + "\nnew\n",
        std::string("old\n"), "old\n" + std::string(65, 'x') + "\n"}) {
    EXPECT_EQ(run({"user", "passwd", "--stdin", "--name", "n"}, input).status, 2) << input;
  }
  EXPECT_TRUE(peer_.received().empty());
  EXPECT_EQ(run({"user", "passwd", "--stdin", "--name", "n"},
                std::string(64, 'x') + "\n" + std::string(64, 'y') + "\n")
                .status,
            0);
}

TEST_F(Passwords, PromptHasNoEcho) {
  Child child({"user", "passwd"}, Child::On::Terminal);
  ASSERT_TRUE(child.awaitOutput("Old password: "));
  EXPECT_FALSE(child.echoes());
  child.write("hunter2\n");
  ASSERT_TRUE(child.awaitOutput("New password: "));
  child.write("swordfish\n");
  ASSERT_TRUE(child.awaitOutput("New password again: "));
  child.write("swordfish\n");
  const Result result = child.wait();
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_TRUE(child.echoes());
  EXPECT_THAT(result.out, Not(HasSubstr("hunter2")));
  EXPECT_THAT(result.out, Not(HasSubstr("swordfish")));
  EXPECT_EQ(asked(), (std::vector<std::string>{"admin", "hunter2", "swordfish"}));
}

TEST_F(Passwords, DifferentNewPasswordsChangeNothing) {
  Child child({"user", "passwd", "--name", "n", "--old-file", fileWith("old", "a")},
              Child::On::Terminal);
  ASSERT_TRUE(child.awaitOutput("New password: "));
  child.write("one\n");
  ASSERT_TRUE(child.awaitOutput("again: "));
  child.write("two\n");
  EXPECT_EQ(child.wait().status, 6);
  EXPECT_TRUE(peer_.received().empty());
}

TEST_F(Passwords, CtrlCAtPromptRestoresEcho) {
  Child child({"user", "passwd"}, Child::On::Terminal);
  ASSERT_TRUE(child.awaitOutput("Old password: "));
  child.write("secr\x03");
  EXPECT_EQ(child.wait().status, 130);
  EXPECT_TRUE(child.echoes());
  EXPECT_EQ(peer_.received().size(), 1U) << "only the name was requested";
}

}  // namespace
}  // namespace kova::ctl::testing
