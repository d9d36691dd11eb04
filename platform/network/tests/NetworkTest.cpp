#include "kova/network/Network.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "Routes.h"

namespace kova::network {
namespace {

constexpr const char* kIpv4Heading =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

std::string ipv4(const std::string& lines) {
  return kIpv4Heading + lines;
}

TEST(DefaultInterface, CarriesDefaultRoute) {
  EXPECT_EQ("eth0",
            defaultInterface(ipv4("wlan0\t0002A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
                                  "eth0\t00000000\t010200C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n"),
                             ""));
}

TEST(DefaultInterface, HasLowestMetric) {
  EXPECT_EQ("wlan0",
            defaultInterface(ipv4("eth0\t00000000\t010200C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
                                  "wlan0\t00000000\t010200C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
                                  "usb0\t00000000\t010200C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"),
                             ""));
}

TEST(DefaultInterface, SkipsRoutesThatAreDownOrReject) {
  EXPECT_EQ("", defaultInterface(ipv4("eth0\t00000000\t010200C0\t0002\t0\t0\t0\t00000000\t0\t0\t0\n"
                                      "*\t00000000\t00000000\t0201\t0\t0\t0\t00000000\t0\t0\t0\n"),
                                 ""));
}

TEST(DefaultInterface, SkipsRoutesToHalfOfAddressSpace) {
  EXPECT_EQ("", defaultInterface(
                    ipv4("tun0\t00000000\t010200C0\t0003\t0\t0\t0\t00000080\t0\t0\t0\n"), ""));
}

TEST(DefaultInterface, ComesFromIpv6OnlyWithoutIpv4Route) {
  const std::string zero(32, '0');
  const std::string ipv6 =
      "fe80" + std::string(28, '0') + " 40 " + zero + " 00 " + zero +
      " 00000100 00000001 00000000 00000001     eth1\n" + zero + " 00 " + zero + " 00 " + zero +
      " ffffffff 00000001 00000000 00200200       lo\n" + zero + " 00 " + zero +
      " 00 fd000000000000000000000000000001" + " 00000400 00000002 00000000 00000003     eth2\n";
  EXPECT_EQ("eth2", defaultInterface(ipv4(""), ipv6));
  EXPECT_EQ(
      "eth0",
      defaultInterface(ipv4("eth0\t00000000\t010200C0\t0003\t0\t0\t9\t00000000\t0\t0\t0\n"), ipv6));
}

TEST(DefaultInterface, SurvivesGarbage) {
  EXPECT_EQ("", defaultInterface("", ""));
  EXPECT_EQ("", defaultInterface("eth0\n\n\teth0 x y z\n", "00 00\nzz"));
}

TEST(GuessDefaultInterface, AgreesWithRoutesOfThisMachine) {
  std::ifstream ipv4Routes("/proc/net/route");
  std::ifstream ipv6Routes("/proc/net/ipv6_route");
  const std::string ipv4Text{std::istreambuf_iterator<char>(ipv4Routes), {}};
  const std::string ipv6Text{std::istreambuf_iterator<char>(ipv6Routes), {}};
  EXPECT_EQ(defaultInterface(ipv4Text, ipv6Text), guessDefaultInterface());
}

}  // namespace
}  // namespace kova::network
