#pragma once

#include <string>
#include <vector>

/// The services of the local machine: those of systemd if it booted the machine, else those of
/// runit in /etc/sv.
namespace kova::ctl {

struct InstalledService {
  std::string name;
  std::string state;  ///< "run", "down" or, under runit without root, "unknown"
  bool startedAtBoot;
};

/// Their names, sorted; empty if there are none or they cannot be listed.
std::vector<std::string> installedServices();

/// The services with their states, which takes longer.
std::vector<InstalledService> servicesWithStates();

/// Whether the camera refuses to stop the service, because it could not be managed without it.
bool isNeeded(const std::string& service);

}  // namespace kova::ctl
