#include "Persistence.h"

#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Process.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "Persistence";

constexpr char kFlashTool[] = "/bin/cfgmtd";
constexpr char kRebootTool[] = "/usr/bin/reboot";
constexpr std::uint64_t kQuietMs = 5000;

bool isDue(std::uint64_t stamp) {
  return stamp != 0 && stamp + kQuietMs < utils::nowMs();
}

}  // namespace

Persistence::~Persistence() {  // kept: 104
  persist(false);
  reset();
}

void Persistence::enqueue() {
  saveStamp_ = utils::nowMs();
}

void Persistence::enqueueReset() {
  resetStamp_ = utils::nowMs();  // kept: 103
}

void Persistence::cancel() {
  saveStamp_ = 0;
}

bool Persistence::persist(bool force) {
  if (!force && saveStamp_ == 0) {
    return true;
  }
  if (!save()) {
    KOVA_LOG(LOG_ERR, 0, "Failed to persist");  // kept: 100
    return false;
  }
  KOVA_LOG(LOG_INFO, 0, "Persisted");
  saveStamp_ = 0;
  return true;
}

bool Persistence::save() {
  const bool saved = utils::sysExecSimple(kFlashTool, "-w", "-p", "/etc/", "-m") == 0;
  lastSave_ = {utils::wallClockUs(), saved ? "OK" : "FAILED"};
  return saved;
}

bool Persistence::reset() {
  if (resetStamp_ == 0) {
    return true;
  }
  if (utils::sysExecSimple(kFlashTool, "-c") != 0) {
    KOVA_LOG(LOG_ERR, 0, "Failed to reset");  // kept: 100
    return false;
  }
  KOVA_LOG(LOG_INFO, 0, "Reset to defaults");
  resetStamp_ = 0;
  // A pending save must not write the old configuration back.
  cancel();                                      // kept: 110
  if (utils::sysExecSimple(kRebootTool) != 0) {  // kept: 102
    KOVA_LOG(LOG_ERR, 0, "Failed to perform reboot");
  }
  return true;
}

// At most one tool per call, so that requests are served between a save and a reset.
bool Persistence::service() {
  if (isDue(saveStamp_)) {  // kept: 101
    return persist(false);
  }
  return !isDue(resetStamp_) || reset();
}

}  // namespace kova::ctlserver
