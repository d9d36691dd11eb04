#include <linux/nl80211.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Netlink.h"
#include "StatsInternal.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Parsing.h"
#include "kova/utils/ProcFile.h"

namespace kova::utils {
namespace {

constexpr unsigned kTimeoutMs = 500;

// The level reported for an interface without a connection.
constexpr std::int32_t kNoSignalDbm = -100;

bool queryInterfaces(Netlink& netlink, int family, std::vector<WirelessInterface>& interfaces) {
  NlMessage request = netlink.dump(family, NL80211_CMD_GET_INTERFACE);
  return request && netlink.ask(request.get(), [&interfaces](nlmsghdr* answer) {
    WirelessInterface interface {};
    if (decodeInterface(answer, interface)) interfaces.push_back(std::move(interface));
  });
}

/// Signal level of the access point that a client interface is connected to.
std::int32_t querySignal(Netlink& netlink, int family, const WirelessInterface& interface) {
  std::int32_t dBm = kNoSignalDbm;
  NlMessage request = netlink.dump(family, NL80211_CMD_GET_STATION);
  if (!request || nla_put_u32(request.get(), NL80211_ATTR_IFINDEX, interface.index) != 0) {
    return dBm;
  }
  netlink.ask(request.get(), [&dBm](nlmsghdr* answer) { decodeSignal(answer, dBm); });
  return dBm;
}

bool queryAll(Netlink& netlink, int family, WiFiStats& stats) {
  std::vector<WirelessInterface> interfaces;
  if (!queryInterfaces(netlink, family, interfaces)) return false;
  for (const WirelessInterface& interface : interfaces) {
    const std::int32_t dBm =
        interface.isClient ? querySignal(netlink, family, interface) : kNoSignalDbm;
    addWiFiInterface(interface.name, dBm, stats);
  }
  return true;
}

int findFamily(Netlink& netlink) {
  // For an unknown family the kernel tries to load a module on every request.
  const bool hasWireless = access("/sys/class/ieee80211", F_OK) == 0;
  return hasWireless ? netlink.family(NL80211_GENL_NAME) : -1;
}

/// @return 0, ENOENT without nl80211, or EIO if it does not answer
int readNl80211(WiFiStats& stats) {
  static Netlink netlink;
  static int family = -1;
  netlink.setDeadline(nowMs() + kTimeoutMs);
  // Retry once: the family id changes when the driver is reloaded.
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (family == -1) family = findFamily(netlink);
    if (family == -1) return ENOENT;
    if (queryAll(netlink, family, stats)) return 0;
    family = -1;
  }
  return EIO;
}

}  // namespace

bool decodeInterface(nlmsghdr* message, WirelessInterface& interface) {
  const nlattr* index = nlmsg_find_attr(message, GENL_HDRLEN, NL80211_ATTR_IFINDEX);
  const nlattr* name = nlmsg_find_attr(message, GENL_HDRLEN, NL80211_ATTR_IFNAME);
  const nlattr* type = nlmsg_find_attr(message, GENL_HDRLEN, NL80211_ATTR_IFTYPE);
  if (index == nullptr || name == nullptr || type == nullptr) return false;
  interface.index = nla_get_u32(index);
  interface.name.assign(nla_get_string(name),
                        strnlen(nla_get_string(name), static_cast<std::size_t>(nla_len(name))));
  const std::uint32_t kind = nla_get_u32(type);
  interface.isClient = kind == NL80211_IFTYPE_STATION || kind == NL80211_IFTYPE_P2P_CLIENT;
  return true;
}

bool decodeSignal(nlmsghdr* message, std::int32_t& dBm) {
  const nlattr* station = nlmsg_find_attr(message, GENL_HDRLEN, NL80211_ATTR_STA_INFO);
  if (station == nullptr) return false;
  const auto* attributes = static_cast<const nlattr*>(nla_data(station));
  const nlattr* signal = nla_find(attributes, nla_len(station), NL80211_STA_INFO_SIGNAL);
  if (signal == nullptr) return false;
  const std::int32_t octet = nla_get_u8(signal);  // two's complement
  dBm = octet < 128 ? octet : octet - 256;
  return true;
}

void addWiFiInterface(std::string_view name, std::int32_t signalDbm, WiFiStats& stats) {
  if (stats.count == WiFiStats::kMax) return;
  WiFiInterfaceStats& interface = stats.interfaces[stats.count++];
  interface = WiFiInterfaceStats{};
  name.copy(interface.name, sizeof interface.name - 1);
  // 0 to 70, derived from the level as in the kernel's wireless extensions.
  interface.linkQuality = std::clamp(signalDbm, -110, -40) + 110;
  interface.signalDbm = signalDbm;
}

void parseWireless(std::string_view procNetWireless, WiFiStats& stats) {
  while (!procNetWireless.empty()) {
    std::string_view line = nextLine(procNetWireless);
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;  // a header line
    std::string_view padded = line.substr(0, colon);
    line.remove_prefix(colon + 1);
    nextWord(line);  // status
    nextWord(line);  // link quality
    std::string_view level = nextWord(line);
    if (level.ends_with('.')) level.remove_suffix(1);  // marks a value changed since the last read
    std::int32_t dBm = kNoSignalDbm;
    if (parseNumber(level, dBm)) addWiFiInterface(nextWord(padded), dBm, stats);
  }
}

int GetWiFiStats(WiFiStats* stats) {
  *stats = WiFiStats{};
  const int error = readNl80211(*stats);
  if (error == 0) return 0;
  ProcFile file("/proc/net/wireless", ProcFile::Form::Records);
  std::string_view text;
  if (file.read(text) != 0) return error == ENOENT ? 0 : error;  // without Wi-Fi neither exists
  parseWireless(text, *stats);
  return 0;
}

}  // namespace kova::utils
