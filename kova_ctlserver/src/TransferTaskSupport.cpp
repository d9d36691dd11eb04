#include "TransferTaskSupport.h"

#include <unistd.h>

#include <cerrno>

#include "kova/logger/Logger.h"
#include "kova/utils/File.h"
#include "kova/utils/Process.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "TransferTaskSupport";

constexpr char kGenerator[] = "/bin/support";
constexpr char kArchive[] = "/tmp/supportinfo.tar";
constexpr std::uint32_t kTimeoutMs = 90000;
constexpr std::uint32_t kMaxSz = 10485760;

}  // namespace

TransferTaskSupport::TransferTaskSupport() {
  setName("support");
  setKind(false);
  setPath("");
  setTimeout(kTimeoutMs);
  setMaxSz(kMaxSz);
}

bool TransferTaskSupport::onCheck() {
  return true;
}

bool TransferTaskSupport::onStart() {
  unlink(kArchive);
  if (!utils::runDaemon(nullptr, nullptr, nullptr, kGenerator, 1, kArchive)) {
    KOVA_LOG(LOG_ERR, errno, "Failed to launch support file generation");
    return false;
  }
  return true;
}

void TransferTaskSupport::onPrepare(bool& ready, std::string& uploadPath) {
  ready = utils::fileExists(kArchive, true);
  uploadPath = kArchive;
}

void TransferTaskSupport::onSuccess(bool& done) {
  done = true;
  unlink(kArchive);
}

void TransferTaskSupport::onFailure(TransferStatus status, int /*httpCode*/) {
  notifyStatus(decodeTransferStatus(status));
  unlink(kArchive);
}

}  // namespace kova::ctlserver
