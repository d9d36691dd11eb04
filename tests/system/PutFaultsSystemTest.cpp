#include "TransferRig.h"

namespace kova::system_test {
namespace {

class PutFaultsSystem : public TransferRig {
 protected:
  /// Mounts inside the camera, which some modes do not allow, and unmounts at the end.
  class Mounted {
   public:
    Mounted(const std::string& options, const std::string& folder) : folder_(folder) {
      works_ = camera().shell("mount " + options + " " + folder).status == 0;
    }
    ~Mounted() {
      if (works_) {
        EXPECT_EQ(camera().exec({"umount", folder_}).status, 0);
      }
    }
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;
    bool works() const { return works_; }

   private:
    std::string folder_;
    bool works_;
  };

  // The event goes out before the file is removed.
  static bool leavesTmpEmpty() {
    return eventually([] { return camera().shell("ls /tmp").out.empty(); });
  }

  std::string putPlainly(const std::string& content) {
    const PlainServer server(content);
    return requester().outcomeOf({{"what", "logo"}, {"uri", server.uri()}, {"hash", md5(content)}});
  }
};

TEST_F(PutFaultsSystem, FullTmpIsDiskFailureAndLeavesNothing) {
  const Mounted small("-t tmpfs -o size=64k tmpfs", "/tmp");
  if (!small.works()) {
    GTEST_SKIP() << "this camera may not mount";
  }
  EXPECT_EQ(putPlainly(std::string(100'000, 'x')), "DISK_IO_FAILED");
  EXPECT_TRUE(leavesTmpEmpty());
}

TEST_F(PutFaultsSystem, SeparateTmpFileSystemIsDiskFailure) {
  const Mounted other("-t tmpfs tmpfs", "/tmp");
  if (!other.works()) {
    GTEST_SKIP() << "this camera may not mount";
  }
  EXPECT_EQ(putPlainly(picture(9, 9)), "DISK_IO_FAILED");
  EXPECT_TRUE(leavesTmpEmpty());
}

TEST_F(PutFaultsSystem, ReadOnlyPersistentFolderIsDiskFailure) {
  const Mounted bound("-o bind /etc/persistent", "/etc/persistent");
  if (!bound.works()) {
    GTEST_SKIP() << "this camera may not mount";
  }
  ASSERT_EQ(camera().shell("mount -o remount,bind,ro /etc/persistent").status, 0);
  EXPECT_EQ(putPlainly(picture(8, 8)), "DISK_IO_FAILED");
  EXPECT_TRUE(eventually([] { return !exists(inside("/tmp/user_logo")); }));
}

TEST_F(PutFaultsSystem, FolderInPlaceOfChecksumIsDiskFailure) {
  const auto checksum = inside("/etc/persistent/user_logo.md5");
  std::filesystem::remove(checksum);
  std::filesystem::create_directory(checksum);
  const std::string content = picture(7, 7);
  EXPECT_EQ(putPlainly(content), "DISK_IO_FAILED");
  EXPECT_EQ(readFile(inside("/etc/persistent/user_logo")), content) << "what was moved stays";
  EXPECT_TRUE(eventually([] { return !exists(inside("/tmp/user_logo.md5")); }));
  EXPECT_EQ(putPlainly(content), "DISK_IO_FAILED") << "and it is not taken for installed";
  std::filesystem::remove(checksum);
  EXPECT_EQ(putPlainly(content), "OK");
}

TEST_F(PutFaultsSystem, FolderInPlaceOfTemporaryChecksumIsDiskFailure) {
  const auto checksum = inside("/tmp/user_logo.md5");
  std::filesystem::create_directory(checksum);
  const std::string before = readFile(inside("/etc/persistent/user_logo"));
  EXPECT_EQ(putPlainly(picture(6, 6)), "DISK_IO_FAILED");
  EXPECT_EQ(readFile(inside("/etc/persistent/user_logo")), before);
  std::filesystem::remove(checksum);
}

TEST_F(PutFaultsSystem, FailedSaveStillInstalls) {
  camera().misbehave("cfgmtd", "exit", "1");
  const std::string content = picture(5, 5);
  EXPECT_EQ(putPlainly(content), "OK");
  EXPECT_EQ(readFile(inside("/etc/persistent/user_logo")), content);
  EXPECT_NE(readFile(saved("/etc/persistent/user_logo")), content);
}

TEST_F(PutFaultsSystem, MissingImageProbeRefusesEveryPicture) {
  if (camera().shell("mount -o bind /bin/false /usr/libexec/kova_imageprobe").status != 0) {
    GTEST_SKIP() << "this camera may not mount";
  }
  EXPECT_EQ(putPlainly(picture(4, 4)), "VALIDATION_FAILED");
  ASSERT_EQ(camera().exec({"umount", "/usr/libexec/kova_imageprobe"}).status, 0);
  EXPECT_EQ(putPlainly(picture(4, 4)), "OK");
}

}  // namespace
}  // namespace kova::system_test
