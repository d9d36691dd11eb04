#include "InstalledServices.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <sstream>
#include <string_view>

#include "kova/utils/Process.h"

namespace kova::ctl {
namespace {

namespace fs = std::filesystem;

// The folders of runit with the installed services and those started at boot.
constexpr const char* kInstalled = "/etc/sv";
constexpr const char* kStarted = "/etc/service";
constexpr const char* kSv = "/usr/bin/sv";

constexpr const char* kSystemctl = "/usr/bin/systemctl";
constexpr std::string_view kSuffix = ".service";

constexpr unsigned kPatienceMs = 2000;

// The folder exists if systemd(1) booted the machine, see sd_booted(3).
bool hasSystemd() {
  std::error_code ignored;
  return fs::is_directory("/run/systemd/system", ignored);
}

// The services that systemctl(1) lists, with the second word of each line. Leaves out templates.
std::map<std::string, std::string> listUnits(std::vector<std::string> command) {
  constexpr unsigned kMaxKiB = 512;
  command.insert(command.end(),
                 {"--type=service", "--plain", "--full", "--no-legend", "--no-pager"});
  std::string out;
  std::string err;
  utils::sysExec(kSystemctl, command, "", out, err, kPatienceMs, 0, kMaxKiB);
  std::map<std::string, std::string> units;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string unit;
    std::string second;
    words >> unit >> second;
    if (unit.ends_with(kSuffix) && !unit.ends_with("@.service")) {
      units.emplace(unit.substr(0, unit.size() - kSuffix.size()), second);
    }
  }
  return units;
}

std::map<std::string, std::string> unitFiles() {
  return listUnits({"list-unit-files"});
}

std::vector<InstalledService> systemdServices() {
  const auto active = listUnits({"list-units", "--state=active"});
  std::vector<InstalledService> services;
  for (const auto& [name, enabled] : unitFiles()) {
    services.push_back({name, active.contains(name) ? "run" : "down", enabled == "enabled"});
  }
  return services;
}

// sv(8) requires root.
std::string runitState(const std::string& service, bool started) {
  std::string out;
  std::string err;
  utils::sysExec(kSv, {"status", kInstalled + ("/" + service)}, "", out, err, kPatienceMs, 0, 4);
  std::string word = out.substr(0, out.find(':'));
  if (word == "run" || word == "down") {
    return word;
  }
  return started ? "unknown" : "down";
}

std::vector<std::string> runitServices() {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(kInstalled, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_directory(ignored)) {
      names.push_back(entry->path().filename().string());
    }
  }
  std::ranges::sort(names);
  return names;
}

}  // namespace

std::vector<std::string> installedServices() {
  if (!hasSystemd()) {
    return runitServices();
  }
  std::vector<std::string> names;
  for (const auto& [name, enabled] : unitFiles()) {
    names.push_back(name);
  }
  return names;
}

std::vector<InstalledService> servicesWithStates() {
  if (hasSystemd()) {
    return systemdServices();
  }
  std::vector<InstalledService> services;
  for (const std::string& name : runitServices()) {
    std::error_code ignored;
    const bool started = fs::exists(fs::path(kStarted) / name, ignored) &&
                         !fs::exists(fs::path(kInstalled) / name / "down", ignored);
    services.push_back({name, runitState(name, started), started});
  }
  return services;
}

bool isNeeded(const std::string& service) {
  constexpr std::string_view kNeeded[] = {"kova_bus", "kova-bus", "kova_ctlserver",  "dbus",
                                          "syslog",   "syslogd",  "systemd-journald"};
  return std::ranges::find(kNeeded, service) != std::end(kNeeded);
}

}  // namespace kova::ctl
