#pragma once

#include "TransferTaskInstall.h"

namespace kova::ctlserver {

/// Installs a user's logo: any picture of at most 1024 by 1024 pixels that the image probe can
/// decode, in at most 128 KiB.
class TransferTaskUserLogo : public TransferTaskInstall {
 public:
  explicit TransferTaskUserLogo(Persistence& persistence);

  /// Whether a logo with exactly this digest is already installed.
  static bool checkNoTransferNeeded(const std::string& hash);

 protected:
  bool validate(std::string& reason) override;

 private:
  static const Kind kLogo;
};

}  // namespace kova::ctlserver
