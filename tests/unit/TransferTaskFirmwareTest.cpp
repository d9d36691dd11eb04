#include "TransferTaskFirmware.h"

#include <cerrno>

#include "TransferFixture.h"

namespace kova::ctlserver {
namespace {

constexpr char kImage[] = "/tmp/fwupdate.bin";
constexpr char kCheck[] = "/bin/fwupdate.real -c";
constexpr char kFlash[] = "/bin/fwupdate -m";
constexpr char kUri[] = "https://host/fw.bin";

std::string failure(const std::string& reason) {
  return "EventUpdateFirmwareFailure to=client.a id=77 " + reason;
}

class TransferTaskFirmwareTest : public TransferTest {
 protected:
  void SetUp() override {
    TransferTest::SetUp();
    task_.setUri(kUri).setIpcOrigin("client.a").setIpcRequestId(77);
    write(kImage, "image");
  }

  /// Makes the checker give this result; all other programs succeed.
  static void checkerAnswers(const fakes::ProcessResult& result) {
    platform().onRun = [result](const std::string& command) {
      return command == kCheck ? result : fakes::ProcessResult{};
    };
  }

  void succeed() {
    bool done = false;
    task_.onSuccess(done);
    EXPECT_TRUE(done);
  }

  void expectRejected(const fakes::ProcessResult& answer, const std::string& reason,
                      const std::vector<std::string>& lines) {
    fakes::reset();
    checkerAnswers(answer);
    succeed();
    EXPECT_THAT(platform().commands, ElementsAre(kCheck)) << "nothing is flashed";
    EXPECT_THAT(events(), ElementsAre(failure(reason)));
    EXPECT_EQ(logged(), lines);
    EXPECT_TRUE(exists(kImage)) << "the image is left in place";
  }

  static std::string rejection(const std::string& err) {
    return "4 TransferTaskFirmware.onSuccess: Firmware validation failed, uri=" +
           std::string(kUri) + ", status=" + err;
  }
  static std::string unreadable(const std::string& out) {
    return "6 TransferTaskFirmware.onSuccess: Parse fwupdate output message failed (" + out + ")";
  }

