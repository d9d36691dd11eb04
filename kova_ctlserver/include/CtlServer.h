#pragma once

#include "DeviceObject.h"
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
/// Operations return true for success; a failure is logged where it happens. `reply` becomes the
/// payload of the response. Main thread only.
class CtlServer {
 public:
  /// Stores the reference, which must outlive the object; does no I/O.
  explicit CtlServer(variant::CameraInfo& cameraInfo);
  /// Ends all background work. Performs a pending save and a pending factory reset at once.
  virtual ~CtlServer();
  CtlServer(const CtlServer&) = delete;
  CtlServer& operator=(const CtlServer&) = delete;

  /// Initialises everything. Must be called once, before any other operation.
  /// @param ipc endpoint for events and responses; not owned
  bool init(ipc::Ipc* ipc);

  /// One step of background work. Failures are only logged; always returns true.
  /// @param timeoutMs longest wait for network activity, in milliseconds
  bool service(unsigned timeoutMs);

  /// Reboots the camera.
  /// @param waitForever  block until SIGTERM while the system goes down; ended() is then true
  /// @param delayMs      milliseconds to wait first; this blocks the whole daemon
  /// @param persistFirst save the configuration to flash first
  bool reboot(bool waitForever, int delayMs, bool persistFirst);

  /// Whether SIGTERM ended the wait for a reboot. The process is about to exit: service() does
  /// nothing and no request is handled.
  bool ended() const { return ended_; }

  /// Schedules a save of the configuration to flash. With `sync`, saves at once and returns the
  /// result.
  bool persist(bool sync);

  /// Drops a pending save and schedules a factory reset. Always returns true.
  bool resetToDefaults();

  /// Reads the requested sections of the system statistics into `reply`, one map per section. Stops
  /// at the first one that cannot be read.
  bool readStats(ipc::messages::GetSystemStats& request, variant::Variant& reply);

  /// Changes the settings that the request gives and reads the others. `reply` receives "name",
  /// "timezone" and "region", on some models "timelapseminutes", and "soundOnBoot" if it was given.
  /// Stops at the first failure; `reply` and the system keep the changes made so far. Saves nothing
  /// to flash.
  bool updateSettings(ipc::messages::ChangeDeviceSettings& request, variant::Variant& reply);

  /// Restores the device's default name and the time zone "GMT", through updateSettings().
  bool resetSettings(variant::Variant& reply);

  /// A request without fields reads the administrator's name into `reply` as "username". Any other
  /// request must give a name and the current password; it changes the name if it differs, and the
  /// password if a new one is given. Writes the configuration store first, /etc/passwd second. A
  /// failure undoes nothing.
  bool changeUsernamePassword(ipc::messages::ChangeUsernamePassword& request,
                              variant::Variant& reply);

  /// Unlocks or locks the administrator's password: removes or adds a "!" before the stored hash,
  /// then unlocks or locks the system account, whose failure is only logged. Leaves `reply` alone.
  bool enableUsernamePassword(ipc::messages::EnableUsernamePassword& request,
                              variant::Variant& reply);
  bool disableUsernamePassword(ipc::messages::DisableUsernamePassword& request,
                               variant::Variant& reply);

  /// Starts or stops the system service that the request names. The platform decides which names it
  /// accepts.
  bool startService(ipc::messages::StartService& request);
  bool stopService(ipc::messages::StopService& request);

  /// Starts the requested transfer. Its task reports the outcome to the requester by events; a
  /// request that is refused here only leaves a log line and a record.
  /// @return true if the task was started or the file is already installed
  bool getRequest(ipc::messages::GetRequest& request);
  bool putRequest(ipc::messages::PutRequest& request);
  bool updateFirmware(ipc::messages::UpdateFirmwareRequest& request);

  /// Snapshot of the state that DeviceObject publishes.
  DeviceState deviceState() const;

  /// Holds one record for each request of the three above.
  TransferRecords& transferRecords() { return transferService_.records(); }

 private:
  void configureWhitelists();
  void trustUploadOwner();
  bool refuseDuplicate(const char* operation, const std::string& what, const std::string& uri,
                       std::uint64_t record);
  bool refuse(std::uint64_t record, const std::string& reason);
  bool readMemory(variant::Variant& reply);
  bool readCpu(variant::Variant& reply);
  bool readNetwork(variant::Variant& reply);

  variant::CameraInfo& cameraInfo_;
  ipc::Ipc* ipc_ = nullptr;  // unused: components that send keep their own pointer
  Persistence persistence_;
  utils::StatsLib* statsHandle_ = nullptr;
  TransferService transferService_;
  // The tasks are destroyed before transferService_, whose destructor calls none of them.
  TransferTaskFirmware firmwareTask_;
  TransferTaskSupport supportTask_;
  TransferTaskWhitelist snapshotTask_;
  TransferTaskWhitelist eventSnapshotTask_;
  TransferTaskWhitelist eventHeatmapTask_;
  TransferTaskUserLogo userLogoTask_;
  TransferTaskSound soundTask_;
  // The reactor is destroyed before the button, which calls it only in service().
  gpio::ResetButtonCase resetButton_;
  ResetButtonsReactor resetReactor_;
  bool ended_ = false;
  std::uint32_t settingsChanges_ = 0;
};

}  // namespace kova::ctlserver
