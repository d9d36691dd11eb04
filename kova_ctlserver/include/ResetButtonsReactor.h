#pragma once

#include <string>

#include "kova/gpio/Button.h"

namespace kova::ipc {
class Ipc;
}
namespace kova::variant {
class CameraInfo;
}

namespace kova::ctlserver {

class CtlServer;

/// Turns a held reset button into a factory reset.
///
/// When the button has been held longer than the threshold of the model, the reactor asks the
/// sounds-and-LEDs process to signal that it may be released; the release schedules the reset. A
/// shorter press does nothing. The armed state is never left: the camera reboots after the reset.
class ResetButtonsReactor : public gpio::IButtonEventsObserver {
 public:
  /// Must be called before the button is serviced. A device description without "sysid" ends the
  /// process. Always returns true.
  /// @param name   the button's name in log lines
  /// @param info   identifies the model; the threshold is 3000 or 5000 ms
  /// @param ipc    endpoint that sends the signal
  /// @param server performs the reset
  /// None of the pointers is owned; all must outlive the reactor.
  bool init(const std::string& name, const variant::CameraInfo* info, ipc::Ipc* ipc,
            CtlServer* server);

  void buttonDown() override;
  /// Blocks for up to 999 ms: a reset is never scheduled earlier than a second past the threshold.
  void buttonUp(int heldMs) override;
  void buttonDepressed(int heldMs) override;

 private:
  bool initialised_ = false;
  std::string name_;
  const variant::CameraInfo* cameraInfo_ = nullptr;
  ipc::Ipc* ipc_ = nullptr;
  CtlServer* server_ = nullptr;
  int thresholdMs_ = 0;
  bool armed_ = false;
};

}  // namespace kova::ctlserver
