#include "TransferRig.h"

namespace kova::system_test {
namespace {

constexpr std::size_t kHeader = 512;
constexpr std::size_t kLargest = 50UL * 1024 * 1024;

class FirmwareSystem : public TransferRig {
 protected:
  static std::string image(std::size_t size) {
    const auto payload = camera().root().parent_path() / "payload";
    const auto file = camera().root().parent_path() / "image";
    writeFile(payload, std::string(size - kHeader, 'p'));
    const Result made = run(
        KOVA_MKFIRMWARE, {file, "--board", ownBoard(), "--version", "1.2.3", "--payload", payload});
    EXPECT_EQ(made.status, 0) << made.err;
    return readFile(file);
  }

  static std::string ownBoard() {
    Variant info;
    EXPECT_GT(Variant::FromJSON(readFile(inside("/usr/share/kova/camera_info.json")), info), 0);
    return std::to_string(info["sysid"].toNumber<std::uint32_t>());
  }
};

// Within the memory limit of the camera's services.
TEST_F(FirmwareSystem, LargestImageIsCheckedAndFlashed) {
  const std::string content = image(kLargest);
  ASSERT_EQ(content.size(), kLargest);
  const LogMark mark(camera());
  manager().serve("fw.bin", content);
  const std::uint64_t id = requester().ask({{"uri", manager().fileUri("fw.bin")}});
  EXPECT_TRUE(mark.waitFor("Firmware update downloaded from uri=" + manager().fileUri("fw.bin"),
                           std::chrono::seconds(20)));
  requester().settle();
  EXPECT_THAT(requester().outcomes(id), testing::IsEmpty()) << "success is not announced";
  EXPECT_TRUE(readFile(camera().flash() / "firmware.bin") == content);
  EXPECT_TRUE(readFile(inside("/tmp/fwupdate.bin")) == content);
  EXPECT_TRUE(camera().tools().ends_with("/bin/fwupdate.real -c\n/bin/fwupdate -m\n"));
}

}  // namespace
}  // namespace kova::system_test
