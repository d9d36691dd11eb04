#include "Platform.h"
#include "kova/gpio/Button.h"

using kova::fakes::platform;

namespace kova::gpio {

BaseButton::~BaseButton() = default;

bool BaseButton::init(const variant::CameraInfo*, IButtonEventsObserver* observer, int intervalMs) {
  platform().note("BaseButton::init " + std::to_string(intervalMs));
  platform().button.observer = observer;
  return platform().button.initResult;
}

bool BaseButton::service() {
  platform().note("BaseButton::service");
  if (platform().button.onService) {
    platform().button.onService();
  }
  readable_ = platform().button.serviceResult;
  return platform().button.serviceResult;
}

BaseButton::Line BaseResetButton::lineOf(const variant::CameraInfo&) const {
  return {};
}

}  // namespace kova::gpio
