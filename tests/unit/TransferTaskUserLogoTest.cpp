#include "TransferTaskUserLogo.h"

#include "InstallFixture.h"

namespace kova::ctlserver {
namespace {

class TransferTaskUserLogoTest : public InstallTest<LogoKind> {
 protected:
  /// Installs the logo while the probe gives `answer`.
  void put(const fakes::ProcessResult& answer) {
    restart();
    empty("/etc/persistent");
    platform().onRun = [answer](const std::string& command) {
      return command.starts_with(kProbe) ? answer : fakes::ProcessResult{};
    };
    write(download_, LogoKind::content());
    errno = EIO;  // a stale value
    succeed();
  }
};

TEST_F(TransferTaskUserLogoTest, PictureIsDecodedOutsideDaemon) {
  put({0, "empty=0 channels=1 depth=0 width=64 height=48\n", ""});
  EXPECT_THAT(platform().commands,
              ElementsAre("/usr/libexec/kova_imageprobe /tmp/user_logo", kSave));
  expectStatus("OK");
}

TEST_F(TransferTaskUserLogoTest, PicturesFrom1To1024PixelsAreAccepted) {
  for (const char* size : {"width=1 height=1", "width=1024 height=1024", "width=1 height=1024",
                           "width=1024 height=1"}) {
    put({0, "empty=0 channels=1 depth=0 " + std::string(size) + "\n", ""});
    expectStatus("OK");
  }
}

TEST_F(TransferTaskUserLogoTest, OtherSizeIsLoggedAndRefused) {
  const std::pair<const char*, const char*> cases[] = {
      {"empty=0 channels=1 depth=0 width=1025 height=1",
       "empty=0, nCh=1, depth=0, width=1025, height=1"},
      {"empty=0 channels=1 depth=0 width=1 height=1025",
       "empty=0, nCh=1, depth=0, width=1, height=1025"},
      {"empty=0 channels=1 depth=0 width=0 height=7", "empty=0, nCh=1, depth=0, width=0, height=7"},
      {"empty=0 channels=1 depth=0 width=7 height=0", "empty=0, nCh=1, depth=0, width=7, height=0"},
      {"empty=0 channels=1 depth=0 width=-7 height=7",
       "empty=0, nCh=1, depth=0, width=-7, height=7"},
      {"empty=0 channels=3 depth=0 width=7 height=7", "empty=0, nCh=3, depth=0, width=7, height=7"},
      {"empty=0 channels=1 depth=5 width=7 height=7", "empty=0, nCh=1, depth=5, width=7, height=7"},
      {"empty=1 channels=1 depth=0 width=7 height=7", "empty=1, nCh=1, depth=0, width=7, height=7"},
      {"empty=1 channels=1 depth=0 width=0 height=0",
       "empty=1, nCh=1, depth=0, width=0, height=0"}};
  for (const auto& [printed, figures] : cases) {
    SCOPED_TRACE(printed);
    put({0, std::string(printed) + "\n", ""});
    expectRefused(std::string("Logo validation failed, uri=") + kInstallUri + ", " + figures);
  }
}

}  // namespace
}  // namespace kova::ctlserver
