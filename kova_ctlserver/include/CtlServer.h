#pragma once

#include "Persistence.h"
#include "ResetButtonsReactor.h"
#include "TransferService.h"
#include "TransferTaskFirmware.h"
#include "TransferTaskSound.h"
#include "TransferTaskSupport.h"
#include "TransferTaskUserLogo.h"
#include "TransferTaskWhitelist.h"
#include "kova/gpio/Button.h"
#include "kova/ipc/Ipc.h"
#include "kova/messages/Requests.h"
#include "kova/utils/Stats.h"
#include "kova/variant/CameraInfo.h"

namespace kova::ctlserver {

/// The central object: owns every piece of device state and all background work, and carries out
/// the requests.
///
/// Operations return true for success; a failure is logged where it happens. A `reply` is what the
/// request's response will carry as its payload. Main thread only.
class CtlServer {
 public:
  /// Stores the reference, which must outlive the object; does no I/O.
  explicit CtlServer(variant::CameraInfo& cameraInfo);
  /// Ends all background work; a pending save and a pending factory reset are carried out at once.
  virtual ~CtlServer();
  CtlServer(const CtlServer&) = delete;
  CtlServer& operator=(const CtlServer&) = delete;

  /// Brings everything up. Must be called once, before any other operation.
  /// @param ipc endpoint for events and responses; not owned
  bool init(ipc::Ipc* ipc);

  /// One step of background work. Failures are logged only: always true.
  /// @param timeoutMs longest wait for network activity, in milliseconds
  bool service(unsigned timeoutMs);

  /// Reboots the camera.
  /// @param waitForever  do not return, so that nothing more is served while the system goes down
  /// @param delayMs      milliseconds to wait first; the whole daemon waits
  /// @param persistFirst save the configuration to flash before
  bool reboot(bool waitForever, int delayMs, bool persistFirst);

  /// Schedules a save of the configuration to flash; with `sync`, saves at once and returns whether
  /// that worked.
  bool persist(bool sync);

  /// Schedules a factory reset, dropping a pending save. Always true.
  bool resetToDefaults();

  /// Reads the requested sections of the system statistics into `reply`, one map per section, up to
  /// the first that cannot be read.
  bool readStats(ipc::messages::GetSystemStats& request, variant::Variant& reply);

  /// Changes the settings that the request gives and reads back the others, so that `reply` holds
  /// the present "name", "timezone" and "region", on some models "timelapseminutes", and
  /// "soundOnBoot" when given. Stops at the first failure with `reply` as filled so far; what was
  /// already applied stays applied. Nothing is saved to flash.
  bool updateSettings(ipc::messages::ChangeDeviceSettings& request, variant::Variant& reply);

  /// Back to the device's default name and to the time zone "GMT", through updateSettings().
  bool resetSettings(variant::Variant& reply);

  /// A request that gives nothing reads the administrator's name into `reply` as "username". Any
  /// other has to give the name and the present password; it changes the name if that is another,
  /// and the password if a new one is given. Both go to the configuration store first and to
  /// /etc/passwd then. Nothing is undone after a failure.
  bool changeUsernamePassword(ipc::messages::ChangeUsernamePassword& request,
                              variant::Variant& reply);

  /// Unlocks or locks the administrator's password: a "!" in front of the stored hash locks it. The
  /// system's account follows; if it cannot, that is logged only. `reply` is left alone.
  bool enableUsernamePassword(ipc::messages::EnableUsernamePassword& request,
                              variant::Variant& reply);
  bool disableUsernamePassword(ipc::messages::DisableUsernamePassword& request,
                               variant::Variant& reply);

  /// Starts or stops the system service that the request names; the platform decides what it
  /// accepts.
  bool startService(ipc::messages::StartService& request);
  bool stopService(ipc::messages::StopService& request);

  /// Start the transfer that the request asks for. The requester learns the outcome from the events
  /// that the transfer's task sends; a request that is refused here is answered by a log line only.
  /// @return whether the task was started, or the file to put is installed already
  bool getRequest(ipc::messages::GetRequest& request);
  bool putRequest(ipc::messages::PutRequest& request);
  bool updateFirmware(ipc::messages::UpdateFirmwareRequest& request);

 private:
  void configureWhitelists();
  bool isDuplicate(const char* operation, const std::string& what, const std::string& uri) const;
  bool readMemory(variant::Variant& reply);
  bool readCpu(variant::Variant& reply);
  bool readNetwork(variant::Variant& reply);

  variant::CameraInfo& cameraInfo_;
  ipc::Ipc* ipc_ = nullptr;
  Persistence persistence_;
  utils::StatsLib* statsHandle_ = nullptr;
  TransferService transferService_;
  TransferTaskFirmware firmwareTask_;
  TransferTaskSupport supportTask_;
  TransferTaskWhitelist snapshotTask_;
  TransferTaskWhitelist eventSnapshotTask_;
  TransferTaskWhitelist eventHeatmapTask_;
  TransferTaskUserLogo userLogoTask_;
  TransferTaskSound soundTask_;
  gpio::ResetButtonCase resetButton_;
  ResetButtonsReactor resetReactor_;
};

}  // namespace kova::ctlserver
