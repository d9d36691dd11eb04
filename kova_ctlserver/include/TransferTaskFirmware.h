#pragma once

#include "BaseTransferTask.h"

namespace kova::ctlserver {

/// Downloads a firmware image, has it checked by "/bin/fwupdate.real" and flashed by
/// "/bin/fwupdate". Both run to their end within one turn of the service. Every failure is reported
/// to the requester as an EventUpdateFirmwareFailure; a success is not reported: the flashing tool
/// takes the camera from there.
class TransferTaskFirmware : public BaseTransferTask {
 public:
  TransferTaskFirmware();

  /// Gives a task without a time-out half an hour.
  bool onCheck() override;
  bool onStart() override;
  void onSuccess(bool& done) override;
  void onFailure(TransferStatus status, int httpCode) override;
  /// Sends an EventUpdateFirmwareFailure with this reason; one that the event does not know goes
  /// out as "TRANSFER_TIMEOUT".
  void notifyStatus(const std::string& reason) override;

 private:
  bool verify();
  void reportRejection(const std::string& checkerOutput);
  void flash();
};

}  // namespace kova::ctlserver