  TransferTaskFirmware task_;
};

TEST_F(TransferTaskFirmwareTest, FreshTaskDownloads50MebibytesInTenMinutes) {
  const TransferTaskFirmware task;
  EXPECT_EQ(task.name(), "fw");
  EXPECT_TRUE(task.download());
  EXPECT_EQ(task.path(), kImage);
  EXPECT_EQ(task.maxSz(), 52428800U);
  EXPECT_EQ(task.timeout(), 600000U);
}

TEST_F(TransferTaskFirmwareTest, StartRemovesOldImageIfAny) {
  EXPECT_TRUE(task_.onStart());
  EXPECT_FALSE(exists(kImage));
  EXPECT_TRUE(task_.onStart());
  EXPECT_THAT(platform().log, IsEmpty());
}

TEST_F(TransferTaskFirmwareTest, FailedTransferIsReportedAndImageRemoved) {
  task_.onFailure(TRANSFER_TOOLARGE, 503);
  EXPECT_THAT(events(), ElementsAre(failure("TRANSFER_TOOLARGE")));
  EXPECT_FALSE(exists(kImage));
  EXPECT_THAT(platform().log, IsEmpty()) << "the task logs nothing";
  EXPECT_THAT(platform().commands, IsEmpty());
}

TEST_F(TransferTaskFirmwareTest, FailureIsReportedBeforeImageIsRemoved) {
  Watched<TransferTaskFirmware> task;
  task.onFailure(TRANSFER_TIMEOUT, 0);
  EXPECT_THAT(task.seen, ElementsAre("TRANSFER_TIMEOUT with"));
}

TEST_F(TransferTaskFirmwareTest, ValidImageIsFlashedWithoutEventAndKept) {
  checkerAnswers({0, R"({"reason":"FW_CHECK_INCOMPAT_HW"})", ""});  // ignored with status 0
  succeed();
  EXPECT_THAT(platform().commands, ElementsAre(kCheck, kFlash));
  EXPECT_THAT(platform().captures, ElementsAre(fakes::CaptureTerms{"", 0, 0, 128}))
      << "the checker has its own time limit";
  EXPECT_THAT(logged(),
              ElementsAre("6 TransferTaskFirmware.onSuccess: Firmware update downloaded from uri=" +
                          std::string(kUri)));
  EXPECT_THAT(events(), IsEmpty());
  EXPECT_TRUE(exists(kImage));
}

TEST_F(TransferTaskFirmwareTest, OtherReasonIsFailedCheck) {
  for (const char* report :
       {R"({"reason":"FW_CHECK_FAILED"})", R"({"reason":"fw_check_incompat_hw"})",
        R"({"reason":" FW_CHECK_INCOMPAT_HW"})", R"({"reason":""})", R"({"reason":null})",
        R"({"reason":["FW_CHECK_INCOMPAT_HW"]})", R"({"Reason":"FW_CHECK_INCOMPAT_HW"})",
        R"({"nested":{"reason":"FW_CHECK_INCOMPAT_HW"}})", "{}", "[]", "7",
        R"("FW_CHECK_INCOMPAT_HW")"}) {
    SCOPED_TRACE(report);
    expectRejected({1, report, ""}, "FW_CHECK_FAILED", {rejection("")});
  }
}

TEST_F(TransferTaskFirmwareTest, NonJsonOutputIsLoggedAsFailedCheck) {
  for (const char* out : {"", "not json", R"({"reason":"FW_CHECK_INCOMPAT_HW")", "\xff\xfe"}) {
    SCOPED_TRACE(out);
    expectRejected({1, out, "bad magic"}, "FW_CHECK_FAILED",
                   {rejection("bad magic"), unreadable(out)});
  }
}

TEST_F(TransferTaskFirmwareTest, ErrorOutputAloneRejectsAcceptedImage) {
  expectRejected({0, R"({"status":"ok"})", "warning"}, "FW_CHECK_FAILED", {rejection("warning")});
  expectRejected({0, "", "\n"}, "FW_CHECK_FAILED", {rejection("\n"), unreadable("")});
  expectRejected({0, R"({"reason":"FW_CHECK_INCOMPAT_HW"})", "x"}, "FW_CHECK_INCOMPAT_HW",
                 {rejection("x")});
}

TEST_F(TransferTaskFirmwareTest, KilledOrMissingCheckerRejects) {
  expectRejected({128 + 9, "", ""}, "FW_CHECK_FAILED", {rejection(""), unreadable("")});
  expectRejected({127, "", ""}, "FW_CHECK_FAILED", {rejection(""), unreadable("")});
}

TEST_F(TransferTaskFirmwareTest, First128KibibytesOfOutputAreRead) {
  constexpr std::size_t kLimit = 128 * 1024;
  std::string report = R"({"reason":"FW_CHECK_INCOMPAT_HW","pad":")";
  report += std::string(kLimit - report.size() - 2, 'x') + "\"}";
  ASSERT_EQ(report.size(), kLimit);
  expectRejected({1, report, ""}, "FW_CHECK_INCOMPAT_HW", {rejection("")});
  report.insert(kLimit - 2, "x");
  expectRejected({1, report, ""}, "FW_CHECK_FAILED",
                 {rejection(""), unreadable(report.substr(0, kLimit))});
}

TEST_F(TransferTaskFirmwareTest, FailedFlasherIsReportedWithReasonAndImageKept) {
  for (const int status : {1, 127, 128 + 11}) {
    fakes::reset();
    platform().onRun = [status](const std::string& command) {
      errno = EIO;
      return fakes::ProcessResult{command == kFlash ? status : 0, "", ""};
    };
    succeed();
    EXPECT_THAT(platform().log,
                ElementsAre(LogLine{"TransferTaskFirmware", "onSuccess", 4, EIO,
                                    "Firmware flash failed, uri=" + std::string(kUri)}));
    EXPECT_THAT(events(), ElementsAre(failure("FW_FLASH_FAILED")));
    EXPECT_TRUE(exists(kImage));
  }
}

TEST_F(TransferTaskFirmwareTest, EventIsNormalisedAndExpectsNoResponse) {
  task_.notifyStatus("FW_CHECK_FAILED");
  const Variant& event = platform().bus.given;
  ASSERT_NE(event.find("functionName"), nullptr);
  EXPECT_EQ(*event.find("functionName"), Variant("EventUpdateFirmwareFailure"));
  EXPECT_EQ(*event.find("responseExpected"), Variant(false));
  EXPECT_NE(event.find("id"), nullptr);
  EXPECT_NE(event.find("timeStamp"), nullptr);
  EXPECT_EQ(event.find("status"), nullptr);
}

TEST_F(TransferTaskFirmwareTest, UnknownStatusBecomesTimeOut) {
  task_.notifyStatus("no such status");
  EXPECT_THAT(events(), ElementsAre(failure("TRANSFER_TIMEOUT")));
}

TEST_F(TransferTaskFirmwareTest, EventsCannotBeDisabled) {
  task_.setSendNoEvents(true);
  task_.notifyStatus("FW_CHECK_FAILED");
  EXPECT_THAT(events(), ElementsAre(failure("FW_CHECK_FAILED")));
}

TEST_F(TransferTaskFirmwareTest, FailureWithoutEndpointIsLogged) {
  platform().bus.absent = true;
  task_.notifyStatus("FW_CHECK_FAILED");
  EXPECT_THAT(logged(), ElementsAre("3 TransferTaskFirmware.notifyStatus: pIpc is NULL"));
  EXPECT_THAT(events(), IsEmpty());
}

TEST_F(TransferTaskFirmwareTest, UnsendableEventIsLogged) {
  platform().bus.sendResult = false;
  task_.notifyStatus("FW_CHECK_FAILED");
  EXPECT_THAT(logged(),
              ElementsAre("4 TransferTaskFirmware.notifyStatus: Failed to send transfer failure "
                          "notification"));
}

}  // namespace
}  // namespace kova::ctlserver
