#include "ResetButtonsReactor.h"

#include "CtlServer.h"
#include "kova/ipc/Ipc.h"
#include "kova/logger/Logger.h"
#include "kova/messages/Events.h"
#include "kova/utils/Clock.h"
#include "kova/variant/CameraInfo.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "ResetButtonsReactor";

constexpr std::uint32_t kShortHoldSysid = 0xa526;  // 42278
constexpr int kShortHoldMs = 3000;
constexpr int kHoldMs = 5000;
constexpr int kLeastPastThresholdMs = 1000;

}  // namespace

bool ResetButtonsReactor::init(const std::string& name, const variant::CameraInfo* info,
                               ipc::Ipc* ipc, CtlServer* server) {
  name_ = name;
  cameraInfo_ = info;
  ipc_ = ipc;
  server_ = server;
  const std::uint32_t sysid = cameraInfo_->sysid(KOVA_LOG_ORIGIN(__func__));
  thresholdMs_ = sysid == kShortHoldSysid ? kShortHoldMs : kHoldMs;  // kept: 108
  initialised_ = true;
  return true;
}

void ResetButtonsReactor::buttonDown() {
  if (!initialised_) {  // kept: 109
    KOVA_LOG(LOG_ERR, 0, "Internal error");
    return;
  }
  KOVA_LOG(LOG_INFO, 0, "Reset button (%s) down", name_.c_str());
}

void ResetButtonsReactor::buttonDepressed(int heldMs) {
  if (armed_ || thresholdMs_ >= heldMs) {
    return;
  }
  KOVA_LOG(LOG_INFO, 0, "Reset button (%s) can be released now", name_.c_str());
  ipc::messages::PlayState signal;
  signal.to("kova_sounds_leds");
  signal.from("kova_ctlserver");
  signal.name("RESET_BUTTON");
  ipc_->SendRequest(signal);  // kept: 107
  armed_ = true;              // kept: 105
}

void ResetButtonsReactor::buttonUp(int heldMs) {
  KOVA_LOG(LOG_INFO, 0, "Reset button (%s) up after %d ms", name_.c_str(), heldMs);
  if (!armed_ || heldMs <= thresholdMs_) {
    return;
  }
  const int waitMs = thresholdMs_ + kLeastPastThresholdMs - heldMs;
  if (waitMs > 0) {
    utils::sleepMs(waitMs);  // kept: 106
  }
  if (!server_->resetToDefaults()) {
    KOVA_LOG(LOG_ERR, 0, "Failed to reset to factory defaults");
  }
}

}  // namespace kova::ctlserver
