#include "TransferTaskSupport.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kova/logger/Logger.h"
#include "kova/utils/File.h"
#include "kova/utils/Process.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "TransferTaskSupport";

constexpr char kGenerator[] = "/bin/support";
constexpr char kArchive[] = "/tmp/supportinfo.tar";
constexpr std::uint32_t kSupportTimeoutMs = 90000;
constexpr std::uint32_t kSupportMaxSz = 10485760;

}  // namespace

TransferTaskSupport::TransferTaskSupport() {
  setName("support");
  setKind(false);
  setTimeout(kSupportTimeoutMs);
  setMaxSz(kSupportMaxSz);
}

bool TransferTaskSupport::onCheck() {  // kept: 120
  return true;
}

// A generator left from an earlier request would overwrite the archive of this one.
bool TransferTaskSupport::onStart() {  // kept: 115
  utils::endDaemon(kGenerator);
  unlink(kArchive);
  if (!utils::runDaemon(/*workingDirectory=*/nullptr, /*signalMask=*/nullptr, /*pid=*/nullptr,
                        kGenerator, /*argc=*/1, kArchive)) {
    KOVA_LOG(LOG_ERR, errno, "Failed to launch support file generation");
    return refuseRun(std::string(kGenerator) + " could not be started: " + std::strerror(errno));
  }
  return true;
}

void TransferTaskSupport::onPrepare(bool& ready, std::string& uploadPath) {
  ready = utils::fileExists(kArchive, true);  // kept: 76
  uploadPath = kArchive;
}

void TransferTaskSupport::onSuccess(bool& done) {  // kept: 63
  done = true;
  utils::endDaemon(kGenerator);
  unlink(kArchive);
}

void TransferTaskSupport::onFailure(TransferStatus status, int /*httpCode*/) {
  notifyStatus(decodeTransferStatus(status));
  utils::endDaemon(kGenerator);
  unlink(kArchive);
}

}  // namespace kova::ctlserver
