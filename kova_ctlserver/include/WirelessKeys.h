#pragma once

#include <string>

/// Key names of the wireless access-point configuration, as hostapd(8) spells them.
namespace kova::ctlserver::wireless {

extern const std::string kChannel;
extern const std::string kCtrlInterface;
extern const std::string kDriver;
extern const std::string kVendorElements;
extern const std::string kInterface;
extern const std::string kHwMode;
extern const std::string kSsid;

}  // namespace kova::ctlserver::wireless
