#pragma once

#include <string>

#include "BaseTransferTask.h"

namespace kova::ctlserver {

class Persistence;

/// Downloads a user's file, checks it, installs it with a companion checksum file under
/// /etc/persistent, and saves the configuration to flash at once. Subclasses supply a Kind and
/// validate().
///
/// The file stays under /tmp until its checksum and content have been verified; any failure removes
/// it from there. A checksum file holds the 32 digits of the MD5 digest, without a line end.
class TransferTaskInstall : public BaseTransferTask {
 public:
  /// @param hash the expected MD5 digest, 32 lower-case hexadecimal digits; compared exactly
  BaseTransferTask& setHash(const std::string& hash);

  /// Refuses a task without a digest.
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

  /// Whether the content of the downloaded file is valid; logs why not.
  /// @param reason receives why not, as a human-readable clause
  virtual bool validate(std::string& reason) = 0;

  /// Whether the installed checksum file holds exactly `hash`.
  static bool isInstalled(const Kind& kind, const std::string& hash);

 private:
  bool install(const std::string& digest, bool& saved);
  void unlinkTemps();
  void refuse(const char* status, const std::string& reason);
  void concludeInstalled(const std::string& digest, bool saved);

  const Kind& kind_;
  Persistence& persistence_;
  std::string hash_;
};

}  // namespace kova::ctlserver
