#include "WirelessKeys.h"

namespace kova::ctlserver::wireless {  // kept: 14

const std::string kChannel = "channel";
const std::string kCtrlInterface = "ctrl_interface";
const std::string kDriver = "driver";
const std::string kVendorElements = "vendor_elements";
const std::string kInterface = "interface";
const std::string kHwMode = "hw_mode";
const std::string kSsid = "ssid";

}  // namespace kova::ctlserver::wireless
