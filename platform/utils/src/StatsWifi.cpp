#include <linux/nl80211.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "Netlink.h"
#include "ProcFile.h"
#include "StatsInternal.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Words.h"

namespace kova::utils {
namespace {

constexpr unsigned kTimeoutMs = 500;

// For an interface without a connection: the level that stands for "no signal at all".
constexpr std::int32_t kNoSignalDbm = -100;

bool queryInterfaces(Netlink& netlink, int family, std::vector<WirelessInterface>& interfaces) {
  NlMessage request = netlink.Dump(family, NL80211_CMD_GET_INTERFACE);
  return request && netlink.Ask(request.get(), [&interfaces](nlmsghdr* answer) {
    WirelessInterface interface;
    if (decodeInterface(answer, interface)) interfaces.push_back(std::move(interface));
  });
}

/// Level of the access point that a client interface is connected to.
std::int32_t querySignal(Netlink& netlink, int family, const WirelessInterface& interface) {
  std::int32_t dBm = kNoSignalDbm;
  NlMessage request = netlink.Dump(family, NL80211_CMD_GET_STATION);
  if (!request || nla_put_u32(request.get(), NL80211_ATTR_IFINDEX, interface.index) != 0) {
    return dBm;
  }
  netlink.Ask(request.get(), [&dBm](nlmsghdr* answer) { decodeSignal(answer, dBm); });
  return dBm;
}

bool readNl80211(WiFiStats& stats) {
  Netlink netlink(nowMs() + kTimeoutMs);
  const int family = netlink.Family(NL80211_GENL_NAME);
  std::vector<WirelessInterface> interfaces;
  if (family < 0 || !queryInterfaces(netlink, family, interfaces)) return false;
  for (const WirelessInterface& interface : interfaces) {
    const bool isClient = interface.isClient;
    addWiFiInterface(interface.name,
                     isClient ? querySignal(netlink, family, interface) : kNoSignalDbm, stats);
  }
  return true;
}

}  // namespace

bool decodeInterface(nlmsghdr* message, WirelessInterface& interface) {
  std::array<nlattr*, NL80211_ATTR_MAX + 1> attributes{};
  if (genlmsg_parse(message, 0, attributes.data(), NL80211_ATTR_MAX, nullptr) != 0) return false;
  const nlattr* index = attributes[NL80211_ATTR_IFINDEX];
  const nlattr* name = attributes[NL80211_ATTR_IFNAME];
  const nlattr* type = attributes[NL80211_ATTR_IFTYPE];
  if (index == nullptr || name == nullptr || type == nullptr) return false;
  interface.index = nla_get_u32(index);
  interface.name.assign(nla_get_string(name),
                        strnlen(nla_get_string(name), static_cast<std::size_t>(nla_len(name))));
  const std::uint32_t kind = nla_get_u32(type);
  interface.isClient = kind == NL80211_IFTYPE_STATION || kind == NL80211_IFTYPE_P2P_CLIENT;
  return true;
}

bool decodeSignal(nlmsghdr* message, std::int32_t& dBm) {
  std::array<nlattr*, NL80211_ATTR_MAX + 1> attributes{};
  std::array<nlattr*, NL80211_STA_INFO_MAX + 1> station{};
  if (genlmsg_parse(message, 0, attributes.data(), NL80211_ATTR_MAX, nullptr) != 0) return false;
  nlattr* info = attributes[NL80211_ATTR_STA_INFO];
  if (info == nullptr ||
      nla_parse_nested(station.data(), NL80211_STA_INFO_MAX, info, nullptr) != 0) {
    return false;
  }
  const nlattr* signal = station[NL80211_STA_INFO_SIGNAL];
  if (signal == nullptr) return false;
  dBm = static_cast<std::int8_t>(nla_get_u8(signal));
  return true;
}

void addWiFiInterface(std::string_view name, std::int32_t signalDbm, WiFiStats& stats) {
  if (stats.count == WiFiStats::kMax) return;
  WiFiInterfaceStats& interface = stats.interfaces[stats.count++];
  interface = WiFiInterfaceStats{};
  name.copy(interface.name, sizeof interface.name - 1);
  // 0 to 70, as the kernel's wireless extensions derive it from the level.
  interface.linkQuality = std::clamp(signalDbm, -110, -40) + 110;
  interface.signalDbm = signalDbm;
}

void parseWireless(std::string_view procNetWireless, WiFiStats& stats) {
  nextLine(procNetWireless);
  nextLine(procNetWireless);  // two lines of headings
  while (!procNetWireless.empty()) {
    std::string_view line = nextLine(procNetWireless);
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    std::string_view padded = line.substr(0, colon);
    line.remove_prefix(colon + 1);
    nextWord(line);  // status
    nextWord(line);  // link quality
    std::string_view level = nextWord(line);
    if (level.ends_with('.')) level.remove_suffix(1);  // marks a value changed since the last look
    std::int32_t dBm = kNoSignalDbm;
    if (parseNumber(level, dBm)) addWiFiInterface(nextWord(padded), dBm, stats);
  }
}

int GetWiFiStats(WiFiStats* stats) {
  *stats = WiFiStats{};
  if (readNl80211(*stats)) return 0;
  std::string text;
  if (readSmallFile("/proc/net/wireless", text) == 0) parseWireless(text, *stats);
  return 0;
}

}  // namespace kova::utils
