#pragma once

#include <string>

#include "BaseTransferTask.h"

namespace kova::ctlserver {

class Persistence;

/// Downloads a user's file, checks it, and installs it with a companion checksum file under
/// /etc/persistent, which is then saved to flash at once. What the kinds of file differ in is said
/// by a Kind and by validate().
///
/// The file stands under /tmp until its checksum and content were found good; whatever fails, what
/// stands there is removed. A checksum file holds the 32 digits of the MD5 digest and no line end.
class TransferTaskInstall : public BaseTransferTask {
 public:
  /// @param hash the expected MD5 digest, 32 lower-case hexadecimal digits; compared exactly
  BaseTransferTask& setHash(const std::string& hash);

  /// A digest has to be given.
  bool onCheck() override;
  bool onStart() override;
  /// Checks and installs in one turn, and reports "OK", "VALIDATION_FAILED" or "DISK_IO_FAILED".
  void onSuccess(bool& done) override;
  void onFailure(TransferStatus status, int httpCode) override;

 protected:
  struct Kind {
    const char* unit;       ///< source unit in log lines
    const char* subject;    ///< in log texts: "Logo"
    const char* name;       ///< task name: "user_logo"
    const char* download;   ///< "/tmp/user_logo"
    const char* checksum;   ///< "/tmp/user_logo.md5"
    const char* installed;  ///< "/etc/persistent/user_logo"
    const char* installedChecksum;
    std::uint32_t maxSz;  ///< bytes
  };

  /// @param kind        must outlive the task
  /// @param persistence saves what was installed; must outlive the task
  TransferTaskInstall(const Kind& kind, Persistence& persistence);

  /// Whether the downloaded file's content is good. A refusal is logged by the kind.
  virtual bool validate() = 0;

  /// Whether the installed checksum file holds exactly `hash`.
  static bool isInstalled(const Kind& kind, const std::string& hash);

 private:
  bool install(const std::string& digest);
  void unlinkTemps();
  void refuse(const char* status);

  const Kind& kind_;
  Persistence& persistence_;
  std::string hash_;
};

}  // namespace kova::ctlserver
