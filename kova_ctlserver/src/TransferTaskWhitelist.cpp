#include "TransferTaskWhitelist.h"

#include "kova/logger/Logger.h"
#include "kova/utils/File.h"
#include "kova/utils/Strings.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "TransferTaskWhitelist";
constexpr std::uint32_t kWhitelistTimeoutMs = 20000;

}  // namespace

TransferTaskWhitelist::TransferTaskWhitelist() {
  setKind(false);
  setTimeout(kWhitelistTimeoutMs);
}

TransferTaskWhitelist& TransferTaskWhitelist::setPrefix(const std::string& prefix) {
  prefix_ = prefix;
  prefixLength_ = prefix.size();
  return *this;
}

TransferTaskWhitelist& TransferTaskWhitelist::setSuffix(const std::string& suffix) {
  suffix_ = suffix;
  return *this;
}

void TransferTaskWhitelist::setWaitRename(bool waitRename) {
  waitRename_ = waitRename;  // kept: 73
}

bool TransferTaskWhitelist::validate(const std::string& path) const {
  if (prefix_.empty() && suffix_.empty()) {  // kept: 75
    return true;
  }
  if (!utils::startsWith(path, prefix_)) {
    return false;
  }
  const std::size_t digitsEnd = path.find_first_not_of("0123456789", prefixLength_);  // kept: 74
  const std::string rest = digitsEnd == std::string::npos ? "" : path.substr(digitsEnd);
  return rest == suffix_;
}

bool TransferTaskWhitelist::onCheck() {
  if (!validate(path())) {
    KOVA_LOG(LOG_ERR, 0, "Path not on whitelist for name=%s, path=%s", name().c_str(),
             path().c_str());
    return refuseRun("the path " + path() + " is not allowed: it must be " + prefix_ +
                     ", digits and " + (suffix_.empty() ? "nothing else" : suffix_));
  }
  return true;
}

bool TransferTaskWhitelist::onStart() {  // kept: 120
  return true;
}

void TransferTaskWhitelist::onPrepare(bool& ready, std::string& uploadPath) {
  if (!waitRename_) {
    ready = true;
    uploadPath = path();
    return;
  }
  uploadPath = path() + ".out";
  ready = utils::copyFile(path().c_str(), uploadPath.c_str());
}

void TransferTaskWhitelist::onSuccess(bool& done) {  // kept: 63
  done = true;
}

void TransferTaskWhitelist::onFailure(TransferStatus status, int /*httpCode*/) {
  notifyStatus(decodeTransferStatus(status));
}

}  // namespace kova::ctlserver
