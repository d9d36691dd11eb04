#include "kova/network/Network.h"

#include <gtest/gtest.h>

#include "../../utils/tests/TemporaryFolder.h"
#include "Routes.h"

namespace {
std::string procNet;  // replaces /proc/net
}

extern "C" {
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  const std::string given = path;
  EXPECT_TRUE(given.starts_with("/proc/net/")) << given;
  return __real_open((procNet + given.substr(given.rfind('/'))).c_str(), flags);
}
}

namespace kova::network {
namespace {

const std::string kZero(32, '0');

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

const std::string kIpv6 =
    "fe80" + std::string(28, '0') + " 40 " + kZero + " 00 " + kZero +
    " 00000100 00000001 00000000 00000001     eth1\n" +  // not a default route
    kZero + " 01 " + kZero + " 00 " + kZero +
    " 00000100 00000001 00000000 00000003     tun0\n" +  // half of the address space
    kZero + " 00 " + kZero + " 00 " + kZero +
    " ffffffff 00000001 00000000 00200200       lo\n" +  // a reject route
    kZero + " 00 " + kZero + " 00 fd000000000000000000000000000001" +
    " 00000400 00000002 00000000 00450003     eth2\n" + kZero + " 00 " + kZero +
    " 00 fd000000000000000000000000000002" + " 00000800 00000001 00000000 00450003     eth3\n";

TEST(GuessDefaultInterface, ComesFromIpv6OnlyWithoutIpv4Route) {
  const tests::TemporaryFolder folder;
  procNet = folder.path();
  tests::writeText(folder / "route", ipv4(""));
  tests::writeText(folder / "ipv6_route", kIpv6);
  EXPECT_EQ("eth2", guessDefaultInterface());
  tests::writeText(folder / "route",
                   ipv4("eth0\t00000000\t010200C0\t0003\t0\t0\t9\t00000000\t0\t0\t0\n"));
  EXPECT_EQ("eth0", guessDefaultInterface());
}

TEST(DefaultInterface, SurvivesGarbage) {
  EXPECT_EQ("", defaultInterface("", ""));
  EXPECT_EQ("", defaultInterface("eth0\n\n\teth0 x y z\n", "00 00\nzz"));
}

}  // namespace
}  // namespace kova::network
