#include <sstream>

#include "TransferRig.h"

namespace kova::system_test {
namespace {

constexpr std::size_t kMebibyte = 1'048'576;
constexpr std::size_t kHeader = 512;

/// What a camera's services may use, and that their job can be done within.
class LimitsSystem : public TransferRig {
 protected:
  /// A process's present limit (proc(5), "limits").
  static std::string limitOf(pid_t pid, const std::string& name) {
    std::istringstream limits(readFile("/proc/" + std::to_string(pid) + "/limits"));
    for (std::string line; std::getline(limits, line);) {
      if (line.starts_with(name + " ")) {
        std::istringstream rest(line.substr(name.size()));
        std::string value;
        rest >> value;
        return value;
      }
    }
    return "none";
  }

  static std::string image(std::size_t size) {
    const auto folder = std::filesystem::temp_directory_path();
    const auto payload = folder / ("kova-payload-" + std::to_string(getpid()));
    const auto file = folder / ("kova-image-" + std::to_string(getpid()));
    writeFile(payload, std::string(size - kHeader, 'p'));
    Variant info;
    EXPECT_GT(Variant::FromJSON(readFile(inside("/usr/share/kova/camera_info.json")), info), 0);
    const Result made =
        run(KOVA_MKFIRMWARE, {file, "--board", std::to_string(info["sysid"].toNumber<unsigned>()),
                              "--version", "9.9", "--payload", payload});
    EXPECT_EQ(made.status, 0) << made.err;
    std::string content = readFile(file);
    std::filesystem::remove(file);
    std::filesystem::remove(payload);
    EXPECT_EQ(content.size(), size);
    return content;
  }
};

TEST_F(LimitsSystem, ServicesRunUnderLimits) {
  const pid_t daemon = controlServer(camera()).pid();
  EXPECT_EQ(limitOf(daemon, "Max open files"), "4096");
  EXPECT_EQ(limitOf(daemon, "Max core file size"), "0");
#if !defined(__SANITIZE_ADDRESS__)  // which reserves far more
  EXPECT_EQ(limitOf(daemon, "Max data size"), "536870912");
#endif
  const std::vector<pid_t> buses = processesOf(camera(), "dbus-daemon");
  ASSERT_EQ(buses.size(), 1U);
  EXPECT_EQ(limitOf(buses.front(), "Max data size"), "536870912");
}

TEST_F(LimitsSystem, FirmwareOf50MebibytesIsFlashed) {
  const std::string content = image(50 * kMebibyte);
  manager().serve("fw.bin", content);
  const LogMark mark(camera());
  requester().ask({{"uri", manager().fileUri("fw.bin")}});
  ASSERT_TRUE(mark.waitFor("Firmware update downloaded from uri=", std::chrono::seconds(20)));
  EXPECT_EQ(readFile(camera().flash() / "firmware.bin"), content);
}

}  // namespace
}  // namespace kova::system_test
