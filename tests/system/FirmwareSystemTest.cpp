#include "TransferRig.h"

namespace kova::system_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kChecker[] = "fwupdate.real";

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

TEST_F(FirmwareSystem, IncompleteImageIsRefused) {
  const std::string good = image("2.1");
  for (const std::string& content :
       {image("2.2", {"--corrupt"}), good.substr(0, good.size() - 1), good + "x",
        good.substr(0, 100), std::string("not an image"), std::string()}) {
    expectRejected(content, "FW_CHECK_FAILED");
  }
}

TEST_F(FirmwareSystem, ErrorPageIsNotImage) {
  EXPECT_EQ(requester().outcomeOf({{"uri", manager().fileUri("no-such.bin")}}), "FW_CHECK_FAILED");
}

TEST_F(FirmwareSystem, CheckerErrorOutputRejects) {
  camera().misbehave(kChecker, "stderr", "deprecated option\n");
  expectRejected(image("3.0"), "FW_CHECK_FAILED");
  camera().behave(kChecker);
  expectFlashed(image("3.1"));
}

TEST_F(FirmwareSystem, NonJsonCheckerOutputRejects) {
  const std::pair<std::string, std::string> answers[] = {
      {"{\"reason\":\"FW_CHECK_INCOMPAT_HW\"", "FW_CHECK_FAILED"},
      {"", "FW_CHECK_FAILED"},
      {std::string(10'000'000, 'x'), "FW_CHECK_FAILED"},
      {"{\"reason\":\"fw_check_incompat_hw\"}", "FW_CHECK_FAILED"},
      {"{\"reason\":\"FW_CHECK_INCOMPAT_HW\"}", "FW_CHECK_INCOMPAT_HW"},
      {"{\"reason\":\"FW_CHECK_INCOMPAT_HW\"}" + std::string(10'000'000, ' '),
       "FW_CHECK_INCOMPAT_HW"}};
  const std::string content = image("4.0");
  for (const auto& [printed, reason] : answers) {
    SCOPED_TRACE(printed.substr(0, 60));
    camera().misbehave(kChecker, "stdout", printed);
    camera().misbehave(kChecker, "exit", "1");
    expectRejected(content, reason);
  }
}

TEST_F(FirmwareSystem, KilledCheckerRejects) {
  for (const char* signal : {"KILL", "SEGV"}) {
    camera().misbehave(kChecker, "kill", signal);
    expectRejected(image("5.0"), "FW_CHECK_FAILED");
  }
}

TEST_F(FirmwareSystem, MissingCheckerRejects) {
  const auto checker = inside("/bin/fwupdate.real");
  const auto aside = inside("/bin/fwupdate.aside");
  std::filesystem::rename(checker, aside);
  expectRejected(image("5.1"), "FW_CHECK_FAILED");
  std::filesystem::rename(aside, checker);
}

TEST_F(FirmwareSystem, FailedFlasherIsReportedAndImageKept) {
  const std::string content = image("6.0");
  for (const auto& [setting, value] : {std::pair{"exit", "1"}, {"kill", "KILL"}}) {
    const LogMark mark(camera());
    camera().misbehave("fwupdate", setting, value);
    const std::uint64_t id = update(content);
    EXPECT_EQ(requester().outcome(id), "FW_FLASH_FAILED");
    EXPECT_TRUE(mark.waitFor("Firmware flash failed, uri=" + manager().fileUri("fw.bin")));
    EXPECT_EQ(readFile(inside("/tmp/fwupdate.bin")), content);
    EXPECT_NE(readFile(camera().flash() / "firmware.bin"), content);
    camera().behave("fwupdate");
  }
}

TEST_F(FirmwareSystem, SilentServerTimesOutAndLeavesNoImage) {
  const SilentServer server;
  writeFile(inside("/tmp/fwupdate.bin"), "an old image");
  EXPECT_EQ(requester().outcomeOf({{"uri", server.uri()}, {"timeoutMs", 1}}), "TRANSFER_TIMEOUT");
  EXPECT_TRUE(eventually([] { return !exists(inside("/tmp/fwupdate.bin")); }));
}

TEST_F(FirmwareSystem, ImageOverFiftyMebibytesIsTooLarge) {
  const engine::RawServer server([](engine::Connection& connection) {
    connection.readHead();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 52428801\r\n\r\nbytes");
    connection.awaitClose();
  });
  EXPECT_EQ(requester().outcomeOf({{"uri", server.uri()}}), "TRANSFER_TOOLARGE");
  EXPECT_TRUE(eventually([] { return !exists(inside("/tmp/fwupdate.bin")); }));
}

TEST_F(FirmwareSystem, UpdateWithoutTimeOutKeepsRunning) {
  const SilentServer server;
  const LogMark mark(camera());
  const std::uint64_t first = requester().ask({{"uri", server.uri()}, {"timeoutMs", 0}});
  ASSERT_TRUE(eventually([&] { return server.connections() == 1; }));
  EXPECT_THAT(requester().outcomes(first), IsEmpty());
  // A second one is refused, whatever its URI, and the first runs on.
  const std::uint64_t second = requester().ask({{"uri", server.uri("/other")}});
  EXPECT_TRUE(
      mark.waitFor("Transfer with such name already exists, what=fw, uri=" + server.uri("/other")));
  requester().settle();
  EXPECT_THAT(requester().outcomes(first), IsEmpty());
  EXPECT_THAT(requester().outcomes(second), IsEmpty());
}

}  // namespace
}  // namespace kova::system_test
