#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kova/gpio/InputLine.h"

namespace kova::variant {
class CameraInfo;
}

namespace kova::gpio {

/// Receives the events of a button, on the thread that services it. Times are in milliseconds since
/// the press.
class IButtonEventsObserver {
 public:
  /// The button was pressed.
  virtual void buttonDown() = 0;

  /// The button was released, or its line was not read for so long that the press counts as ended.
  virtual void buttonUp(int heldMs) = 0;

  /// The button is still held; reported repeatedly until buttonUp().
  virtual void buttonDepressed(int heldMs) = 0;

  virtual ~IButtonEventsObserver() = default;
};

/// A push button on a GPIO line.
class BaseButton {
 public:
  virtual ~BaseButton();
  BaseButton(const BaseButton&) = delete;
  BaseButton& operator=(const BaseButton&) = delete;

  /// @param info       describes which line the button is on; read only here
  /// @param observer   receives the button's events; must outlive the last service()
  /// @param intervalMs minimum time between two buttonDepressed() calls
  /// @return always true: an unreadable line is logged and retried by service(), so that a broken
  /// button does not prevent the program from starting
  bool init(const variant::CameraInfo* info, IButtonEventsObserver* observer, int intervalMs);

  /// Samples the line and reports changes; samples at most every 50 ms while the button is
  /// released, else on every call. A new level counts once it has lasted for the debounce time of
  /// 30 ms; the press begins at its first sample. The first buttonDepressed() call is due
  /// `intervalMs` after the press.
  ///
  /// If more than 250 ms pass between two samples, the state of the line in between is unknown: a
  /// press ends with the last sample that saw it, and a line that is still closed starts a new
  /// press.
  ///
  /// False, and logged, if the line can no longer be read; it is then retried once a minute,
  /// returning false each time that fails. Always true for a button without a line.
  bool service();

  /// False if the button has a line and the last attempt to read it failed.
  bool readable() const { return readable_; }

 protected:
  BaseButton() = default;

  /// The device description of this button.
  struct Line {
    std::string name;  ///< as InputLine::of() takes it; empty if the board has no such button
    bool activeLow;
  };
  virtual Line lineOf(const variant::CameraInfo& info) const = 0;

 private:
  bool isDue(std::uint64_t now) const;
  std::optional<bool> sample(std::uint64_t now);  // whether pressed; empty if it cannot be read
  bool endUnseenPress(std::uint64_t now);
  void debounce(bool pressed, std::uint64_t now);
  void reportHeld(std::uint64_t now);

  IButtonEventsObserver* observer_ = nullptr;
  std::string name_;
  std::unique_ptr<InputLine> line_;
  bool readable_ = true;  // at the last attempt to read it
  bool activeLow_ = true;
  int intervalMs_ = 0;
  bool pressed_ = false;         // the debounced level
  bool candidate_ = false;       // the most recent sample
  std::uint64_t triedAt_ = 0;    // time of the last attempt to read the line
  std::uint64_t sampledAt_ = 0;  // time of the last successful one
  std::uint64_t seenPressedAt_ = 0;
  std::uint64_t candidateSince_ = 0;
  std::uint64_t pressedSince_ = 0;
  std::uint64_t lastReport_ = 0;
};

/// The button that resets the camera: key "reset_button_gpio" of the device description, which
/// InputLine::of() takes. Pressed while the line is low, unless "reset_button_active_low" is false.
class BaseResetButton : public BaseButton {
 protected:
  Line lineOf(const variant::CameraInfo& info) const override;
};

/// The reset button in the camera's case.
class ResetButtonCase : public BaseResetButton {};

}  // namespace kova::gpio
