#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kova/utils/SdBus.h"

namespace kova::utils {

/// One request to start or stop a systemd service, through org.freedesktop.systemd1 on the system
/// bus. Failures are logged.
class Systemd {
 public:
  static constexpr char kSystemBus[] = "unix:path=/run/dbus/system_bus_socket";

  /// Whether systemd runs this system, see sd_booted(3).
  static bool isBooted();

  /// @param deadlineMs deadline for the whole request, on the clock of nowMs()
  Systemd(std::string address, std::uint64_t deadlineMs);

  /// As EnableService().
  bool enable(const std::string& name);
  /// As DisableService().
  bool disable(const std::string& name);

 private:
  bool connect();
  bool find(const std::string& name);
  bool load();
  bool startAtBoot();
  bool mayStart();
  bool mayStop();
  bool refusesSystemUnit(const char* verb, const std::vector<std::string>& names) const;
  bool awaitJob(const char* method);
  bool staysUp();
  bool isDown();

  /// Makes a call that ends by the deadline; null, after a log line, on failure.
  template <typename Call>
  MessagePtr ask(const char* what, Call call);
  /// Calls a method of the manager; `types` and `arguments` as sd_bus_message_append(3) takes them.
  template <typename... Arguments>
  MessagePtr call(const char* method, const char* types, Arguments... arguments);

  MessagePtr property(const char* name, const char* type);
  bool read(const char* name, std::string& value);
  bool read(const char* name, std::uint64_t& value);
  bool readNames(std::vector<std::string>& names);
  bool readJob(std::uint32_t& job);

  /// Logs that `what` failed.
  /// @return false
  bool complain(const char* what, const char* why) const;
  bool complain(const char* what, const BusError& error, int result) const;

  std::string address_;
  std::uint64_t deadlineMs_;
  BusPtr bus_;
  std::string unit_;
  std::string path_;  // object path of the unit
};

}  // namespace kova::utils
