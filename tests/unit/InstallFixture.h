#pragma once

#include <cerrno>
#include <memory>

#include "../Wav.h"
#include "Persistence.h"
#include "TransferFixture.h"
#include "TransferTaskSound.h"
#include "TransferTaskUserLogo.h"
#include "UnitTest.h"

namespace kova::ctlserver {

constexpr char kProbe[] = "/usr/libexec/kova_imageprobe";
constexpr char kInstallUri[] = "https://host/file";

using tests::wav;

/// The differences between the tests of the two kinds of file; kDigest is that of content().
struct LogoKind {
  using Task = TransferTaskUserLogo;
  static constexpr char kUnit[] = "TransferTaskUserLogo";
  static constexpr char kName[] = "user_logo";
  static constexpr char kSubject[] = "Logo";
  static constexpr char kPersistFailure[] = "Failed to persist logo, uri=";
  static constexpr unsigned kMaxSz = 131072;
  static constexpr char kDigest[] = "9a0364b9e99bb480dd25e1f0284c8555";
  static std::string content() { return "content"; }
};

struct SoundKind {
  using Task = TransferTaskSound;
  static constexpr char kUnit[] = "TransferTaskSound";
  static constexpr char kName[] = "user_sound";
  static constexpr char kSubject[] = "Sound";
  static constexpr char kPersistFailure[] = "Failed to persist sound, uri=";
  static constexpr unsigned kMaxSz = 262144;
  static constexpr char kDigest[] = "207bf8657c69ea250333a0f166fda5b7";
  static std::string content() { return wav(1, 11025); }
};

using InstallKinds = testing::Types<LogoKind, SoundKind>;

/// A task armed by a request, with its paths. The fake image probe accepts every picture.
template <typename Kind>
class InstallTest : public TransferTest {
 protected:
  void SetUp() override {
    TransferTest::SetUp();
    arm(Kind::kDigest);
    restart();
  }

  /// A pending save, run at destruction, must not access the test's local variables.
  void TearDown() override { platform().onRun = nullptr; }

  void restart() {
    fakes::reset();
    onSave([] { return 0; });
  }

  /// Makes the flash tool call `act` and exit with its result.
  static void onSave(const std::function<int()>& act) {
    platform().onRun = [act](const std::string& command) {
      if (command.starts_with(kProbe)) {
        return fakes::ProcessResult{0, "empty=0 channels=1 depth=0 width=64 height=48\n", ""};
      }
      return fakes::ProcessResult{command == kSave ? act() : 0, "", ""};
    };
  }

  void arm(const std::string& hash) {
    task_->setHash(hash);
    task_->setUri(kInstallUri).setIpcOrigin("client.a").setIpcRequestId(12);
  }

  void succeed() {
    bool done = false;
    task_->onSuccess(done);
    EXPECT_TRUE(done);
  }

  /// Completes the transfer of a valid file.
  void install() {
    write(download_, Kind::content());
    succeed();
  }

  void expectStatus(const std::string& status) {
    EXPECT_THAT(events(), ElementsAre("EventTransferRequestStatus to=client.a id=12 " + status));
  }
  void expectRefused(const std::string& text) {
    EXPECT_THAT(logged(), ElementsAre(line(text)));
    EXPECT_EQ(platform().log.back().error, 0) << "not a system error";
    expectStatus("VALIDATION_FAILED");
    expectTempsGone();
    expectNothingInstalled();
  }
  void expectDiskFailure(int error) {
    EXPECT_THAT(logged(), ElementsAre(line(std::string(Kind::kPersistFailure) + kInstallUri)));
    EXPECT_EQ(platform().log.back().error, error);
    expectStatus("DISK_IO_FAILED");
    expectTempsGone();
  }
  void expectTempsGone() {
    EXPECT_FALSE(exists(download_));
    EXPECT_FALSE(exists(checksum_));
  }
  void expectNothingInstalled() {
    EXPECT_FALSE(exists(installed_));
    EXPECT_FALSE(exists(installedChecksum_));
    EXPECT_THAT(platform().commands, Not(Contains(kSave)));
  }
  static std::string line(const std::string& text) {
    return std::string("4 ") + Kind::kUnit + ".onSuccess: " + text;
  }

  Persistence persistence_;
  std::unique_ptr<typename Kind::Task> task_ = std::make_unique<typename Kind::Task>(persistence_);
  const std::string download_ = std::string("/tmp/") + Kind::kName;
  const std::string checksum_ = download_ + ".md5";
  const std::string installed_ = std::string("/etc/persistent/") + Kind::kName;
  const std::string installedChecksum_ = installed_ + ".md5";
};

}  // namespace kova::ctlserver
