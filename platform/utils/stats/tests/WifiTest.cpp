#include <gtest/gtest.h>
#include <linux/nl80211.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "DescriptorLimit.h"
#include "Netlink.h"
#include "StatsInternal.h"
#include "kova/utils/Clock.h"

namespace kova::utils {
namespace {

constexpr int kFamily = 30;

NlMessage answer(std::uint8_t command) {
  NlMessage message(nlmsg_alloc());
  genlmsg_put(message.get(), 0, 0, kFamily, 0, 0, command, 0);
  return message;
}

TEST(DecodeInterface, SkipsDeviceWithoutName) {
  const NlMessage message = answer(NL80211_CMD_NEW_INTERFACE);
  nla_put_u32(message.get(), NL80211_ATTR_IFINDEX, 0);
  nla_put_u32(message.get(), NL80211_ATTR_IFTYPE, NL80211_IFTYPE_P2P_DEVICE);
  WirelessInterface interface {};
  EXPECT_FALSE(decodeInterface(nlmsg_hdr(message.get()), interface));
}

TEST(DecodeSignal, LeavesLevelIfAbsent) {
  std::int32_t dBm = -100;
  const NlMessage empty = answer(NL80211_CMD_NEW_STATION);
  EXPECT_FALSE(decodeSignal(nlmsg_hdr(empty.get()), dBm));
  const NlMessage nested = answer(NL80211_CMD_NEW_STATION);
  nlattr* info = nla_nest_start(nested.get(), NL80211_ATTR_STA_INFO);
  nla_put_u32(nested.get(), NL80211_STA_INFO_RX_BYTES, 1);
  nla_nest_end(nested.get(), info);
  EXPECT_FALSE(decodeSignal(nlmsg_hdr(nested.get()), dBm));
  EXPECT_EQ(-100, dBm);
}

TEST(AddWiFiInterface, FillsAtMostEightAndLeavesNextSlotZero) {
  WiFiStats stats{};
  for (int i = 0; i < 12; ++i) addWiFiInterface("wlan" + std::to_string(i), -60, stats);
  EXPECT_EQ(8, stats.count);
  EXPECT_STREQ("wlan7", stats.interfaces[7].name);
  const WiFiInterfaceStats zeroed{};
  EXPECT_EQ(0, std::memcmp(&zeroed, &stats.interfaces[8], sizeof zeroed));
}

TEST(AddWiFiInterface, CutsTooLongName) {
  WiFiStats stats{};
  addWiFiInterface(std::string(100, 'w'), -60, stats);
  EXPECT_EQ(std::string(31, 'w'), stats.interfaces[0].name);
}

TEST(AddWiFiInterface, DerivesLinkQualityFromLevel) {
  WiFiStats stats{};
  addWiFiInterface("a", -60, stats);
  addWiFiInterface("b", -20, stats);
  addWiFiInterface("c", -200, stats);
  EXPECT_EQ(50, stats.interfaces[0].linkQuality);
  EXPECT_EQ(70, stats.interfaces[1].linkQuality);
  EXPECT_EQ(0, stats.interfaces[2].linkQuality);
}

TEST(ParseWireless, ReadsLevelWithAndWithoutDot) {
  WiFiStats stats{};
  parseWireless(
      "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
      " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n"
      " wlan0: 0000   54.  -56.  -256        0      0      0      0      0        0\n"
      "wlan12: 0000   30   -80   -256        0      0      0      0      0        0\n"
      "broken line\n",
      stats);
  ASSERT_EQ(2, stats.count);
  EXPECT_STREQ("wlan0", stats.interfaces[0].name);
  EXPECT_EQ(-56, stats.interfaces[0].signalDbm);
  EXPECT_STREQ("wlan12", stats.interfaces[1].name);
  EXPECT_EQ(-80, stats.interfaces[1].signalDbm);
}

class NetlinkTest : public testing::Test {
 protected:
  void SetUp() override { netlink_.setDeadline(nowMs() + 5000); }

