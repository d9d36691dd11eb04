#pragma once

#include <cstdint>
#include <string>

#include "kova/utils/UniqueFd.h"

namespace kova::variant {
class CameraInfo;
}

namespace kova::gpio {

/// Told what a button does, on the thread that services the button. Times are in milliseconds since
/// the press.
class IButtonEventsObserver {
 public:
  virtual void buttonDown() = 0;
  virtual void buttonUp(int heldMs) = 0;
  virtual void buttonDepressed(int heldMs) = 0;
  virtual ~IButtonEventsObserver() = default;
};

/// A push button on a GPIO line, read from the value file that the kernel offers for it: "0" or
/// "1", a line break after it (Documentation/admin-guide/gpio/sysfs.rst).
class BaseButton {
 public:
  virtual ~BaseButton();
  BaseButton(const BaseButton&) = delete;
  BaseButton& operator=(const BaseButton&) = delete;

  /// @param info       where the board says which line the button is on; must outlive the button
  /// @param observer   told of the button's events; must outlive the button
  /// @param intervalMs least time between two buttonDepressed() calls
  /// @return false, and logged, when the board names a line that cannot be read; a board without
  ///         the button succeeds
  bool init(const variant::CameraInfo* info, IButtonEventsObserver* observer, int intervalMs);

  /// Samples the line once and reports what changed. A new level counts once it has lasted for the
  /// debounce time of 30 ms; held times count from its first sample. buttonDepressed() is called
  /// first `intervalMs` after the press. False when the line cannot be read, until it can again; a
  /// button without a line has nothing to do and succeeds.
  bool service();

 protected:
  BaseButton() = default;

  /// Where the board describes this button.
  struct Line {
    std::string path;  ///< value file; empty: the board has no such button
    bool activeLow;
  };
  virtual Line lineOf(const variant::CameraInfo& info) const = 0;

 private:
  bool sample(bool& pressed);
  bool readPressed(bool& pressed);
  void debounce(bool pressed, std::uint64_t now);
  void reportHeld(std::uint64_t now);

  IButtonEventsObserver* observer_ = nullptr;
  std::string path_;
  utils::UniqueFd value_;  // the value file at path_
  bool readable_ = true;   // the last sample; a failure is logged when it begins
  bool activeLow_ = true;
  std::uint64_t intervalMs_ = 0;
  bool pressed_ = false;    // the debounced level
  bool candidate_ = false;  // the level last sampled
  std::uint64_t candidateSince_ = 0;
  std::uint64_t pressedSince_ = 0;
  std::uint64_t lastReport_ = 0;
};

/// The button that resets the camera: key "reset_button_gpio" of the device description, pressed
/// when the line is low unless "reset_button_active_low" is false.
class BaseResetButton : public BaseButton {
 protected:
  Line lineOf(const variant::CameraInfo& info) const override;
};

/// The reset button in the camera's case.
class ResetButtonCase : public BaseResetButton {};

}  // namespace kova::gpio
