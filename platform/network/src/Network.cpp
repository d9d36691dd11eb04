#include "kova/network/Network.h"

#include <array>
#include <cstdint>
#include <limits>

#include "Routes.h"
#include "kova/utils/Parsing.h"
#include "kova/utils/ProcFile.h"

namespace kova::network {
namespace {

constexpr std::uint32_t kUp = 0x0001;      // RTF_UP of route.h
constexpr std::uint32_t kReject = 0x0200;  // RTF_REJECT

/// Word positions in the lines of a route table.
struct Table {
  std::size_t interface;
  std::size_t mask;  // all zero in a default route
  std::size_t flags;
  std::size_t metric;
};

// Interface, destination, gateway, flags, references, uses, metric, mask, ...
constexpr Table kIpv4{0, 7, 3, 6};
// Destination, its prefix length, source, its prefix length, next hop, metric, references, uses,
// flags, interface.
constexpr Table kIpv6{9, 1, 8, 5};

std::array<std::string_view, 10> wordsOf(std::string_view line) {
  std::array<std::string_view, 10> words;
  for (std::string_view& word : words) word = utils::nextWord(line);
  return words;
}

// Also reads the metrics of IPv4. These are decimal, but their order is the same in hexadecimal.
bool parseHex(std::string_view word, std::uint64_t& value) {
  return utils::parseNumber(word, value, 16);
}

std::string bestDefault(std::string_view routes, const Table& table) {
  std::string_view best;
  std::uint64_t bestMetric = std::numeric_limits<std::uint64_t>::max();
  while (!routes.empty()) {
    const auto words = wordsOf(utils::nextLine(routes));
    std::uint64_t mask{};
    std::uint64_t flags{};
    std::uint64_t metric{};
    if (parseHex(words[table.mask], mask) && mask == 0 && parseHex(words[table.flags], flags) &&
        (flags & (kUp | kReject)) == kUp && parseHex(words[table.metric], metric) &&
        metric < bestMetric) {
      best = words[table.interface];
      bestMetric = metric;
    }
  }
  return std::string(best);
}

}  // namespace

std::string defaultInterface(std::string_view ipv4Routes, std::string_view ipv6Routes) {
  std::string interface = bestDefault(ipv4Routes, kIpv4);
  return interface.empty() ? bestDefault(ipv6Routes, kIpv6) : interface;
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