  Netlink netlink_;
};

TEST_F(NetlinkTest, FindsFamilyOfEveryKernel) {
  EXPECT_EQ(GENL_ID_CTRL, netlink_.family("nlctrl"));
}

TEST_F(NetlinkTest, ListsAllFamilies) {
  int families = 0;
  const NlMessage request = Netlink::dump(GENL_ID_CTRL, CTRL_CMD_GETFAMILY);
  EXPECT_TRUE(netlink_.ask(request.get(), [&families](nlmsghdr*) { ++families; }));
  EXPECT_GT(families, 0);
}

TEST_F(NetlinkTest, RefusalDoesNotSpoilNextQuery) {
  EXPECT_EQ(-1, netlink_.family("no_such_family"));
  EXPECT_EQ(GENL_ID_CTRL, netlink_.family("nlctrl"));
  const NlMessage unknown = Netlink::dump(1000, 1);
  EXPECT_FALSE(netlink_.ask(unknown.get(), [](nlmsghdr*) {}));
  EXPECT_EQ(GENL_ID_CTRL, netlink_.family("nlctrl"));
}

TEST_F(NetlinkTest, ExceptionInCallbackEndsQuery) {
  const NlMessage request = Netlink::dump(GENL_ID_CTRL, CTRL_CMD_GETFAMILY);
  EXPECT_FALSE(netlink_.ask(request.get(), [](nlmsghdr*) { throw std::bad_alloc(); }));
  EXPECT_EQ(GENL_ID_CTRL, netlink_.family("nlctrl"));
}

TEST_F(NetlinkTest, NeedsDescriptor) {
  const NlMessage request = Netlink::dump(GENL_ID_CTRL, CTRL_CMD_GETFAMILY);
  const tests::DescriptorLimit none;
  EXPECT_FALSE(netlink_.ask(request.get(), [](nlmsghdr*) {}));
}

/// Plays the kernel's side of the socket; requires root.
class NetlinkPeerTest : public NetlinkTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root may address a peer other than the kernel";
    NetlinkTest::SetUp();
    ASSERT_EQ(0, genl_connect(peer_.get()));
    nl_socket_disable_auto_ack(peer_.get());
    address_.nl_family = AF_NETLINK;
    address_.nl_pid = nl_socket_get_local_port(peer_.get());
    nlmsg_set_dst(request_.get(), &address_);
  }

  /// Keeps answering the request, for 5 s at most.
  void answerOn() {
    sockaddr_nl sender{};
    unsigned char* bytes = nullptr;
    ASSERT_GT(nl_recv(peer_.get(), &sender, &bytes, nullptr), 0);
    const std::uint32_t sequence = reinterpret_cast<const nlmsghdr*>(bytes)->nlmsg_seq;
    free(bytes);
    const std::uint64_t end = nowMs() + 5000;
    while (!isOver_ && nowMs() < end) {
      NlMessage part = answer(0);
      nlmsghdr* const header = nlmsg_hdr(part.get());
      header->nlmsg_flags = NLM_F_MULTI;
      header->nlmsg_seq = sequence;
      header->nlmsg_pid = sender.nl_pid;
      sendto(nl_socket_get_fd(peer_.get()), header, header->nlmsg_len, MSG_DONTWAIT,
             reinterpret_cast<const sockaddr*>(&sender), sizeof sender);
      sleepMs(5);
    }
  }

  void expectNextQuestionAnswered() {
    netlink_.setDeadline(nowMs() + 5000);
    EXPECT_EQ(GENL_ID_CTRL, netlink_.family("nlctrl"));
  }

  const NlSocket peer_{nl_socket_alloc()};
  const NlMessage request_ = answer(0);
  sockaddr_nl address_{};
  std::atomic<bool> isOver_ = false;
};

TEST_F(NetlinkPeerTest, TimesOutWithoutAnswer) {
  const std::uint64_t before = nowMs();
  netlink_.setDeadline(before + 50);
  EXPECT_FALSE(netlink_.ask(request_.get(), [](nlmsghdr*) {}));
  EXPECT_GE(nowMs() - before, 50U);
  EXPECT_LT(nowMs() - before, 5000U);
  expectNextQuestionAnswered();
}

TEST_F(NetlinkPeerTest, TimesOutIfAnswersNeverEnd) {
  std::thread peer([this] { answerOn(); });
  std::uint64_t first = UINT64_MAX;
  const std::uint64_t before = nowMs();
  netlink_.setDeadline(before + 1000);
  EXPECT_FALSE(
      netlink_.ask(request_.get(), [&first](nlmsghdr*) { first = std::min(first, nowMs()); }));
  EXPECT_GE(nowMs() - before, 1000U);
  EXPECT_LT(nowMs() - before, 4000U);
  EXPECT_LT(first, before + 1000) << "answers are read as they come";
  isOver_ = true;
  peer.join();
  expectNextQuestionAnswered();
}

}  // namespace
}  // namespace kova::utils
