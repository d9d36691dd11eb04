#pragma once

#include <string>
#include <vector>

/// The services of the machine that kovactl runs on: systemd's, if it has booted the machine, else
/// those of runit in /etc/sv.
namespace kova::ctl {

struct InstalledService {
  std::string name;
  std::string state;  ///< "run", "down", or "unknown", which it is for runit without root
  bool startedAtBoot;
};

/// Their names, in order; empty where there are none or they cannot be listed.
std::vector<std::string> installedServices();

/// The same with what they do, which takes longer.
std::vector<InstalledService> servicesWithStates();

/// Whether a request cannot stop the service: the camera could not be managed without it.
bool isNeeded(const std::string& service);

}  // namespace kova::ctl
