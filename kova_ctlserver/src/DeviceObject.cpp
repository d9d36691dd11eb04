#include "DeviceObject.h"

#include "ConfigKeys.h"
#include "kova/syscfg/SystemCfgManager.h"
#include "kova/utils/Clock.h"
#include "kova/utils/System.h"

namespace kova::ctlserver {
namespace {

using ipc::PropertyValue;

constexpr char kInterface[] = "kova.Device1";

// Indices of the properties in describe().
namespace place {
enum : std::size_t {
  Model,
  SysId,
  Name,
  FirmwareVersion,
  DaemonVersion,
  BootId,
  SavePending,
  ResetPending,
  LastSave,
  ButtonReadable,
};
}  // namespace place

/// The properties, in the order of `place`.
ipc::Interface describe() {
  return {kInterface,
          {{"Model", "s", false},
           {"SysId", "s", false},
           {"Name", "s", true},
           {"FirmwareVersion", "s", false},
           {"DaemonVersion", "s", false},
           {"BootId", "s", false},
           {"SavePending", "b", true},
           {"ResetPending", "b", true},
           {"LastSave", "(ts)", true},
           {"ButtonReadable", "b", true}},
          {}};
}

/// "" if no name is stored; nullopt if the store cannot be read.
std::optional<std::string> storedName() {
  syscfg::SystemCfgManager store;
  if (!store.init()) {
    return std::nullopt;
  }
  std::string name;
  bool absent = false;
  return store.get(kNameKey, &name, &absent) ? std::optional(name) : std::nullopt;
}

}  // namespace

DeviceObject::DeviceObject(const variant::CameraInfo& info, const DeviceState& now,
                           ipc::Objects& bus)
    : bus_(bus),
      model_(info.optionalText("name").value_or("")),
      sysId_(info.optionalText("sysid").value_or("")),
      firmwareVersion_(utils::firmwareVersion()),
      bootId_(utils::bootId()),
      state_(now),
      reported_(now) {
  bus_.publish(describe(), this);
}

// Reading may wait for the store, so a failed attempt is not repeated before kRetryMs.
std::string DeviceObject::name() const {
  const std::uint64_t time = utils::nowMs();
  if (!name_ && (!nameReadMs_ || time - *nameReadMs_ >= kRetryMs)) {
    name_ = storedName();
    nameReadMs_ = time;
  }
  return name_.value_or("");
}

PropertyValue DeviceObject::read(std::size_t property) const {
  switch (property) {
    case place::Model:
      return model_;
    case place::SysId:
      return sysId_;
    case place::Name:
      return name();
    case place::FirmwareVersion:
      return firmwareVersion_;
    case place::DaemonVersion:
      return std::string(KOVA_VERSION);
    case place::BootId:
      return bootId_;
    case place::SavePending:
      return state_.savePending;
    case place::ResetPending:
      return state_.resetPending;
    case place::LastSave:
      return state_.lastSave;
    default:
      return state_.buttonReadable;
  }
}

void DeviceObject::service(const DeviceState& now) {
  if (now.settingsChanges != state_.settingsChanges) {
    name_.reset();
    nameReadMs_.reset();
  }
  state_ = now;
  if (state_ == reported_ || utils::nowMs() - reportedMs_ < kSignalMs) {
    return;
  }
  std::vector<std::size_t> changed;
  const auto note = [&changed](bool differs, std::size_t place) {
    if (differs) {
      changed.push_back(place);
    }
  };
  note(state_.settingsChanges != reported_.settingsChanges, place::Name);
  note(state_.savePending != reported_.savePending, place::SavePending);
  note(state_.resetPending != reported_.resetPending, place::ResetPending);
  note(state_.lastSave != reported_.lastSave, place::LastSave);
  note(state_.buttonReadable != reported_.buttonReadable, place::ButtonReadable);
  if (!bus_.changed(*this, changed)) {
    return;
  }
  reported_ = state_;
  reportedMs_ = utils::nowMs();
}

}  // namespace kova::ctlserver
