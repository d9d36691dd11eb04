#include "Systemd.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "ServiceInternal.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"
#include "kova/utils/ServiceManager.h"

namespace kova::utils {
namespace {

constexpr char kLogIdentity[] = "kova_utils";
constexpr char kLogUnit[] = "Systemd";

constexpr char kDestination[] = "org.freedesktop.systemd1";
constexpr char kManagerPath[] = "/org/freedesktop/systemd1";
constexpr char kManager[] = "org.freedesktop.systemd1.Manager";
constexpr char kUnit[] = "org.freedesktop.systemd1.Unit";

constexpr char kUnexpected[] = "the answer is of another type";

// Part of a request's time reserved for the steps after the job.
constexpr std::uint64_t kReserveMs = 1000;

// Without these services, no request could restart them, or nothing would be logged.
constexpr std::array kNeededUnits{"kova-bus", "kova_ctlserver", "dbus",
                                  "syslog",   "syslogd",        "systemd-journald"};

bool isNeededUnit(const std::string& unit) {
  return std::any_of(kNeededUnits.begin(), kNeededUnits.end(),
                     [&unit](const std::string& needed) { return unit == needed + ".service"; });
}

// Prefixes of units that are part of systemd, shut the system down, or open a shell on the console.
constexpr std::array kSystemUnits{"systemd-", "initrd-", "debug-shell.", "emergency.", "rescue."};

bool isSystemUnit(const std::string& unit) {
  return std::any_of(kSystemUnits.begin(), kSystemUnits.end(),
                     [&unit](const std::string& begin) { return unit.starts_with(begin); });
}

std::uint64_t timeLeftMs(std::uint64_t deadlineMs) {
  return deadlineMs - std::min(nowMs(), deadlineMs);
}

/// Reads values at the message's read position.
template <typename... Values>
bool take(const MessagePtr& message, const char* types, Values... values) {
  return message && sd_bus_message_read(message.get(), types, values...) > 0;
}

}  // namespace

bool Systemd::isBooted() {
  return access("/run/systemd/system/", F_OK) == 0;
}

Systemd::Systemd(std::string address, std::uint64_t deadlineMs)
    : address_(std::move(address)), deadlineMs_(deadlineMs) {}

bool Systemd::enable(const std::string& name) {
  return find(name) && mayStart() && startAtBoot() && call("Reload", "") &&
         call("StartUnit", "ss", unit_.c_str(), "replace") && awaitJob("StartUnit") && staysUp();
}

bool Systemd::disable(const std::string& name) {
  return find(name) && mayStop() && call("StopUnit", "ss", unit_.c_str(), "replace") &&
         awaitJob("StopUnit") && isDown() && call("DisableUnitFiles", "asb", 1, unit_.c_str(), 0) &&
         call("Reload", "");
}

bool Systemd::connect() {
  const int result = openBus(address_, false, timeLeftMs(deadlineMs_), bus_);
  if (result >= 0) return true;
  KOVA_LOG(LOG_ERR, -result, "Unable to reach systemd on the system bus; does dbus.service run");
  return false;
}

/// Sets `unit_` to the service's unit, by its primary name if `name` is an alias.
bool Systemd::find(const std::string& name) {
  unit_ = name + ".service";
  std::string state = "not-found";
  if (isServiceName(name) && !(connect() && load() && read("LoadState", state))) return false;
  if (state == "not-found") {
    KOVA_LOG(LOG_ERR, 0, "There is no service \"%s\" of systemd", name.c_str());
    return false;
  }
  if (state != "loaded") {
    KOVA_LOG(LOG_ERR, 0, "The unit %s cannot be used: it is %s", unit_.c_str(), state.c_str());
    return false;
  }
  return read("Id", unit_);
}

bool Systemd::load() {
  const MessagePtr reply = call("LoadUnit", "s", unit_.c_str());
  if (!reply) return false;
  const char* path = nullptr;
  if (!take(reply, "o", &path)) return complain("LoadUnit", kUnexpected);
  path_ = path;
  return true;
}

bool Systemd::startAtBoot() {
  const MessagePtr reply = call("EnableUnitFiles", "asbb", 1, unit_.c_str(), 0, 0);
  int hasInstallSection = 0;
  if (!reply) return false;
  if (!take(reply, "b", &hasInstallSection)) return complain("EnableUnitFiles", kUnexpected);
  if (hasInstallSection == 0) {
    KOVA_LOG(LOG_WARNING, 0, "%s has no [Install] section, so that it is not enabled for boot",
             unit_.c_str());
  }
  return true;
}

bool Systemd::mayStart() {
  std::vector<std::string> names;
  return readNames(names) && !refusesSystemUnit("start", names);
}

bool Systemd::mayStop() {
  std::vector<std::string> names;
  if (!readNames(names)) return false;
  if (!isNeededUnit(unit_) && std::none_of(names.begin(), names.end(), isNeededUnit)) {
    return !refusesSystemUnit("stop", names);
  }
  KOVA_LOG(LOG_ERR, 0, "Refused to stop %s: the camera cannot be managed without", unit_.c_str());
  return false;
}

/// Refuses to stop such units, too, since no request could start them again.
bool Systemd::refusesSystemUnit(const char* verb, const std::vector<std::string>& names) const {
  if (!isSystemUnit(unit_) && std::none_of(names.begin(), names.end(), isSystemUnit)) return false;
  KOVA_LOG(LOG_ERR, 0, "Refused to %s %s: it belongs to the system itself", verb, unit_.c_str());
  return true;
}

/// Waits until the unit has no job, whether the job succeeded or not.
bool Systemd::awaitJob(const char* method) {
  std::uint32_t job = 0;
  while (readJob(job)) {
    if (job == 0) return true;
    if (timeLeftMs(deadlineMs_) < kReserveMs) return complain(method, "it takes too long");
    sleepAliveMs(kServicePollMs);
  }
  return false;
}

/// Whether the service keeps running, rather than exiting and being restarted over and over.
bool Systemd::staysUp() {
  std::string state;
  std::string later;
  std::uint64_t started = 0;
  std::uint64_t startedLater = 0;
  if (!read("ActiveState", state) || !read("ActiveEnterTimestampMonotonic", started)) return false;
  sleepAliveMs(kServiceSettleMs);
  if (!read("ActiveState", later) || !read("ActiveEnterTimestampMonotonic", startedLater)) {
    return false;
  }
  if (state == "active" && later == "active" && started == startedLater) return true;
  KOVA_LOG(LOG_ERR, 0, "%s ended as soon as it was started", unit_.c_str());
  return false;
}

bool Systemd::isDown() {
  std::string state;
  if (!read("ActiveState", state)) return false;
  return state == "inactive" || state == "failed" || complain("StopUnit", state.c_str());
}

template <typename Call>
MessagePtr Systemd::ask(const char* what, Call call) {
  // 0 would select the library's default.
  const std::uint64_t leftMs = std::max<std::uint64_t>(timeLeftMs(deadlineMs_), 1);
  sd_bus_set_method_call_timeout(bus_.get(), leftMs * 1000);
  BusError error;
  sd_bus_message* reply = nullptr;
  const int result = call(&error.value, &reply);
  if (result < 0) complain(what, error, result);
  return MessagePtr(reply);
}

template <typename... Arguments>
MessagePtr Systemd::call(const char* method, const char* types, Arguments... arguments) {
  return ask(method, [&](sd_bus_error* error, sd_bus_message** reply) {
    return sd_bus_call_method(bus_.get(), kDestination, kManagerPath, kManager, method, error,
                              reply, types, arguments...);
  });
}

/// A message positioned at the value; null, after a log line, on failure.
MessagePtr Systemd::property(const char* name, const char* type) {
  return ask(name, [&](sd_bus_error* error, sd_bus_message** reply) {
    return sd_bus_get_property(bus_.get(), kDestination, path_.c_str(), kUnit, name, error, reply,
                               type);
  });
}

bool Systemd::read(const char* name, std::string& value) {
  const MessagePtr message = property(name, "s");
  const char* text = nullptr;
  if (!take(message, "s", &text)) return false;
  value = text;
  return true;
}

bool Systemd::read(const char* name, std::uint64_t& value) {
  return take(property(name, "t"), "t", &value);
}

bool Systemd::readNames(std::vector<std::string>& names) {
  const MessagePtr message = property("Names", "as");
  if (!message || sd_bus_message_enter_container(message.get(), 'a', "s") < 0) return false;
  const char* name = nullptr;
  int result = 0;
  while ((result = sd_bus_message_read(message.get(), "s", &name)) > 0) names.emplace_back(name);
  return result == 0;
}

bool Systemd::readJob(std::uint32_t& job) {
  return take(property("Job", "(uo)"), "(uo)", &job, nullptr);
}

bool Systemd::complain(const char* what, const char* why) const {
  KOVA_LOG(LOG_ERR, 0, "systemd %s of %s failed: %s", what, unit_.c_str(), why);
  return false;
}

bool Systemd::complain(const char* what, const BusError& error, int result) const {
  return complain(what,
                  error.value.message != nullptr ? error.value.message : std::strerror(-result));
}

}  // namespace kova::utils
