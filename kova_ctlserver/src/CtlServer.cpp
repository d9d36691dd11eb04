#include "CtlServer.h"

#include "StopSignal.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Process.h"
#include "kova/utils/Service.h"
#include "kova/utils/ServiceManager.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "CtlServer";

constexpr char kReboot[] = "/usr/bin/reboot";
constexpr int kRebootWaitStepMs = 1000;
constexpr int kButtonIntervalMs = 100;

}  // namespace

CtlServer::CtlServer(variant::CameraInfo& cameraInfo)
    : cameraInfo_(cameraInfo), userLogoTask_(persistence_), soundTask_(persistence_) {}

CtlServer::~CtlServer() {
  if (statsHandle_ != nullptr) {
    utils::CloseStatsLib(&statsHandle_);
  }
}

bool CtlServer::init(ipc::Ipc* ipc) {
  if (const int res = utils::InitializeStatsLib(&statsHandle_); res != 0) {
    KOVA_LOG(LOG_ERR, 0, "Failed to initialize system statistics engine, res=%d", res);
    return false;
  }
  if (!transferService_.init()) {
    KOVA_LOG(LOG_ERR, 0, "Failed to initialize transfer service");
    return false;
  }
  configureWhitelists();
  trustUploadOwner();
  ipc_ = ipc;
  resetReactor_.init("case", &cameraInfo_, ipc, this);  // kept: 6
  if (!resetButton_.init(&cameraInfo_, &resetReactor_, kButtonIntervalMs)) {
    KOVA_LOG(LOG_ERR, 0, "Failed to initialize reset button case");
    return false;
  }
  return true;
}

void CtlServer::configureWhitelists() {
  snapshotTask_.setPrefix("/tmp/snap.jpeg")
      .setSuffix("")
      .setName("snapshot")
      .setPath("/tmp/snap.jpeg")
      .setMaxSz(200000)
      .setTimeout(90000);
  eventSnapshotTask_.setPrefix("/tmp/motionsnap_")
      .setSuffix(".jpg")
      .setName("eventSnapshot")
      .setMaxSz(200000)
      .setTimeout(90000);
  eventHeatmapTask_.setPrefix("/tmp/heatmap_")
      .setSuffix(".png")
      .setName("eventHeatmap")
      .setMaxSz(65536);
}

bool CtlServer::service(unsigned timeoutMs) {  // kept: 3
  if (ended_) {
    return true;
  }
  if (!persistence_.service()) {  // kept: 18
    KOVA_LOG(LOG_ERR, 0, "Failed to persist");
  }
  if (!transferService_.service(timeoutMs)) {
    KOVA_LOG(LOG_ERR, 0, "Failed to service transfers");
  }
  if (!resetButton_.service()) {
    KOVA_LOG(LOG_ERR, 0, "Failed to service reset button case");
  }
  return true;
}

bool CtlServer::reboot(bool waitForever, int delayMs, bool persistFirst) {
  utils::sleepAliveMs(delayMs);                       // kept: 8
  if (persistFirst && !persistence_.persist(true)) {  // kept: 18
    KOVA_LOG(LOG_ERR, 0, "Failed to persist");
  }
  const bool rebooting = utils::sysExecSimple(kReboot) == 0;
  if (!rebooting) {
    KOVA_LOG(LOG_ERR, 0, "Failed to perform reboot");
  }
  if (waitForever) {  // kept: 8, 120
    KOVA_LOG(LOG_INFO, 0, "Entering reboot wait mode");
    while (!stopSignalled()) {
      utils::sleepAliveMs(kRebootWaitStepMs);
    }
    ended_ = true;
  }
  return rebooting;
}

bool CtlServer::persist(bool sync) {
  persistence_.enqueue();
  return !sync || persistence_.persist(true);  // kept: 12
}

DeviceState CtlServer::deviceState() const {
  return {persistence_.savePending(), persistence_.resetPending(), resetButton_.readable(),
          persistence_.lastSave(), settingsChanges_};
}

bool CtlServer::resetToDefaults() {  // kept: 11
  persistence_.cancel();
  persistence_.enqueueReset();
  return true;
}

bool CtlServer::startService(ipc::messages::StartService& request) {
  return utils::EnableService(request.service());  // kept: 13
}

bool CtlServer::stopService(ipc::messages::StopService& request) {
  return utils::DisableService(request.service());  // kept: 13
}

}  // namespace kova::ctlserver
