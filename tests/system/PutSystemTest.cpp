#include "TransferRig.h"

namespace kova::system_test {
namespace {

class PutSystem : public TransferRig {
 protected:
  /// Expects that a logo is refused with this outcome and the installed one stays.
  void expectRefused(const std::string& outcome, const std::string& uri, const std::string& hash) {
    const auto installed = inside("/etc/persistent/user_logo");
    if (!exists(installed)) {
      ASSERT_EQ(put("logo", picture(64, 48)), "OK");
    }
    const std::string before = readFile(installed);
    const std::uint64_t id = requester().ask({{"what", "logo"}, {"uri", uri}, {"hash", hash}});
    EXPECT_EQ(requester().outcome(id), outcome);
    requester().settle();
    EXPECT_EQ(requester().outcomes(id).size(), 1U);
    EXPECT_EQ(readFile(installed), before);
    EXPECT_THAT(temporaries(), testing::Not(testing::Contains(testing::HasSubstr("user_"))));
  }
};

TEST_F(PutSystem, NonPicturesAndOversizedPicturesAreRefused) {
  const LogMark mark(camera());
  for (const std::string& content :
       {std::string("this is no picture"), std::string(), picture(1025, 1), picture(1, 1025),
        picture(64, 48).substr(0, 30), std::string("\x89PNG\r\n\x1a\n")}) {
    manager().serve("bad", content);
    expectRefused("VALIDATION_FAILED", manager().fileUri("bad"), md5(content));
  }
  EXPECT_TRUE(mark.waitFor("empty=0, nCh=1, depth=0, width=1025, height=1"));
  EXPECT_TRUE(mark.waitFor("empty=0, nCh=1, depth=0, width=1, height=1025"));
  EXPECT_TRUE(mark.waitFor("empty=1, nCh=1, depth=0, width=0, height=0"));
}

TEST_F(PutSystem, ServerOfOtherAuthorityIsRefused) {
  Manager stranger;
  const std::string other = picture(32, 32);
  stranger.serve("file", other);
  expectRefused("TRANSFER_FAILED", stranger.fileUri("file"), md5(other));
}

}  // namespace
}  // namespace kova::system_test
