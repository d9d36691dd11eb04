#pragma once

#include "TransferTaskInstall.h"

namespace kova::ctlserver {

/// Installs a user's sound: a WAV file of one channel at 11025 Hz, in at most 256 KiB.
class TransferTaskSound : public TransferTaskInstall {
 public:
  explicit TransferTaskSound(Persistence& persistence);

  /// Whether a sound with exactly this digest is already installed.
  static bool checkNoTransferNeeded(const std::string& hash);

 protected:
  bool validate(std::string& reason) override;

 private:
  static const Kind kSound;
};

}  // namespace kova::ctlserver
