#include "TransferTaskInstall.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include "InstallFixture.h"

namespace kova::ctlserver {
namespace {

/// Faults while installing a valid file, and the check for an installed file; for logos and sounds.
template <typename Kind>
class TransferTaskInstallFaultsTest : public InstallTest<Kind> {};

TYPED_TEST_SUITE(TransferTaskInstallFaultsTest, InstallKinds);

TYPED_TEST(TransferTaskInstallFaultsTest, FailingSaveDoesNotChangeOutcome) {
  this->onSave([] { return 1; });
  this->install();
  this->expectStatus("OK");
  EXPECT_EQ(this->read(this->installed_), TypeParam::content());
  EXPECT_THAT(this->logged(), ElementsAre("3 Persistence.persist: Failed to persist"));
}

TYPED_TEST(TransferTaskInstallFaultsTest, UnopenableChecksumIsDiskFailureAndMovesNothing) {
  ASSERT_EQ(mkdir(this->checksum_.c_str(), 0755), 0);
  this->install();
  EXPECT_THAT(this->logged(),
              ElementsAre("4 File.Initialize: Refused to open " + this->checksum_ +
                              ": it is no regular file",
                          this->line(std::string(TypeParam::kPersistFailure) + kInstallUri)));
  EXPECT_NE(platform().log.back().error, 0);
  this->expectStatus("DISK_IO_FAILED");
  EXPECT_FALSE(this->exists(this->download_));
  this->expectNothingInstalled();
}

TYPED_TEST(TransferTaskInstallFaultsTest, FullDiskForChecksumIsDiskFailureAndMovesNothing) {
  // A single page, which the downloaded file uses up.
  ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=4k"), 0);
  this->install();
  this->expectDiskFailure(ENOSPC);
  this->expectNothingInstalled();
  ASSERT_EQ(umount("/tmp"), 0);
}

TYPED_TEST(TransferTaskInstallFaultsTest, UnmovableFileIsDiskFailureAndRemovesBothTemps) {
  ASSERT_EQ(mkdir(this->installed_.c_str(), 0755), 0);
  this->write(this->installedChecksum_, "of an older file");
  this->install();
  this->expectDiskFailure(EISDIR);
  EXPECT_FALSE(this->exists(this->installedChecksum_)) << "it is removed before the file is moved";
  EXPECT_THAT(platform().commands, Not(Contains(kSave)));
}

TYPED_TEST(TransferTaskInstallFaultsTest, UnmovableChecksumLeavesFileInstalledUnsaved) {
  ASSERT_EQ(mkdir(this->installedChecksum_.c_str(), 0755), 0);
  this->install();
  this->expectDiskFailure(EISDIR);
  EXPECT_EQ(this->read(this->installed_), TypeParam::content());
  EXPECT_THAT(platform().commands, Not(Contains(kSave)));
}

TYPED_TEST(TransferTaskInstallFaultsTest, AnotherFileSystemUnderPersistentIsDiskFailure) {
  ASSERT_EQ(mount("tmpfs", "/etc/persistent", "tmpfs", 0, "size=1m"), 0);
  this->install();
  this->expectDiskFailure(EXDEV);
  this->expectNothingInstalled();
  ASSERT_EQ(umount("/etc/persistent"), 0);
}

TYPED_TEST(TransferTaskInstallFaultsTest, FileRemovedBySaveIsDiskFailure) {
  this->onSave([&] {
    unlink(this->installed_.c_str());
    std::filesystem::create_symlink("/nowhere", this->installed_);
    return 0;
  });
  this->install();
  EXPECT_EQ(platform().log.back().error, ENOENT);
  EXPECT_EQ(platform().log.back().text, std::string(TypeParam::kPersistFailure) + kInstallUri);
  this->expectStatus("DISK_IO_FAILED");
  EXPECT_EQ(this->read(this->installedChecksum_), TypeParam::kDigest) << "it stays";
}

TYPED_TEST(TransferTaskInstallFaultsTest, InstalledChecksumNeedsNoTransfer) {
  const auto isNeeded = [](const std::string& hash) {
    return !TypeParam::Task::checkNoTransferNeeded(hash);
  };
  EXPECT_TRUE(isNeeded(TypeParam::kDigest)) << "nothing is installed";
  EXPECT_TRUE(isNeeded(""));
  this->write(this->installedChecksum_, TypeParam::kDigest);
  EXPECT_FALSE(isNeeded(TypeParam::kDigest)) << "even without the file itself";
  EXPECT_TRUE(isNeeded(""));
  EXPECT_TRUE(isNeeded(std::string(TypeParam::kDigest) + "\n"));
  EXPECT_TRUE(isNeeded(std::string(TypeParam::kDigest).substr(0, 31)));
  this->write(this->installedChecksum_, std::string(TypeParam::kDigest) + "\n");
  EXPECT_TRUE(isNeeded(TypeParam::kDigest)) << "a line end is one byte too many";
  this->write(this->installedChecksum_, "");
  EXPECT_FALSE(isNeeded("")) << "byte for byte";
  EXPECT_THAT(platform().log, IsEmpty());
}

TYPED_TEST(TransferTaskInstallFaultsTest, FolderOrDanglingLinkAsChecksumNeedsTransfer) {
  ASSERT_EQ(mkdir(this->installedChecksum_.c_str(), 0755), 0);
  EXPECT_FALSE(TypeParam::Task::checkNoTransferNeeded(TypeParam::kDigest));
  ASSERT_EQ(rmdir(this->installedChecksum_.c_str()), 0);
  std::filesystem::create_symlink("/nowhere", this->installedChecksum_);
  EXPECT_FALSE(TypeParam::Task::checkNoTransferNeeded(TypeParam::kDigest));
}

}  // namespace
}  // namespace kova::ctlserver
