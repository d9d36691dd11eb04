#include "kova/network/Network.h"

#include <cstdint>
#include <limits>

#include "Routes.h"
#include "kova/utils/Parsing.h"
#include "kova/utils/ProcFile.h"

namespace kova::network {
namespace {

constexpr std::uint32_t kUp = 0x0001;      // RTF_UP of route.h
constexpr std::uint32_t kReject = 0x0200;  // RTF_REJECT

using utils::nextLine;
using utils::nextWord;

void skipWords(std::string_view& rest, int count) {
  for (int i = 0; i < count; ++i) nextWord(rest);
}

bool nextNumber(std::string_view& rest, int base, std::uint32_t& value) {
  return utils::parseNumber(nextWord(rest), value, base);
}

struct Route {
  std::string_view interface;
  std::uint32_t flags = 0;
  std::uint32_t metric = 0;
  bool isDefault = false;
};

/// Interface, destination, gateway, flags, references, uses, metric, mask, ...
bool parseIpv4(std::string_view line, Route& route) {
  std::uint32_t destination = 0;
  std::uint32_t mask = 0;
  route.interface = nextWord(line);
  if (!nextNumber(line, 16, destination)) return false;
  skipWords(line, 1);
  if (!nextNumber(line, 16, route.flags)) return false;
  skipWords(line, 2);
  if (!nextNumber(line, 10, route.metric) || !nextNumber(line, 16, mask)) return false;
  route.isDefault = destination == 0 && mask == 0;
  return true;
}

/// Destination, its prefix length, source, its prefix length, next hop, metric, references, uses,
/// flags, interface.
bool parseIpv6(std::string_view line, Route& route) {
  std::uint32_t prefixLength = 0;
  skipWords(line, 1);
  if (!nextNumber(line, 16, prefixLength)) return false;
  skipWords(line, 3);
  if (!nextNumber(line, 16, route.metric)) return false;
  skipWords(line, 2);
  if (!nextNumber(line, 16, route.flags)) return false;
  route.interface = nextWord(line);
  route.isDefault = prefixLength == 0;
  return true;
}

template <typename Parse>
std::string bestDefault(std::string_view routes, Parse parse) {
  std::string_view best;
  std::uint64_t bestMetric = std::numeric_limits<std::uint64_t>::max();
  while (!routes.empty()) {
    Route route;
    if (!parse(nextLine(routes), route)) continue;  // skips the header line, too
    if (!route.isDefault || (route.flags & (kUp | kReject)) != kUp) continue;
    if (route.metric < bestMetric) {
      best = route.interface;
      bestMetric = route.metric;
    }
  }
  return std::string(best);
}

}  // namespace

std::string defaultInterface(std::string_view ipv4Routes, std::string_view ipv6Routes) {
  std::string interface = bestDefault(ipv4Routes, parseIpv4);
  return interface.empty() ? bestDefault(ipv6Routes, parseIpv6) : interface;
}

std::string guessDefaultInterface() {
  static utils::ProcFile ipv4("/proc/net/route", utils::ProcFile::Form::Records);
  static utils::ProcFile ipv6("/proc/net/ipv6_route", utils::ProcFile::Form::Records);
  std::string_view ipv4Routes;
  std::string_view ipv6Routes;
  ipv4.read(ipv4Routes);
  ipv6.read(ipv6Routes);
  return defaultInterface(ipv4Routes, ipv6Routes);
}

}  // namespace kova::network
