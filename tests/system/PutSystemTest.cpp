#include "TransferRig.h"

namespace kova::system_test {
namespace {

using testing::Not;

/// A kind of installable file.
struct Kind {
  std::string what;
  std::string sample;

  std::string path() const { return "/etc/persistent/user_" + what; }
};

const Kind kKinds[] = {{"logo", picture(64, 48)}, {"sound", tests::wav(1, 11025)}};

class PutSystem : public TransferRig {
 protected:
  /// Expects that a put is refused with this outcome and the installed file stays.
  void expectRefused(const Kind& kind, const std::string& outcome, const std::string& uri,
                     const std::string& hash) {
    if (!exists(inside(kind.path()))) {
      ASSERT_EQ(put(kind.what, kind.sample), "OK");
    }
    const std::string before = readFile(inside(kind.path()));
    const std::uint64_t id = requester().ask({{"what", kind.what}, {"uri", uri}, {"hash", hash}});
    EXPECT_EQ(requester().outcome(id), outcome);
    requester().settle();
    EXPECT_EQ(requester().outcomes(id).size(), 1U);
    EXPECT_EQ(readFile(inside(kind.path())), before);
    EXPECT_THAT(temporaries(), Not(testing::Contains(testing::HasSubstr("user_"))));
  }
  void expectInvalid(const Kind& kind, const std::string& content) {
    manager().serve("bad", content);
    expectRefused(kind, "VALIDATION_FAILED", manager().fileUri("bad"), md5(content));
  }
};

TEST_F(PutSystem, ValidFileIsInstalledWithChecksumAndSaved) {
  for (const Kind& kind : kKinds) {
    const std::string content = kind.sample + "saved";
    const std::uint64_t before = requester().count();
    EXPECT_EQ(put(kind.what, content), "OK");
    for (const auto& folder : {camera().root(), camera().flash()}) {
      EXPECT_EQ(readFile(folder / kind.path().substr(1)), content);
      EXPECT_EQ(readFile(folder / (kind.path().substr(1) + ".md5")), md5(content));
    }
    requester().settle();
    EXPECT_EQ(requester().count() - before, 1U + 3U) << "one event, and those of settling";
    EXPECT_THAT(temporaries(), Not(testing::Contains(testing::HasSubstr("user_"))));
  }
}

TEST_F(PutSystem, NonPicturesAndOversizedPicturesAreRefused) {
  const LogMark mark(camera());
  for (const std::string& content :
       {std::string("this is no picture"), std::string(), picture(1025, 1), picture(1, 1025),
        picture(64, 48).substr(0, 30), std::string("\x89PNG\r\n\x1a\n")}) {
    expectInvalid(kKinds[0], content);
  }
  EXPECT_TRUE(mark.waitFor("empty=0, nCh=1, depth=0, width=1025, height=1"));
  EXPECT_TRUE(mark.waitFor("empty=0, nCh=1, depth=0, width=1, height=1025"));
  EXPECT_TRUE(mark.waitFor("empty=1, nCh=1, depth=0, width=0, height=0"));
}

TEST_F(PutSystem, ServerOfOtherAuthorityIsRefused) {
  Manager stranger;
  stranger.serve("file", kKinds[0].sample);
  expectRefused(kKinds[0], "TRANSFER_FAILED", stranger.fileUri("file"), md5(kKinds[0].sample));
}

}  // namespace
}  // namespace kova::system_test
