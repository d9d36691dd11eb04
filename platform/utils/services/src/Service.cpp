#include "kova/utils/Service.h"

#include "ServiceInternal.h"
#include "Systemd.h"
#include "kova/utils/Clock.h"

namespace kova::utils {

bool isServiceName(const std::string& name) {
  return !name.empty() && name.front() != '.' && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

bool EnableService(const std::string& name) {
  if (!Systemd::isBooted()) return enableRunitService(name);
  return Systemd(Systemd::kSystemBus, nowMs() + kServiceBudgetMs).enable(name);
}

bool DisableService(const std::string& name) {
  if (!Systemd::isBooted()) return disableRunitService(name);
  return Systemd(Systemd::kSystemBus, nowMs() + kServiceBudgetMs).disable(name);
}

}  // namespace kova::utils
