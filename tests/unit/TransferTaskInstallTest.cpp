#include "TransferTaskInstall.h"

#include <sys/stat.h>

#include "InstallFixture.h"

namespace kova::ctlserver {
namespace {

/// Behaviour common to logos and sounds.
template <typename Kind>
class TransferTaskInstallTest : public InstallTest<Kind> {};

TYPED_TEST_SUITE(TransferTaskInstallTest, InstallKinds);

TYPED_TEST(TransferTaskInstallTest, FreshTaskDownloadsToTmpInTwentySeconds) {
  const typename TypeParam::Task task(this->persistence_);
  EXPECT_EQ(task.name(), TypeParam::kName);
  EXPECT_TRUE(task.download());
  EXPECT_EQ(task.path(), this->download_);
  EXPECT_EQ(task.timeout(), 20000U);
  EXPECT_EQ(task.maxSz(), TypeParam::kMaxSz);
}

TYPED_TEST(TransferTaskInstallTest, TaskWithoutHashDoesNotStart) {
  for (const char* hash : {"", "_UNINITIALIZED_"}) {
    fakes::reset();
    this->arm(hash);
    EXPECT_FALSE(this->task_->start());
    EXPECT_THAT(this->logged(),
                ElementsAre("3 " + std::string(TypeParam::kUnit) + ".onCheck: Hash must be set",
                            "3 BaseTransferTask.start: Task-specific checks failed"));
    EXPECT_THAT(this->events(), IsEmpty());
  }
  EXPECT_FALSE(typename TypeParam::Task(this->persistence_).onCheck()) << "initial state of a task";
}

TYPED_TEST(TransferTaskInstallTest, AnyNonEmptyHashStarts) {
  for (const char* hash : {TypeParam::kDigest, "x", "_uninitialized_", "ABCDEF"}) {
    this->arm(hash);
    EXPECT_TRUE(this->task_->start()) << hash;
  }
  EXPECT_THAT(platform().log, IsEmpty());
}

TYPED_TEST(TransferTaskInstallTest, StartRemovesLeftoversOnlyUnderTmp) {
  this->write(this->download_, "old");
  this->write(this->checksum_, "old");
  this->write(this->installed_, "installed");
  this->write(this->installedChecksum_, "digest");
  EXPECT_TRUE(this->task_->onStart());
  this->expectTempsGone();
  EXPECT_EQ(this->read(this->installed_), "installed");
  EXPECT_EQ(this->read(this->installedChecksum_), "digest");
  EXPECT_TRUE(this->task_->onStart()) << "with nothing to remove";
}

TYPED_TEST(TransferTaskInstallTest, FailedTransferIsReportedAndRemoved) {
  this->write(this->download_, "part");
  this->write(this->checksum_, "part");
  this->task_->onFailure(TRANSFER_TOOLARGE, 404);
  this->expectStatus("TRANSFER_TOOLARGE");
  this->expectTempsGone();
  EXPECT_THAT(platform().log, IsEmpty()) << "the task logs nothing";
}

TYPED_TEST(TransferTaskInstallTest, FailureIsReportedBeforeAndRefusalAfterRemoval) {
  Watched<typename TypeParam::Task> task(this->persistence_);
  this->write(this->download_, "part");
  task.onFailure(TRANSFER_TIMEOUT, 0);
  this->write(this->download_, "bad");
  task.setHash("other");
  bool done = false;
  task.onSuccess(done);
  EXPECT_THAT(task.seen, ElementsAre("TRANSFER_TIMEOUT with", "VALIDATION_FAILED without"));
}

TYPED_TEST(TransferTaskInstallTest, ValidFileReplacesInstalledOneAndIsReported) {
  this->write(this->installed_, "old");
  this->write(this->installedChecksum_, "old digest, longer than a digest of MD5 would ever be");
  this->write(this->download_, TypeParam::content());
  struct stat before {};
  struct stat after {};
  ASSERT_EQ(stat(this->download_.c_str(), &before), 0);
  this->succeed();
  ASSERT_EQ(stat(this->installed_.c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino) << "it is renamed, not copied";
  EXPECT_EQ(this->read(this->installed_), TypeParam::content());
  EXPECT_EQ(this->read(this->installedChecksum_), TypeParam::kDigest) << "no line end";
  this->expectTempsGone();
  this->expectStatus("OK");
  EXPECT_EQ(platform().commands.back(), kSave);
  EXPECT_THAT(this->logged(), ElementsAre("6 Persistence.persist: Persisted"));
}

TYPED_TEST(TransferTaskInstallTest, SaveFollowsInstallAndPrecedesReport) {
  std::vector<std::string> seen;
  this->onSave([&] {
    seen = {this->read(this->installed_), this->read(this->installedChecksum_)};
    EXPECT_THAT(this->events(), IsEmpty());
    return 0;
  });
  this->install();
  EXPECT_THAT(seen, ElementsAre(TypeParam::content(), TypeParam::kDigest));
  this->expectStatus("OK");
}

TYPED_TEST(TransferTaskInstallTest, WrongDigestIsLoggedWithBothAndRefused) {
  std::string upper = TypeParam::kDigest;
  for (char& digit : upper) {
    digit = static_cast<char>(std::toupper(digit));
  }
  ASSERT_NE(upper, TypeParam::kDigest);
  for (const std::string& hash :
       {std::string("0123456789abcdef0123456789abcdef"), upper,
        std::string(TypeParam::kDigest).substr(1), std::string(TypeParam::kDigest) + "0",
        std::string(TypeParam::kDigest) + "\n", std::string("x")}) {
    SCOPED_TRACE(hash);
    this->restart();
    this->arm(hash);
    this->install();
    EXPECT_THAT(this->logged(),
                ElementsAre(this->line(
                    std::string(TypeParam::kSubject) + " checksum error, uri=" + kInstallUri +
                    ", provided=" + hash + ", calculated=" + TypeParam::kDigest)));
    this->expectStatus("VALIDATION_FAILED");
    this->expectTempsGone();
    this->expectNothingInstalled();
    EXPECT_THAT(platform().commands, IsEmpty()) << "the content is not checked";
  }
}

TYPED_TEST(TransferTaskInstallTest, FileWithoutChecksumIsRefused) {
  this->succeed();
  EXPECT_THAT(this->logged(),
              ElementsAre("3 md5sum.md5sum: Failed to open " + this->download_,
                          this->line(std::string(TypeParam::kSubject) +
                                     " checksum error, uri=" + kInstallUri +
                                     ", provided=" + TypeParam::kDigest + ", calculated=")));
  EXPECT_EQ(platform().log.back().error, ENOENT);
  this->expectStatus("VALIDATION_FAILED");
  this->expectNothingInstalled();
}

TYPED_TEST(TransferTaskInstallTest, RefusalKeepsInstalledFile) {
  this->write(this->installed_, "old");
  this->write(this->installedChecksum_, "old digest");
  this->write(this->download_, "not the file");
  this->succeed();
  EXPECT_EQ(this->read(this->installed_), "old");
  EXPECT_EQ(this->read(this->installedChecksum_), "old digest");
  this->expectTempsGone();
}

}  // namespace
}  // namespace kova::ctlserver
