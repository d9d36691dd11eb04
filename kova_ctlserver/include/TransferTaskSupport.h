#pragma once

#include "BaseTransferTask.h"

namespace kova::ctlserver {

/// Runs "/bin/support" in the background and uploads the support archive once it exists. Generation
/// and upload share the deadline of the task. At the end the generator is stopped if it still runs,
/// so that none outlives its request, and the archive is removed.
class TransferTaskSupport : public BaseTransferTask {
 public:
  TransferTaskSupport();

  bool onCheck() override;
  bool onStart() override;
  void onPrepare(bool& ready, std::string& path) override;
  void onSuccess(bool& done) override;
  void onFailure(TransferStatus status, int httpCode) override;
};

}  // namespace kova::ctlserver
