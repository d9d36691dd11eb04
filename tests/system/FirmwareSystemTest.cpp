#include "TransferRig.h"

namespace kova::system_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FirmwareSystem : public TransferRig {
 protected:
  /// An image for the board of this camera.
  static std::string image(const std::string& version, const std::vector<std::string>& more = {},
                           const std::string& board = "") {
    const auto file = std::filesystem::temp_directory_path() /
                      ("kova-image-" + std::to_string(getpid()) + "-" + version);
    std::vector<std::string> arguments = {file, "--board", board.empty() ? ownBoard() : board,
                                          "--version", version};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Result made = run(KOVA_MKFIRMWARE, arguments);
    EXPECT_EQ(made.status, 0) << made.err;
    std::string content = readFile(file);
    std::filesystem::remove(file);
    return content;
  }

  static std::string ownBoard() {
    Variant info;
    EXPECT_GT(Variant::FromJSON(readFile(inside("/usr/share/kova/camera_info.json")), info), 0);
    return std::to_string(info["sysid"].toNumber<std::uint32_t>());
  }

  std::uint64_t update(const std::string& content) {
    manager().serve("fw.bin", content);
    return requester().ask({{"uri", manager().fileUri("fw.bin")}});
  }

  /// The image is refused for `reason`, stays where it is and does not reach the flash.
  void expectRejected(const std::string& content, const std::string& reason) {
    const LogMark mark(camera());
    const std::string flashed = readFile(camera().flash() / "firmware.bin");
    const std::uint64_t id = update(content);
    EXPECT_EQ(requester().outcome(id), reason);
    EXPECT_TRUE(mark.waitFor("Firmware validation failed, uri=" + manager().fileUri("fw.bin")));
    requester().settle();
    EXPECT_THAT(requester().outcomes(id), ElementsAre(reason));
    EXPECT_EQ(readFile(inside("/tmp/fwupdate.bin")), content);
    EXPECT_EQ(readFile(camera().flash() / "firmware.bin"), flashed);
  }

  void expectFlashed(const std::string& content) {
    const LogMark mark(camera());
    const std::uint64_t id = update(content);
    EXPECT_TRUE(mark.waitFor("Firmware update downloaded from uri=" + manager().fileUri("fw.bin"),
                             std::chrono::seconds(20)));
    requester().settle();
    EXPECT_THAT(requester().outcomes(id), IsEmpty()) << "success is not announced";
    EXPECT_EQ(readFile(camera().flash() / "firmware.bin"), content);
    EXPECT_EQ(readFile(inside("/tmp/fwupdate.bin")), content);
  }
};

TEST_F(FirmwareSystem, ValidImageIsCheckedAndFlashed) {
  expectFlashed(image("1.2.3"));
  EXPECT_TRUE(camera().tools().ends_with("/bin/fwupdate.real -c\n/bin/fwupdate -m\n"));
}

TEST_F(FirmwareSystem, ImageForOtherBoardIsReportedAsSuch) {
  expectRejected(image("2.0", {}, "4242"), "FW_CHECK_INCOMPAT_HW");
}

}  // namespace
}  // namespace kova::system_test
