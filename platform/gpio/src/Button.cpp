#include "kova/gpio/Button.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"
#include "kova/variant/CameraInfo.h"

namespace kova::gpio {
namespace {

using variant::Variant;
using variant::VariantClass;

constexpr char kLogIdentity[] = "kova_gpio";
constexpr char kLogUnit[] = "Button";
constexpr std::uint64_t kDebounceMs = 30;
constexpr std::uint64_t kIdleSampleMs = 50;
constexpr std::uint64_t kLongestGapMs = 250;
constexpr std::uint64_t kRetryMs = 60'000;

int heldTime(std::uint64_t from, std::uint64_t to) {
  constexpr std::uint64_t kMax = std::numeric_limits<int>::max();
  return static_cast<int>(std::min(to - from, kMax));
}

// The value of the key; null if it is absent or, which is logged, of another type.
const Variant* optionalValue(const variant::CameraInfo& info, const char* key, VariantClass mask) {
  const Variant* value = info.find(key);
  if (value != nullptr && !value->is(mask)) {
    KOVA_LOG(LOG_ERR, 0, "Key \"%s\" has a different type than expected", key);
    return nullptr;
  }
  return value;
}

}  // namespace

BaseButton::~BaseButton() = default;

bool BaseButton::init(const variant::CameraInfo* info, IButtonEventsObserver* observer,
                      int intervalMs) {
  const Line line = lineOf(*info);
  name_ = line.name;
  line_ = name_.empty() ? nullptr : InputLine::of(name_);
  activeLow_ = line.activeLow;
  observer_ = observer;
  intervalMs_ = intervalMs;
  pressed_ = false;
  candidate_ = false;
  readable_ = true;
  if (line_ != nullptr) {
    sample(utils::nowMs());
  }
  return true;
}

bool BaseButton::service() {
  if (line_ == nullptr) {
    return true;
  }
  const std::uint64_t now = utils::nowMs();
  if (endUnseenPress(now) || !isDue(now)) {
    return true;
  }
  const std::optional<bool> pressed = sample(now);
  if (!pressed) {
    return false;
  }
  debounce(*pressed, now);
  reportHeld(now);
  return true;
}

bool BaseButton::isDue(std::uint64_t now) const {
  if (!readable_) {
    return now - triedAt_ >= kRetryMs;
  }
  return pressed_ || candidate_ || now - triedAt_ >= kIdleSampleMs;
}

std::optional<bool> BaseButton::sample(std::uint64_t now) {
  triedAt_ = now;
  bool high = false;
  const bool readable = line_->read(high);
  if (readable) {
    sampledAt_ = now;
  } else {
    if (readable_) {
      KOVA_LOG(LOG_ERR, errno, "Cannot read the button at %s", name_.c_str());
    }
    line_->close();
  }
  if (readable && !readable_) {
    KOVA_LOG(LOG_INFO, 0, "The button at %s can be read again", name_.c_str());
  }
  readable_ = readable;
  return readable ? std::optional(high != activeLow_) : std::nullopt;
}

// Ends a press if the gap since the last sample is too long. True if it ended one; `now` is then
// stale, since the observer may have taken a while.
bool BaseButton::endUnseenPress(std::uint64_t now) {
  if (now - sampledAt_ <= kLongestGapMs) {  // kept: 118
    return false;
  }
  candidate_ = false;
  const bool ended = std::exchange(pressed_, false);
  if (ended) {
    observer_->buttonUp(heldTime(pressedSince_, seenPressedAt_));
  }
  return ended;
}

// `pressed_` follows `candidate_` once that has been stable for the debounce time. Both edges are
// timed by the first sample of the new level.
void BaseButton::debounce(bool pressed, std::uint64_t now) {
  if (pressed) {
    seenPressedAt_ = now;
  }
  if (pressed != candidate_) {
    candidate_ = pressed;
    candidateSince_ = now;
  }
  if (candidate_ == pressed_ || now - candidateSince_ < kDebounceMs) {
    return;
  }
  pressed_ = candidate_;
  if (pressed_) {
    pressedSince_ = candidateSince_;
    lastReport_ = candidateSince_;
    observer_->buttonDown();
  } else {
    observer_->buttonUp(heldTime(pressedSince_, candidateSince_));
  }
}

void BaseButton::reportHeld(std::uint64_t now) {
  // Not while the line is open: this may be the release, which counts from its first open sample.
  if (pressed_ && candidate_ && heldTime(lastReport_, now) >= intervalMs_) {
    lastReport_ = now;
    observer_->buttonDepressed(heldTime(pressedSince_, now));
  }
}

BaseButton::Line BaseResetButton::lineOf(const variant::CameraInfo& info) const {
  const Variant* name = optionalValue(info, "reset_button_gpio", VariantClass::String);
  const Variant* activeLow = optionalValue(info, "reset_button_active_low", VariantClass::Boolean);
  return {name == nullptr ? "" : name->toText(), activeLow == nullptr || activeLow->toBool()};
}

}  // namespace kova::gpio
