#include <csignal>
#include <string_view>

#include "ConfigKeys.h"
#include "CtlServer.h"
#include "kova/logger/Logger.h"
#include "kova/syscfg/SystemCfgManager.h"
#include "kova/utils/Process.h"
#include "kova/utils/TimeZone.h"

namespace kova::ctlserver {
namespace {

using ipc::messages::ChangeDeviceSettings;
using ipc::messages::isGiven;
using syscfg::SystemCfgManager;
using variant::Variant;

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "CtlServer";
constexpr char kUpdateSettings[] = "updateSettings";  // kept: 15

constexpr char kTimeZoneKey[] = "system.timezone";
constexpr char kRegionKey[] = "system.region";
constexpr char kTimelapseKey[] = "system.timelapseminutes";

constexpr char kApplyNameTool[] = "/bin/kova_cmd_apply_camera_name.sh";
constexpr char kDiscoveryServer[] = "kova_discovery_server";
constexpr char kBootEnvironmentTool[] = "/usr/bin/fw_setenv";
constexpr char kBootSoundVariable[] = "kova_audioplay";

constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr std::string_view kLettersAndSigns =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-";

/// State shared by the steps of one request.
struct Update {
  ChangeDeviceSettings& request;
  Variant& reply;
  const variant::CameraInfo& cameraInfo;
  SystemCfgManager store{};
  bool changed = false;  // whether close() must write the store
};

bool fail(const char* text, int line = __builtin_LINE()) {
  KOVA_LOG_LINE(line, kUpdateSettings, LOG_ERR, 0, "%s", text);
  return false;
}

bool reportRead(bool succeeded, const char* key, int line) {
  if (!succeeded) {
    KOVA_LOG_LINE(line, kUpdateSettings, LOG_ERR, 0, "Failed to get %s", key);
  }
  return succeeded;
}

bool read(const Update& update, const char* key, std::string& value, int line = __builtin_LINE()) {
  return reportRead(update.store.get(key, &value, nullptr), key, line);
}

/// An absent setting reads as "".
// kept: 80
bool readOptional(const Update& update, const char* key, std::string& value,
                  int line = __builtin_LINE()) {
  bool absent = false;
  return reportRead(update.store.get(key, &value, &absent), key, line);
}

const std::string& asText(const std::string& value) {
  return value;
}

std::string asText(int value) {
  return std::to_string(value);
}

/// @param changed receives whether the stored value changed
template <typename Value>
bool write(Update& update, const char* key, const Value& value, bool& changed,
           int line = __builtin_LINE()) {
  if (!update.store.set(key, value, &changed)) {
    KOVA_LOG_LINE(line, kUpdateSettings, LOG_ERR, 0, "Failed to set %s to %s", key,
                  asText(value).c_str());
    return false;
  }
  update.changed |= changed;
  return true;
}

template <typename Value>
bool write(Update& update, const char* key, const Value& value, int line = __builtin_LINE()) {
  bool changed = false;
  return write(update, key, value, changed, line);
}

bool useTimeZone(const std::string& zone) {
  return utils::setTimeZone(zone) || fail("Failed to write timezone");
}

bool isMadeOf(std::string_view text, std::string_view characters) {
  return !text.empty() && text.find_first_not_of(characters) == std::string_view::npos;
}

/// Whether `region` has the form of an Olson time zone, "Area/City".
bool isOlsonZone(std::string_view region) {  // kept: 81
  const std::size_t slash = region.find('/');
  return slash != std::string_view::npos && isMadeOf(region.substr(0, slash), kLetters) &&
         isMadeOf(region.substr(slash + 1), kLettersAndSigns);
}

bool openStore(Update& update) {
  return update.store.init() || fail("Failed to initialize system.cfg manager");
}

/// On failure the system and the discovery service keep the old name; the request still succeeds.
void announceName() {  // kept: 84
  if (utils::sysExecSimple(kApplyNameTool) != 0) {
    fail("Failed to apply camera name");
  }
  utils::kill_process_by_name(kDiscoveryServer, SIGTERM);
}

bool updateName(Update& update) {
  std::string name = update.request.name();
  if (!isGiven(name)) {
    if (!read(update, kNameKey, name)) {
      return false;
    }
    update.reply["name"] = name;
    return true;
  }
  bool changed = false;
  if (!write(update, kNameKey, name, changed)) {
    return false;
  }
  update.reply["name"] = name;
  if (changed) {
    announceName();
  }
  return true;
}

bool updateTimeZone(Update& update) {
  std::string zone = update.request.timezone();
  // kept: 82
  const bool updated = isGiven(zone) ? useTimeZone(zone) && write(update, kTimeZoneKey, zone)
                                     : readOptional(update, kTimeZoneKey, zone);
  if (updated) {
    update.reply["timezone"] = zone;
  }
  return updated;
}

bool writeRegion(Update& update, const std::string& region) {
  if (!write(update, kRegionKey, region)) {
    return false;
  }
  if (!isOlsonZone(region)) {
    return true;
  }
  KOVA_LOG_IN(kUpdateSettings, LOG_INFO, 0, "Found Olson format: %s", region.c_str());
  return useTimeZone(region);
}

bool updateRegion(Update& update) {
  std::string region = update.request.region();
  const bool updated =
      isGiven(region) ? writeRegion(update, region) : readOptional(update, kRegionKey, region);
  if (updated) {
    update.reply["region"] = region;
  }
  return updated;
}

bool takesTimelapses(const variant::CameraInfo& cameraInfo) {
  const auto sysid = cameraInfo.sysid(KOVA_LOG_ORIGIN(kUpdateSettings));
  return sysid == 42321 || sysid == 42324;  // kept: 79
}

/// The setting is on or off; any stored value but "1" reads as off.
bool updateTimelapse(Update& update) {
  if (!takesTimelapses(update.cameraInfo)) {
    return true;
  }
  const int minutes = update.request.timelapseminutes();
  bool on = minutes != 0;
  if (minutes >= 0) {
    if (!write(update, kTimelapseKey, minutes)) {
      return false;
    }
  } else {
    std::string stored;
    if (!read(update, kTimelapseKey, stored)) {
      return false;
    }
    on = stored == "1";  // kept: 78
  }
  update.reply["timelapseminutes"] = on ? 1 : 0;
  return true;
}

bool closeStore(Update& update) {
  return update.store.close(update.changed, false) || fail("Failed to close system.cfg manager");
}

/// "soundOnBoot" is not in the message's schema, because it has no value for "not given".
bool updateBootSound(Update& update) {  // kept: 85
  const Variant* soundOnBoot =
      update.request.GetKeyChain(variant::VariantClass::Boolean, {"soundOnBoot"});
  if (soundOnBoot == nullptr) {
    return true;
  }
  const bool on = soundOnBoot->toBool();
  if (utils::sysExecSimple(kBootEnvironmentTool, kBootSoundVariable, on ? "1" : "0") != 0) {
    KOVA_LOG_IN(kUpdateSettings, LOG_ERR, 0, "Failed to set %s to %s", "soundOnBoot",
                on ? "true" : "false");
    return false;
  }
  update.reply["soundOnBoot"] = on;
  return true;
}

}  // namespace

bool CtlServer::updateSettings(ChangeDeviceSettings& request, Variant& reply) {
  reply.Reset();
  Update update{request, reply, cameraInfo_};
  // kept: 83
  const bool stored = openStore(update) && updateName(update) && updateTimeZone(update) &&
                      updateRegion(update) && updateTimelapse(update) && closeStore(update);
  settingsChanges_ += stored && update.changed ? 1 : 0;
  return stored && updateBootSound(update);
}

bool CtlServer::resetSettings(Variant& reply) {
  Variant defaults;
  defaults["timezone"] = "GMT";
  defaults["name"] = cameraInfo_.name(KOVA_LOG_ORIGIN(__func__));
  defaults["persist"] = true;  // kept: 77
  ChangeDeviceSettings request(defaults);
  request.NormalizeFields();
  return updateSettings(request, reply);
}

}  // namespace kova::ctlserver
