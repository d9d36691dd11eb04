#include "TransferTaskFirmware.h"

#include <unistd.h>

#include <cerrno>

#include "TransferRecords.h"
#include "kova/ipc/Ipc.h"
#include "kova/logger/Logger.h"
#include "kova/messages/Events.h"
#include "kova/utils/Process.h"
#include "kova/utils/Strings.h"
#include "kova/variant/Variant.h"

namespace kova::ctlserver {
namespace {

using variant::Variant;

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "TransferTaskFirmware";
constexpr char kOnSuccess[] = "onSuccess";  // kept: 15

constexpr char kImage[] = "/tmp/fwupdate.bin";
constexpr char kChecker[] = "/bin/fwupdate.real";
constexpr char kFlasher[] = "/bin/fwupdate";
constexpr std::uint32_t kFirmwareMaxSz = 52428800;
constexpr std::uint32_t kFirmwareTimeoutMs = 600000;
constexpr std::uint32_t kTimeoutMsWhenNotGiven = 1800000;
constexpr unsigned kCheckerOutputKiB = 128;
constexpr char kCheckFailed[] = "FW_CHECK_FAILED";
constexpr char kWrongHardware[] = "FW_CHECK_INCOMPAT_HW";

/// Output of the checker, standard error first.
std::string outputOf(std::string err, std::string out) {
  utils::trim(err);
  utils::trim(out);
  if (err.empty() && out.empty()) {
    return "it said nothing";
  }
  return err.empty() || out.empty() ? err + out : err + ", " + out;
}

}  // namespace

TransferTaskFirmware::TransferTaskFirmware() {
  setName("fw");
  setPath(kImage);
  setMaxSz(kFirmwareMaxSz);
  setTimeout(kFirmwareTimeoutMs);  // kept: 55
}

bool TransferTaskFirmware::onCheck() {
  if (timeout() == 0) {
    setTimeout(kTimeoutMsWhenNotGiven);  // kept: 55
  }
  return true;
}

bool TransferTaskFirmware::onStart() {
  unlink(kImage);
  return true;
}

void TransferTaskFirmware::onFailure(TransferStatus status, int /*httpCode*/) {
  notifyStatus(decodeTransferStatus(status));
  unlink(kImage);
}

void TransferTaskFirmware::onSuccess(bool& done) {  // kept: 65
  done = true;
  if (verify()) {
    flash();
  }
}

/// The checker accepts an image with exit status 0 and nothing on standard error.
bool TransferTaskFirmware::verify() {
  std::string out;
  std::string err;
  const int status = utils::sysExec(kChecker, {"-c"}, "", out, err, /*timeoutMs=*/0, /*graceMs=*/0,
                                    kCheckerOutputKiB);
  if (status == 0 && err.empty()) {  // kept: 66
    return true;
  }
  KOVA_LOG_IN(kOnSuccess, LOG_WARNING, 0, "Firmware validation failed, uri=%s, status=%s",
              uri().c_str(), err.c_str());
  conclude(kCheckFailed, utils::format("the checker refused the image with status %d: ", status) +
                             outputOf(err, out));
  reportRejection(out);
  return false;
}

void TransferTaskFirmware::reportRejection(const std::string& checkerOutput) {
  Variant report;
  if (Variant::FromJSON(checkerOutput, report) < 0) {
    KOVA_LOG_IN(kOnSuccess, LOG_INFO, 0, "Parse fwupdate output message failed (%s)",
                checkerOutput.c_str());
    notifyStatus(kCheckFailed);
    return;
  }
  const Variant* reason = report.GetKeyChain(variant::VariantClass::String, {"reason"});
  // kept: 67
  const bool wrongHardware = reason != nullptr && reason->toText() == kWrongHardware;
  const char* const status = wrongHardware ? kWrongHardware : kCheckFailed;
  conclude(status, reasonOfRun());
  notifyStatus(status);
}

void TransferTaskFirmware::flash() {
  const int status = utils::sysExecSimple(kFlasher, "-m");
  if (status == 0) {
    // kept: 64
    KOVA_LOG_IN(kOnSuccess, LOG_INFO, 0, "Firmware update downloaded from uri=%s", uri().c_str());
    conclude(kOutcomeOk, "the image was checked and flashed");
    return;
  }
  // kept: 19
  KOVA_LOG_IN(kOnSuccess, LOG_WARNING, errno, "Firmware flash failed, uri=%s", uri().c_str());
  conclude("FW_FLASH_FAILED", utils::format("the flashing tool failed with status %d", status));
  notifyStatus("FW_FLASH_FAILED");
}

void TransferTaskFirmware::notifyStatus(const std::string& reason) {  // kept: 69
  ipc::Ipc* ipc = ipc::Ipc::GetInstance();
  if (ipc == nullptr) {
    KOVA_LOG(LOG_ERR, 0, "pIpc is NULL");
    return;
  }
  ipc::messages::EventUpdateFirmwareFailure event;
  event.to(ipcOrigin());
  event.requestId(ipcRequestId());
  event.reason(reason);
  event.NormalizeFields();  // kept: 68
  if (!ipc->SendRequest(event)) {
    KOVA_LOG(LOG_WARNING, 0, "Failed to send transfer failure notification");
  }
}

}  // namespace kova::ctlserver
