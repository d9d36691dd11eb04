#include "TransferTaskWhitelist.h"

#include "TransferFixture.h"

namespace kova::ctlserver {
namespace {

constexpr char kPicture[] = "/tmp/motionsnap_7.jpg";

class TransferTaskWhitelistTest : public TransferTest {
 protected:
  void SetUp() override {
    TransferTest::SetUp();
    task_.setPrefix("/tmp/motionsnap_").setSuffix(".jpg");
    task_.setName("eventSnapshot").setMaxSz(1).setUri("http://host/up").setPath(kPicture);
    task_.setIpcOrigin("client.a").setIpcRequestId(9);
  }

  TransferTaskWhitelist task_;
};

TEST_F(TransferTaskWhitelistTest, FreshTaskUploadsAnyPathInTwentySeconds) {
  const TransferTaskWhitelist task;
  EXPECT_FALSE(task.download());
  EXPECT_EQ(task.timeout(), 20000U);
  EXPECT_EQ(task.name(), "");
  EXPECT_EQ(task.maxSz(), 0U);
  EXPECT_TRUE(task.validate("/etc/shadow"));
  EXPECT_TRUE(task.validate(""));
}

TEST_F(TransferTaskWhitelistTest, OnlyPrefixDigitsSuffixIsAllowed) {
  for (const char* path :
       {"/tmp/motionsnap_.jpg", "/tmp/motionsnap_7.jpg", "/tmp/motionsnap_007.jpg",
        "/tmp/motionsnap_123456789012345678901234567890.jpg"}) {
    EXPECT_TRUE(task_.validate(path)) << path;
  }
  EXPECT_TRUE(task_.validate("/tmp/motionsnap_" + std::string(1'000'000, '7') + ".jpg"));
  for (const char* path :
       {"", "/tmp/motionsnap_", "/tmp/motionsnap_7", "/tmp/motionsnap_7a.jpg",
        "/tmp/motionsnap_7.jpg.bak", "/tmp/motionsnap_7.jpg7", "/tmp/motionsnap_7.JPG",
        "/tmp/motionsnap_-7.jpg", "/tmp/motionsnap_7 .jpg", "/tmp/motionsnap_7..jpg",
        "/tmp/motionsnap", "tmp/motionsnap_7.jpg", " /tmp/motionsnap_7.jpg",
        "/tmp/motionsnap_7/../x.jpg", "/tmp/../etc/passwd", "/TMP/motionsnap_7.jpg",
        "/tmp/motionsnap_\xd9\xa7.jpg"}) {
    EXPECT_FALSE(task_.validate(path)) << path;
  }
}

TEST_F(TransferTaskWhitelistTest, NulDoesNotHideRest) {
  EXPECT_FALSE(task_.validate(std::string("/tmp/motionsnap_7.jpg\0", 22)));
  EXPECT_FALSE(task_.validate(std::string("/tmp/motionsnap_7\0.jpg", 22)));
  EXPECT_FALSE(task_.validate(std::string("/tmp/motionsnap_\0/7.jpg", 23)));
}

TEST_F(TransferTaskWhitelistTest, PathEndsWithDigitsWithoutSuffix) {
  task_.setPrefix("/tmp/snap.jpeg").setSuffix("");
  EXPECT_TRUE(task_.validate("/tmp/snap.jpeg"));
  EXPECT_TRUE(task_.validate("/tmp/snap.jpeg12"));
  EXPECT_FALSE(task_.validate("/tmp/snap.jpeg.x"));
  EXPECT_FALSE(task_.validate("/tmp/snap.jpeg12x"));
  EXPECT_FALSE(task_.validate("/tmp/snap.jpe"));
}

TEST_F(TransferTaskWhitelistTest, PathBeginsWithDigitsWithoutPrefix) {
  task_.setPrefix("").setSuffix(".jpg");
  EXPECT_TRUE(task_.validate("12.jpg"));
  EXPECT_TRUE(task_.validate(".jpg"));
  EXPECT_FALSE(task_.validate("/tmp/12.jpg"));
}

TEST_F(TransferTaskWhitelistTest, OtherPathIsLoggedAndRefused) {
  task_.setPath("/tmp/../etc/passwd");
  EXPECT_FALSE(task_.onCheck());
  EXPECT_THAT(logged(), ElementsAre("3 TransferTaskWhitelist.onCheck: Path not on whitelist for "
                                    "name=eventSnapshot, path=/tmp/../etc/passwd"));
  EXPECT_FALSE(task_.start());
  EXPECT_THAT(events(), IsEmpty());
}

TEST_F(TransferTaskWhitelistTest, FileItselfIsUploadedAtOnce) {
  bool ready = false;
  std::string path;
  task_.onPrepare(ready, path);
  EXPECT_TRUE(ready) << "even when it is missing";
  EXPECT_EQ(path, kPicture);
}

TEST_F(TransferTaskWhitelistTest, WaitRenameUploadsCopyOnceMade) {
  task_.setWaitRename(true);
  bool ready = true;
  std::string path;
  task_.onPrepare(ready, path);
  EXPECT_FALSE(ready);

  write(kPicture, "picture");
  task_.onPrepare(ready, path);
  EXPECT_TRUE(ready);
  EXPECT_EQ(path, "/tmp/motionsnap_7.jpg.out");
  EXPECT_EQ(read(path), "picture");
  bool done = false;
  task_.onSuccess(done);
  EXPECT_TRUE(exists(path)) << "the copy is not removed";

  task_.setWaitRename(false);
  task_.onPrepare(ready, path);
  EXPECT_EQ(path, kPicture);
}

TEST_F(TransferTaskWhitelistTest, SuccessKeepsFileAndSendsNoEvent) {
  write(kPicture, "picture");
  bool done = false;
  task_.onSuccess(done);
  EXPECT_TRUE(done);
  EXPECT_TRUE(exists(kPicture));
  EXPECT_THAT(events(), IsEmpty());
}

TEST_F(TransferTaskWhitelistTest, FailureIsReportedAndKeepsFile) {
  write(kPicture, "picture");
  task_.onFailure(TRANSFER_TIMEOUT, 0);
  EXPECT_THAT(events(),
              ElementsAre("EventTransferRequestStatus to=client.a id=9 TRANSFER_TIMEOUT"));
  EXPECT_TRUE(exists(kPicture));
  EXPECT_THAT(platform().log, IsEmpty()) << "the task logs nothing";
}

}  // namespace
}  // namespace kova::ctlserver
