#include "BusClient.h"
#include "SharedCamera.h"
#include "SystemCfg.h"

namespace kova::system_test {
namespace {

constexpr char kNameKey[] = "resolv.host.1.name";

/// The camera's /etc is mounted over for a test. What the test does to it is seen from inside only.
class MountedEtc : public UnharmedCamera {
 protected:
  void SetUp() override {
    UnharmedCamera::SetUp();
    good_ = readFile(systemCfg(camera()));
  }
  void TearDown() override {
    camera().shell("umount -l /etc");
    writeFile(systemCfg(camera()), good_);
    EXPECT_EQ(ask("ChangeDeviceSettings"), "status 0");
    UnharmedCamera::TearDown();
  }

  static std::string ask(const std::string& function, std::vector<Entry> fields = {}) {
    return BusClient(camera().busAddress()).call(request(function, std::move(fields)));
  }
  static std::string inside(const std::string& path) { return camera().exec({"cat", path}).out; }
  static std::string names() { return camera().exec({"ls", "-A", "/etc"}).out; }

  // That everything that writes fails as it should and leaves the files byte for byte.
  static void expectNothingIsWritten() {
    const std::string cfg = inside("/etc/system.cfg");
    const std::string passwd = inside("/etc/passwd");
    const std::string zone = inside("/etc/TZ");
    const std::string before = names();
    ASSERT_FALSE(cfg.empty());
    const LogMark mark(camera());
    EXPECT_EQ(ask("ChangeDeviceSettings", {{"region", text("Other")}}), "status 1");
    EXPECT_TRUE(mark.waitFor("updateSettings:"));
    EXPECT_EQ(mark.linesWith(": Failed to close system.cfg manager").size(), 1U);
    EXPECT_EQ(ask("ChangeDeviceSettings", {{"timezone", text("Europe/Paris")}}), "status 1");
    EXPECT_TRUE(mark.waitFor(": Failed to write timezone"));
    EXPECT_EQ(ask("ChangeUsernamePassword", {{"username", text("admin")},
                                             {"passwordOld", text("admin")},
                                             {"passwordNew", text("other")}}),
              "status 1");
    EXPECT_EQ(ask("DisableUsernamePassword"), "status 1");
    EXPECT_TRUE(mark.waitFor(": Failed to lock user: admin"));
    EXPECT_TRUE(eventually([&] {
      return mark.linesWith(": Failed to close system.cfg manager").size() == 3;
    })) << mark.text();

    EXPECT_EQ(ask("ChangeDeviceSettings"), "status 0");
    EXPECT_EQ(inside("/etc/system.cfg"), cfg);
    EXPECT_EQ(inside("/etc/passwd"), passwd);
    EXPECT_EQ(inside("/etc/TZ"), zone);
    EXPECT_EQ(names(), before);
    EXPECT_EQ(camera().exec({"readlink", "/etc/localtime"}).out, "/usr/share/zoneinfo/GMT\n");
  }

  std::string good_;
};

// The services stay where their supervisor knows them.
constexpr char kMountSmallEtc[] = R"(set -e
mkdir -p /run/small
mount -t tmpfs -o size=256k,mode=755 tmpfs /run/small
mkdir /run/small/sv /run/small/service
for path in /etc/*; do
  case $path in /etc/sv | /etc/service) mount -o bind "$path" "/run/small${path#/etc}" ;;
  *) cp -a "$path" /run/small/ ;; esac
done
mount -o rbind /run/small /etc)";

TEST_F(MountedEtc, FullDiskIsReportedAndChangesNothing) {
  const Result mounted = camera().shell(kMountSmallEtc);
  if (mounted.status != 0) {
    GTEST_SKIP() << "nothing can be mounted in this camera: " << mounted.err;
  }
  ASSERT_NE(camera().shell("cat /dev/zero >/etc/filler").status, 0);
  expectNothingIsWritten();
  ASSERT_EQ(camera().exec({"rm", "/etc/filler"}).status, 0);
  EXPECT_EQ(ask("ChangeDeviceSettings", {{"name", text("Other")}}), "status 0");
  EXPECT_EQ(inside("/etc/system.cfg"), withSetting(good_, kNameKey, "Other"));
}

TEST_F(MountedEtc, ReadOnlyFileSystemIsReportedAndChangesNothing) {
  const Result mounted =
      camera().shell("mount -o rbind /etc /etc && mount -o remount,bind,ro,nosuid,nodev /etc /etc");
  if (mounted.status != 0) {
    GTEST_SKIP() << "nothing can be mounted in this camera: " << mounted.err;
  }
  ASSERT_NE(camera().exec({"touch", "/etc/filler"}).status, 0);
  expectNothingIsWritten();
  EXPECT_EQ(readFile(systemCfg(camera())), good_);
}

}  // namespace
}  // namespace kova::system_test
