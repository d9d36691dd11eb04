#include "TransferTaskInstall.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "DisplayText.h"
#include "Persistence.h"
#include "TransferRecords.h"
#include "kova/logger/Logger.h"
#include "kova/messages/Fields.h"
#include "kova/utils/File.h"
#include "md5sum.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr std::uint32_t kInstallTimeoutMs = 20000;
constexpr std::size_t kMaxDigestBytes = 64;  // of a request's digest in a reason

bool writeText(const char* path, const std::string& text) {
  utils::File file;
  return file.Initialize(path, utils::FILE_OPEN_MODE_TRUNCATE, 0) && file.WriteString(text) &&
         file.Close();
}

/// Returns true if no digest file remains. A directory of that name does not count as one.
bool removeOld(const char* path) {
  return unlink(path) == 0 || errno == ENOENT || errno == EISDIR;
}

std::string wrongDigest(const std::string& digest, const std::string& expected) {
  if (digest.empty()) {
    return "the file that arrived could not be read";
  }
  return "the MD5 digest of the file is " + digest + ", but the request expects " +
         displayText(expected, kMaxDigestBytes);
}

}  // namespace

TransferTaskInstall::TransferTaskInstall(const Kind& kind, Persistence& persistence)
    : kind_(kind), persistence_(persistence) {
  setName(kind.name);
  setPath(kind.download);
  setTimeout(kInstallTimeoutMs);
  setMaxSz(kind.maxSz);
}

BaseTransferTask& TransferTaskInstall::setHash(const std::string& hash) {
  hash_ = hash;
  return *this;
}

bool TransferTaskInstall::isInstalled(const Kind& kind, const std::string& hash) {
  std::string installed;
  return utils::File::ReadStringAll(kind.installedChecksum, installed) && installed == hash;
}

bool TransferTaskInstall::onCheck() {
  if (hash_.empty() || hash_ == ipc::messages::kUninitialized) {
    const char* const kLogUnit = kind_.unit;  // KOVA_LOG uses it: lines carry the subclass's unit
    KOVA_LOG(LOG_ERR, 0, "Hash must be set");
    return refuseRun("the request gives no MD5 digest (hash)");
  }
  return true;
}

bool TransferTaskInstall::onStart() {
  unlinkTemps();
  return true;
}

void TransferTaskInstall::onFailure(TransferStatus status, int /*httpCode*/) {
  notifyStatus(decodeTransferStatus(status));
  unlinkTemps();
}

void TransferTaskInstall::onSuccess(bool& done) {
  const char* const kLogUnit = kind_.unit;  // KOVA_LOG uses it: lines carry the subclass's unit
  done = true;
  std::string digest;
  if (!md5sum(path(), digest) || digest != hash_) {  // kept: 70
    // kept: 19
    KOVA_LOG(LOG_WARNING, errno, "%s checksum error, uri=%s, provided=%s, calculated=%s",
             kind_.subject, uri().c_str(), hash_.c_str(), digest.c_str());
    refuse("VALIDATION_FAILED", wrongDigest(digest, hash_));
    return;
  }
  std::string why;
  if (!validate(why)) {
    refuse("VALIDATION_FAILED", why);
    return;
  }
  bool saved = false;
  if (!install(digest, saved)) {
    const int reason = errno;
    std::string subject = kind_.subject;
    subject[0] = static_cast<char>(std::tolower(subject[0]));
    KOVA_LOG(LOG_WARNING, reason, "Failed to persist %s, uri=%s", subject.c_str(), uri().c_str());
    refuse("DISK_IO_FAILED", std::string("the file could not be installed as ") + kind_.installed +
                                 ": " + std::strerror(reason));
    return;
  }
  concludeInstalled(digest, saved);
  notifyStatus(kOutcomeOk);
}

void TransferTaskInstall::concludeInstalled(const std::string& digest, bool saved) {
  std::string reason =
      "the file with the MD5 digest " + digest + " is installed as " + std::string(kind_.installed);
  if (!saved) {
    reason += ", but could not be saved to flash";
  }
  conclude(kOutcomeOk, reason);
}

/// Removes the old digest first, so that an interruption at any point leaves no digest beside a
/// file that it does not match. A file already in place stays there if a later step fails.
bool TransferTaskInstall::install(const std::string& digest, bool& saved) {
  // kept: 113
  if (!writeText(kind_.checksum, digest) || !removeOld(kind_.installedChecksum) ||
      std::rename(kind_.download, kind_.installed) != 0 ||
      std::rename(kind_.checksum, kind_.installedChecksum) != 0) {  // kept: 72
    return false;
  }
  saved = persistence_.persist(true);  // kept: 71
  return utils::fileExists(kind_.installed, true);
}

void TransferTaskInstall::unlinkTemps() {
  unlink(kind_.download);
  unlink(kind_.checksum);
}

void TransferTaskInstall::refuse(const char* status, const std::string& reason) {
  unlinkTemps();
  conclude(status, reason);
  notifyStatus(status);
}

}  // namespace kova::ctlserver
