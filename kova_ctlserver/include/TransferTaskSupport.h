#pragma once

#include "BaseTransferTask.h"

namespace kova::ctlserver {

/// Has "/bin/support" generate the support archive in the background and uploads it once it is
/// there. Generation and upload share the task's deadline; the archive is removed at the end.
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
