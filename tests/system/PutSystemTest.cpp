#include "TransferRig.h"

namespace kova::system_test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

/// The two kinds of file that are installed.
struct Kind {
  std::string what;
  std::string sample;
  std::size_t limit;

  std::string path() const { return "/etc/persistent/user_" + what; }
};

const Kind kKinds[] = {{"logo", picture(64, 48), 131072}, {"sound", sound(1, 11025), 262144}};

class PutSystem : public TransferRig {
 protected:
  /// A put is refused with this outcome, and what was installed before stays.
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

TEST_F(PutSystem, InstalledFileIsNeitherFetchedNorAnswered) {
  for (const Kind& kind : kKinds) {
    const std::string content = kind.sample + "again";
    ASSERT_EQ(put(kind.what, content), "OK");
    const std::uint64_t id = requester().ask(
        {{"what", kind.what}, {"uri", manager().fileUri("again")}, {"hash", md5(content)}});
    requester().settle();
    EXPECT_THAT(requester().outcomes(id), IsEmpty());
    EXPECT_EQ(manager().requests("GET /files/again"), 0U);
  }
}

TEST_F(PutSystem, WrongDigestIsRefused) {
  for (const Kind& kind : kKinds) {
    const std::string content = kind.sample + "digest";
    manager().serve("file", content);
    std::string upper = md5(content);
    for (char& digit : upper) {
      digit = static_cast<char>(std::toupper(digit));
    }
    for (const std::string& hash :
         {std::string(32, '0'), upper, md5(content).substr(1), md5(content) + "\n",
          std::string("x"), std::string(64 * 1024, 'f'), std::string("%s%n%n")}) {
      SCOPED_TRACE(hash.substr(0, 40));
      expectRefused(kind, "VALIDATION_FAILED", manager().fileUri("file"), hash);
    }
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

TEST_F(PutSystem, PicturesAtLimitsAreAccepted) {
  EXPECT_EQ(put("logo", picture(1024, 1)), "OK");
  EXPECT_EQ(put("logo", picture(1, 1024)), "OK");
  EXPECT_EQ(put("logo", picture(1, 1)), "OK");
}

TEST_F(PutSystem, OtherThanMonoSoundAt11025HertzIsRefused) {
  std::string broken = sound(1, 11025);
  broken[20] = 7;  // mu-law
  for (const std::string& content :
       {sound(2, 11025), sound(1, 22050), sound(1, 44100), sound(1, 0), broken, std::string("RIFF"),
        sound(1, 11025).substr(0, 40), std::string()}) {
    expectInvalid(kKinds[1], content);
  }
}

TEST_F(PutSystem, SampleWidthDoesNotMatter) {
  for (const unsigned bits : {8U, 16U, 24U}) {
    EXPECT_EQ(put("sound", sound(1, 11025, bits)), "OK") << bits;
  }
}

TEST_F(PutSystem, OnlyFileOverLimitIsTooLarge) {
  for (const Kind& kind : kKinds) {
    const std::string atLimit = kind.sample + std::string(kind.limit - kind.sample.size(), 'x');
    manager().serve("large", atLimit + "x");
    expectRefused(kind, "TRANSFER_TOOLARGE", manager().fileUri("large"), md5(atLimit + "x"));
    EXPECT_EQ(put(kind.what, atLimit), "OK");
  }
}

TEST_F(PutSystem, ErrorPageIsNotFile) {
  for (const Kind& kind : kKinds) {
    expectRefused(kind, "VALIDATION_FAILED", manager().fileUri("missing"), md5(kind.sample));
  }
}

TEST_F(PutSystem, ServerOfOtherAuthorityIsRefused) {
  Manager stranger;
  stranger.serve("file", kKinds[0].sample);
  expectRefused(kKinds[0], "TRANSFER_FAILED", stranger.fileUri("file"), md5(kKinds[0].sample));
}

TEST_F(PutSystem, NothingStartsWithoutHash) {
  for (const Kind& kind : kKinds) {
    for (const Fields& more : {Fields{}, Fields{{"hash", ""}}, Fields{{"hash", 7}}}) {
      const LogMark mark(camera());
      Fields fields = more;
      fields.insert({{"what", kind.what}, {"uri", manager().fileUri("no-hash")}});
      const std::uint64_t id = requester().ask(fields);
      EXPECT_TRUE(mark.waitFor("Hash must be set"));
      requester().settle();
      EXPECT_THAT(requester().outcomes(id), IsEmpty());
    }
  }
  EXPECT_EQ(manager().requests("GET /files/no-hash"), 0U);
}

/// Boots of its own, so the control server is not the same throughout.
TEST(PutRebootSystem, InstalledFilesSurviveReboot) {
  Camera camera;
  Manager manager;
  manager.adopt(camera);
  {
    Requester requester(camera);
    for (const Kind& kind : kKinds) {
      manager.serve(kind.what, kind.sample);
      ASSERT_EQ(requester.outcomeOf({{"what", kind.what},
                                     {"uri", manager.fileUri(kind.what)},
                                     {"hash", md5(kind.sample)}}),
                "OK");
    }
  }
  ASSERT_EQ(camera.exec({"/usr/bin/reboot"}).status, 0);
  ASSERT_TRUE(camera.waitForBoot(2));
  Requester requester(camera);
  for (const Kind& kind : kKinds) {
    const auto path = camera.root() / kind.path().substr(1);
    EXPECT_EQ(readFile(path), kind.sample);
    EXPECT_EQ(readFile(path.string() + ".md5"), md5(kind.sample));
    requester.ask({{"what", kind.what},
                   {"uri", manager.fileUri("after-reboot")},
                   {"hash", md5(kind.sample)}});
  }
  requester.settle();
  EXPECT_EQ(manager.requests("GET /files/after-reboot"), 0U) << "it is known to be installed";
}

}  // namespace
}  // namespace kova::system_test
