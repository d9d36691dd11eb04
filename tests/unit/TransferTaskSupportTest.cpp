#include "TransferTaskSupport.h"

#include <cerrno>

#include "TransferFixture.h"

namespace kova::ctlserver {
namespace {

constexpr char kArchive[] = "/tmp/supportinfo.tar";

class TransferTaskSupportTest : public TransferTest {
 protected:
  void SetUp() override {
    TransferTest::SetUp();
    task_.setUri("http://host/support").setIpcOrigin("client.a").setIpcRequestId(5);
  }

  bool ready() {
    bool isReady = false;
    std::string path;
    task_.onPrepare(isReady, path);
    EXPECT_EQ(path, kArchive);
    return isReady;
  }

  TransferTaskSupport task_;
};

TEST_F(TransferTaskSupportTest, FreshTaskUploadsTenMebibytesInNinetySeconds) {
  EXPECT_EQ(task_.name(), "support");
  EXPECT_FALSE(task_.download());
  EXPECT_EQ(task_.path(), "");
  EXPECT_EQ(task_.timeout(), 90000U);
  EXPECT_EQ(task_.maxSz(), 10485760U);
  EXPECT_TRUE(task_.onCheck());
}

TEST_F(TransferTaskSupportTest, UnstartableGeneratorRefusesTask) {
  platform().onRun = [](const std::string&) {
    errno = ENOENT;
    return fakes::ProcessResult{1, "", ""};
  };
  EXPECT_FALSE(task_.start());
  EXPECT_THAT(platform().log, ElementsAre(LogLine{"TransferTaskSupport", "onStart", 3, ENOENT,
                                                  "Failed to launch support file generation"}));
  EXPECT_THAT(events(), IsEmpty());
}

TEST_F(TransferTaskSupportTest, OldGeneratorIsEndedBeforeItsArchiveIsRemoved) {
  platform().onEndDaemon = [](const std::string&) { write(kArchive, "its last"); };
  bool isOldArchiveSeen = true;
  platform().onRun = [&](const std::string&) {
    isOldArchiveSeen = exists(kArchive);
    return fakes::ProcessResult{};
  };
  EXPECT_TRUE(task_.start());
  EXPECT_THAT(platform().journal,
              ElementsAre("endDaemon /bin/support", "run /bin/support /tmp/supportinfo.tar"));
  EXPECT_FALSE(isOldArchiveSeen);
}

TEST_F(TransferTaskSupportTest, GeneratorEndsWithItsRequest) {
  platform().onEndDaemon = [](const std::string&) { write(kArchive, "its last"); };
  bool done = false;
  task_.onSuccess(done);
  EXPECT_TRUE(done);
  EXPECT_THAT(platform().journal, ElementsAre("endDaemon /bin/support"));
  EXPECT_FALSE(exists(kArchive));
  EXPECT_THAT(events(), IsEmpty());
  EXPECT_THAT(platform().log, IsEmpty());

  task_.onFailure(TRANSFER_TIMEOUT, 0);
  EXPECT_THAT(platform().journal, Contains("endDaemon /bin/support").Times(2));
  EXPECT_FALSE(exists(kArchive));
}

TEST_F(TransferTaskSupportTest, UploadIsReadyOnceArchiveExists) {
  EXPECT_FALSE(ready());
  std::filesystem::create_symlink("/etc/passwd", kArchive);
  EXPECT_FALSE(ready()) << "a planted link does not count";
  std::filesystem::remove(kArchive);
  write(kArchive, "tar");
  EXPECT_TRUE(ready());
  EXPECT_THAT(platform().commands, IsEmpty()) << "polling starts nothing";
}

TEST_F(TransferTaskSupportTest, FailureIsReportedThenArchiveRemoved) {
  write(kArchive, "tar");
  Watched<TransferTaskSupport> task;
  task.file = kArchive;
  task.onFailure(TRANSFER_TIMEOUT, 0);
  EXPECT_THAT(task.seen, ElementsAre("TRANSFER_TIMEOUT with"));
  EXPECT_FALSE(exists(kArchive));

  task_.onFailure(DISK_IO_FAILED, 0);
  EXPECT_THAT(events(), ElementsAre("EventTransferRequestStatus to=client.a id=5 DISK_IO_FAILED"));
  EXPECT_THAT(platform().log, IsEmpty()) << "the task logs nothing";
}

}  // namespace
}  // namespace kova::ctlserver
