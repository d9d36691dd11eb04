#pragma once

#include "BaseTransferTask.h"

namespace kova::ctlserver {

/// Downloads a firmware image, checks it with "/bin/fwupdate.real" and flashes it with
/// "/bin/fwupdate", both within one turn of the service. Every failure is reported to the requester
/// as an EventUpdateFirmwareFailure. Success is not reported: the flashing tool takes over.
class TransferTaskFirmware : public BaseTransferTask {
 public:
  TransferTaskFirmware();

  /// Sets a time-out of half an hour if the request gave none.
  bool onCheck() override;
  bool onStart() override;
  void onSuccess(bool& done) override;
  void onFailure(TransferStatus status, int httpCode) override;
  /// Sends an EventUpdateFirmwareFailure. A reason that the event does not allow is sent as
  /// "TRANSFER_TIMEOUT".
  void notifyStatus(const std::string& reason) override;

 private:
  bool verify();
  void reportRejection(const std::string& checkerOutput);
  void flash();
};

}  // namespace kova::ctlserver
