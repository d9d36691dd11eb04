// Outcome and reason in the record of each request: one row per cause.

#include "CtlCommandsHandler.h"
#include "ReasonsFixture.h"
#include "TransferObjects.h"
#include "kova/ipc/Ipc.h"
#include "kova/utils/Process.h"

namespace kova::ctlserver {
namespace {

TEST_F(TransferReasonsTest, EachKindHasItsFacts) {
  const struct {
    const char* kind;
    const char* named;
    const char* direction;
    const char* file;
  } cases[] = {
      {"snapshot", "snapshot", "up", "/tmp/snap.jpeg"},
      {"supportInfo", "supportInfo", "up", ""},
      {"eventSnapshot", "eventSnapshot", "up", "/tmp/motionsnap_1.jpg"},
      {"eventHeatmap", "eventHeatmap", "up", "/tmp/heatmap_1.png"},
      {"logo", "logo", "down", "/tmp/user_logo"},
      {"sound", "sound", "down", "/tmp/user_sound"},
      {"fw", "firmware", "down", "/tmp/fwupdate.bin"},
  };
  std::uint64_t number = 0;
  for (const auto& [kind, named, direction, file] : cases) {
    ASSERT_TRUE(ask(kind, "http://u:p@127.0.0.1/" + std::string(kind)));
    const TransferRecord& facts = record(++number);
    EXPECT_EQ(facts.kind, named);
    EXPECT_EQ(facts.direction, direction);
    EXPECT_EQ(facts.file, file);
    EXPECT_EQ(facts.uri, "http://127.0.0.1/" + std::string(kind));
    EXPECT_EQ(facts.requester, "client.a");
    EXPECT_EQ(facts.requestId, 7U);
    EXPECT_EQ(facts.phase, TransferPhase::Preparing);
  }
}

TEST_F(TransferReasonsTest, EachRefusalNamesItsCause) {
  const struct {
    const char* kind;
    Fields fields;
    const char* reason;
  } cases[] = {
      {"snapshot", {{"uri", 7}}, "The request gives no URI (uri)."},
      {"logo", {{"timeoutMs", 0}}, "The request gives no time-out (timeoutMs)."},
      {"sound", {{"from", ""}}, "The request does not say to whom events go (from)."},
      {"logo", {{"hash", 7}}, "The request gives no MD5 digest (hash)."},
      {"sound", {{"hash", ""}}, "The request gives no MD5 digest (hash)."},
      {"eventSnapshot",
       {{"filename", "../etc/passwd"}},
       "The path /tmp/../etc/passwd is not allowed: it must be /tmp/motionsnap_, digits and .jpg."},
      {"eventHeatmap",
       {{"filename", "heatmap_1.jpg"}},
       "The path /tmp/heatmap_1.jpg is not allowed: it must be /tmp/heatmap_, digits and .png."},
      {"snapshot", {{"what", 7}}, "The request does not say what to transfer (what)."},
  };
  write("/etc/persistent/user_logo.md5", "_UNINITIALIZED_");
  for (const auto& [kind, fields, reason] : cases) {
    startServer();
    Fields all = fields;
    all.emplace("uri", uri());
    all.emplace("what", kind);
    all.emplace("hash", kAnyDigest);
    const bool isPut = std::string(kind) == "logo" || std::string(kind) == "sound";
    EXPECT_FALSE(isPut ? put(all) : get(all)) << reason;
    EXPECT_EQ(told(1), std::string("REFUSED: ") + reason);
    EXPECT_GT(record(1).ended, 0U);
    EXPECT_THAT(events(), IsEmpty());
  }
}

TEST_F(TransferReasonsTest, RequestWithoutWordHasNoKind) {
  EXPECT_FALSE(put({{"uri", uri()}}));
  EXPECT_EQ(record(1).kind, "");
  EXPECT_EQ(record(1).direction, "down");
  EXPECT_EQ(told(1), "REFUSED: The request does not say what to transfer (what).");
}

TEST_F(TransferReasonsTest, DuplicateNamesItsHolder) {
  peerHolds();
  ASSERT_TRUE(ask("snapshot", uri()));
  EXPECT_FALSE(ask("snapshot", uri("/other")));
  EXPECT_EQ(told(2), "REFUSED: Another snapshot transfer, number 1, is running.");
  EXPECT_FALSE(ask("logo", uri()));
  EXPECT_EQ(told(3),
            "REFUSED: Transfer 1 is already using this URI; wait for it or cancel it (kovactl "
            "cancel 1).");
  EXPECT_FALSE(ask("fw", uri()));
  EXPECT_EQ(told(4),
            "REFUSED: Transfer 1 is already using this URI; wait for it or cancel it (kovactl "
            "cancel 1).");
  ASSERT_TRUE(ask("fw", uri("/fw")));
  EXPECT_FALSE(ask("fw", uri("/fw2")));
  EXPECT_EQ(told(6), "REFUSED: Another firmware transfer, number 5, is running.");
}

TEST_F(TransferReasonsTest, GeneratorThatCannotStartIsNamed) {
  programsAnswer("/bin/support", {utils::kNotStarted, "", ""});
  EXPECT_FALSE(ask("supportInfo", uri()));
  EXPECT_THAT(told(1), StartsWith("REFUSED: /bin/support could not be started: "));
}

TEST_F(TransferReasonsTest, PutOfInstalledFileIsDoneAtOnce) {
  for (const std::string kind : {"logo", "sound"}) {
    write("/etc/persistent/user_" + kind, "content");
    write("/etc/persistent/user_" + kind + ".md5", kContentDigest);
    for (Fields fields : {Fields{}, Fields{{"timeoutMs", 0}}, Fields{{"from", ""}}}) {
      SCOPED_TRACE(kind + (fields.empty() ? "" : " with other " + fields.begin()->first));
      fields["hash"] = kContentDigest;
      EXPECT_TRUE(ask(kind, uri(), fields));
      EXPECT_EQ(last().outcome, "ALREADY_INSTALLED");
      EXPECT_EQ(last().reason, "The installed " + kind +
                                   " has this MD5 digest already, so nothing was transferred.");
      EXPECT_EQ(last().phase, TransferPhase::Ended);
    }
  }
  for (int turn = 0; turn < 5; ++turn) {
    server_->service(10);
  }
  EXPECT_EQ(peer_->connections(), 0U);
  EXPECT_THAT(events(), IsEmpty());
  EXPECT_THAT(logged(), IsEmpty());
  EXPECT_THAT(platform().commands, IsEmpty());
}

TEST_F(TransferReasonsTest, InstalledLogoNamesItsPath) {
  peerAnswers("content");
  EXPECT_EQ(outcome("logo", uri(), {{"hash", kContentDigest}}),
            std::string("OK: The file with the MD5 digest ") + kContentDigest +
                " is installed as /etc/persistent/user_logo.");
  EXPECT_EQ(record(1).httpStatus, 200);
  EXPECT_EQ(record(1).transferred, 7U);
  EXPECT_EQ(record(1).size, 7U);
}

TEST_F(TransferReasonsTest, InstalledLogoThatIsNotSavedHasReason) {
  peerAnswers("content");
  platform().onRun = [](const std::string& command) {
    if (command == kSave) {
      return fakes::ProcessResult{1, "", ""};
    }
    return fakes::ProcessResult{0, "empty=0 channels=1 depth=0 width=1 height=1\n", ""};
  };
  EXPECT_THAT(outcome("logo", uri(), {{"hash", kContentDigest}}),
              EndsWith("/etc/persistent/user_logo, but could not be saved to flash."));
  EXPECT_EQ(record(1).outcome, "OK");
}

TEST_F(TransferReasonsTest, LogoThatCannotBeInstalledHasReason) {
  peerAnswers("content");
  std::filesystem::create_directory("/etc/persistent/user_logo");
  EXPECT_EQ(outcome("logo", uri(), {{"hash", kContentDigest}}),
            "DISK_IO_FAILED: The file could not be installed as /etc/persistent/user_logo: Is a "
            "directory.");
}

TEST_F(TransferReasonsTest, WrongDigestShowsBoth) {
  peerAnswers("content");
  EXPECT_EQ(outcome("logo", uri(), {{"hash", kAnyDigest}}),
            std::string("VALIDATION_FAILED: The MD5 digest of the file is ") + kContentDigest +
                ", but the request expects " + kAnyDigest + ".");
  EXPECT_THAT(outcome("logo", uri(), {{"hash", std::string(200, 'd')}}),
              EndsWith(" expects " + std::string(61, 'd') + "..."));
}

TEST_F(TransferReasonsTest, ErrorPageShowsStatusOfServer) {
  peer_.emplace(engine::answering("HTTP/1.1 404 Not Found\r\nContent-Length: 7\r\n\r\ncontent"));
  EXPECT_EQ(outcome("logo", uri(), {{"hash", kAnyDigest}}),
            std::string("VALIDATION_FAILED: The server answered with HTTP status 404: the MD5 "
                        "digest of the file is ") +
                kContentDigest + ", but the request expects " + kAnyDigest + ".");
  EXPECT_EQ(record(1).httpStatus, 404);
}

TEST_F(TransferReasonsTest, PictureThatIsRefusedSaysWhy) {
  const std::pair<fakes::ProcessResult, std::string> cases[] = {
      {{0, "empty=1 channels=1 depth=0 width=0 height=0\n", ""},
       "The file is not a picture that can be decoded."},
      {{0, "empty=0 channels=1 depth=0 width=2000 height=10\n", ""},
       "The picture has 2000 x 10 pixels, but at most 1024 x 1024 are allowed."},
      {{1, "", ""}, "The picture decoder gave no answer."},
  };
  for (const auto& [answer, reason] : cases) {
    startServer();
    peerAnswers("content");
    programsAnswer(kProbe, answer);
    EXPECT_EQ(outcome("logo", uri(), {{"hash", kContentDigest}}), "VALIDATION_FAILED: " + reason);
  }
}

TEST_F(TransferReasonsTest, RefusedSoundHasReason) {
  peerAnswers("content");
  EXPECT_EQ(outcome("sound", uri(), {{"hash", kContentDigest}}),
            "VALIDATION_FAILED: The file is not a WAV file of PCM samples.");
  peerAnswers(wav(2, 22050));
  EXPECT_EQ(outcome("sound", uri(), {{"hash", "4ee6c3a9a2dbe0c8ea4d0e9f2e5cf6f8"}}).substr(0, 17),
            "VALIDATION_FAILED");
  const std::string digest = last().reason.substr(30, 32);
  EXPECT_EQ(
      outcome("sound", uri(), {{"hash", digest}}),
      "VALIDATION_FAILED: The sound has 2 channels at 22050 Hz, but must have 1 at 11025 Hz.");
}

TEST_F(TransferReasonsTest, FirmwareReasonQuotesChecker) {
  const struct {
    fakes::ProcessResult checker;
    const char* told;
  } cases[] = {
      {{1, "{\"reason\":\"FW_CHECK_INCOMPAT_HW\"}\n", "wrong board\n"},
       "FW_CHECK_INCOMPAT_HW: The checker refused the image with status 1: wrong board, "
       "{\"reason\":\"FW_CHECK_INCOMPAT_HW\"}."},
      {{1, "{\"reason\":\"BAD\"}", ""},
       "FW_CHECK_FAILED: The checker refused the image with status 1: {\"reason\":\"BAD\"}."},
      {{0, "", "line 1\nline 2\x1b[2J\n"},
       "FW_CHECK_FAILED: The checker refused the image with status 0: line 1 line 2[2J."},
      {{127, "", ""},
       "FW_CHECK_FAILED: The checker refused the image with status 127: it said nothing."},
  };
  for (const auto& [checker, expected] : cases) {
    startServer();
    peerAnswers("image");
    programsAnswer("/bin/fwupdate.real", checker);
    EXPECT_EQ(outcome("fw", uri()), expected);
  }
}

TEST_F(TransferReasonsTest, FirmwareReasonHasFlashingStatus) {
  peerAnswers("image");
  EXPECT_EQ(outcome("fw", uri()), "OK: The image was checked and flashed.");
  EXPECT_THAT(events(), IsEmpty());
  programsAnswer("/bin/fwupdate -m", {3, "", ""});
  EXPECT_EQ(outcome("fw", uri()), "FW_FLASH_FAILED: The flashing tool failed with status 3.");
}

TEST_F(TransferReasonsTest, UploadReportsWhetherServerAcceptedFile) {
  write("/tmp/snap.jpeg", "picture");
  EXPECT_EQ(outcome("snapshot", uri()), "OK: The server has the file.");
  EXPECT_EQ(record(1).httpStatus, 200);
  EXPECT_EQ(record(1).transferred, 7U);
  EXPECT_EQ(record(1).size, 7U);
  write("/tmp/heatmap_1.png", std::string(65536, 'x'));
  EXPECT_EQ(outcome("eventHeatmap", uri()), "OK: The server has the file.");
  peer_.emplace(engine::answering("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n"));
  EXPECT_EQ(outcome("snapshot", uri()),
            "TRANSFER_FAILED: The server answered with HTTP status 400: the server did not take "
            "the file.");
  EXPECT_THAT(events(), IsEmpty());
}

TEST_F(TransferReasonsTest, SupportArchiveIsNamedOnceItIsSent) {
  programsAnswer("/bin/support", {utils::kNotStarted, "", ""});
  EXPECT_FALSE(ask("supportInfo", uri()));
  platform().onRun = {};
  ASSERT_TRUE(ask("supportInfo", uri())) << "this forgets the refusal";
  server_->service(0);
  EXPECT_EQ(last().phase, TransferPhase::Preparing);
  write("/tmp/supportinfo.tar", "archive");
  EXPECT_TRUE(serviceUntilEnd(2));
  EXPECT_EQ(last().file, "/tmp/supportinfo.tar");
  EXPECT_EQ(told(2), "OK: The server has the file.");
}

TEST_F(TransferReasonsTest, TransferThatCannotBeginHasReason) {
  using namespace std::string_literals;
  EXPECT_EQ(
      outcome("snapshot", uri()),
      "TRANSFER_FAILED: The file /tmp/snap.jpeg cannot be opened: No such file or directory.");
  write("/tmp/snap.jpeg", "picture");
  EXPECT_EQ(outcome("snapshot", uri() + "\0x"s), "TRANSFER_FAILED: The URI holds a NUL.");
  EXPECT_EQ(outcome("snapshot", uri(), {{"formFields", Fields{{"a", "x\0y"s}}}}),
            "TRANSFER_FAILED: The form field `a` holds a NUL.");
  EXPECT_EQ(outcome("snapshot", uri(), {{"formFields", Fields{{"a", 7}}}}),
            "TRANSFER_FAILED: The form field `a` is not a string.");
  EXPECT_EQ(outcome("snapshot", uri("/next")),
            "TRANSFER_FAILED: The URI or the file /tmp/snap.jpeg is in use by another transfer, or "
            "held by one that could not start; `kovactl exit-service` frees it.");
}

TEST_F(TransferReasonsTest, SizeBeyondLimitShowsBoth) {
  const std::pair<const char*, unsigned> limits[] = {
      {"logo", 131072}, {"sound", 262144}, {"fw", 52428800}};
  for (const auto& [kind, limit] : limits) {
    SCOPED_TRACE(kind);
    startServer();
    const std::string size = std::to_string(limit + 1);
    peer_.emplace(engine::answering("HTTP/1.1 200 OK\r\nContent-Length: " + size + "\r\n\r\nsome"));
    EXPECT_EQ(outcome(kind, uri()), "TRANSFER_TOOLARGE: The server announces " + size +
                                        " bytes, but at most " + std::to_string(limit) +
                                        " are allowed.");
    EXPECT_EQ(last().httpStatus, 200);
    EXPECT_THAT(events(), ElementsAre(EndsWith(" TRANSFER_TOOLARGE")));
    EXPECT_THAT(platform().commands, IsEmpty());
    EXPECT_FALSE(exists(last().file));
  }
  std::atomic<bool> contacted = false;
  peer_.emplace([&contacted](engine::Connection&) { contacted = true; });
  write("/tmp/heatmap_1.png", std::string(65537, 'x'));
  EXPECT_EQ(outcome("eventHeatmap", uri()),
            "TRANSFER_TOOLARGE: The file has 65537 bytes, but at most 65536 are allowed.");
  EXPECT_TRUE(platform().logged(4, "Transfer task failed, name=eventHeatmap, uri=" + uri() +
                                       ", reason=TRANSFER_TOOLARGE(6), httpCode=0"));
  EXPECT_EQ(last().size, 65537U);
  EXPECT_EQ(last().httpStatus, 0);
  peer_.reset();
  EXPECT_FALSE(contacted);
}

TEST_F(TransferReasonsTest, DeadlineNamesItsPhase) {
  ASSERT_TRUE(ask("supportInfo", uri(), {{"timeoutMs", 5000}}));
  platform().nowMs += 5001;
  server_->service(0);
  EXPECT_EQ(told(1),
            "TRANSFER_TIMEOUT: The deadline of 5000 ms passed before the file to send was ready.");
  EXPECT_EQ(record(1).httpStatus, 0);
  peerScript(engine::stalling("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n12345"));
  ASSERT_TRUE(ask("logo", uri(), {{"timeoutMs", 60000}}));
  ASSERT_TRUE(serviceUntil([&] { return record(2).transferred == 5; }));
  EXPECT_EQ(record(2).size, 100U);
  platform().nowMs += 60001;
  server_->service(0);
  EXPECT_EQ(told(2),
            "TRANSFER_TIMEOUT: The deadline of 60000 ms passed when 5 bytes were transferred.");
  EXPECT_EQ(record(2).httpStatus, 200);
}

TEST_F(TransferReasonsTest, PhasesFollowTransfer) {
  peerHolds();
  ASSERT_TRUE(ask("logo", uri()));
  EXPECT_EQ(record(1).phase, TransferPhase::Preparing);
  server_->service(0);
  EXPECT_EQ(record(1).phase, TransferPhase::Transferring);
  TransferPhase whileChecking = TransferPhase::Ended;
  startServer();
  platform().onRun = [&](const std::string&) {
    whileChecking = record(1).phase;
    return fakes::ProcessResult{};
  };
  peerAnswers("image");
  outcome("fw", uri());
  EXPECT_EQ(whileChecking, TransferPhase::Finalising);
}

TEST_F(TransferReasonsTest, ProgressIsReportedWhileTransferRuns) {
  ipc::Ipc ipc;
  TransferObjects objects(records(), ipc.objects());
  peerScript(engine::stalling("HTTP/1.1 200 OK\r\n\r\n12345"));
  ASSERT_TRUE(ask("logo", uri()));
  ASSERT_TRUE(serviceUntil([&] { return record(1).transferred == 5; }));
  EXPECT_EQ(record(1).size, 0U) << "unknown";
  platform().nowMs += TransferRecords::kProgressMs;
  platform().bus.signals.clear();
  server_->service(0);
  objects.service();
  ASSERT_EQ(platform().bus.signals.size(), 1U);
  EXPECT_EQ(platform().bus.signals[0].values.at("Transferred"),
            ipc::PropertyValue(std::uint64_t{5}));
}

TEST_F(TransferReasonsTest, RequestThatThrowsLeavesEndedRecord) {
  platform().onEndDaemon = [](const std::string&) { throw std::runtime_error("no memory"); };
  EXPECT_THROW(ask("supportInfo", uri()), std::runtime_error);
  EXPECT_EQ(told(1), "REFUSED: An internal error occurred.");
  platform().onEndDaemon = {};
  EXPECT_TRUE(ask("supportInfo", uri()));
  EXPECT_EQ(record(2).phase, TransferPhase::Preparing);
}

TEST_F(TransferReasonsTest, EveryRequestThatIsDispatchedHasRecord) {
  CtlCommandsHandler handler(nullptr, server_.get());
  bool rejected = false;
  for (const char* name : {"GetRequest", "PutRequest", "UpdateFirmwareRequest", "GetRequest"}) {
    ipc::messages::BaseRequestMessage request{Variant(Fields{{"functionName", name}, {"id", 9}})};
    EXPECT_TRUE(handler.HandleRequest(request, rejected));
  }
  EXPECT_THAT(records().numbers(), ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(record(1).kind, "");
  EXPECT_EQ(record(3).kind, "firmware");
  EXPECT_EQ(record(3).requestId, 9U);
  EXPECT_EQ(told(3), "REFUSED: The request gives no URI (uri).");
}

}  // namespace
}  // namespace kova::ctlserver
