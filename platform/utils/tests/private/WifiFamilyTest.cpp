#include <gtest/gtest.h>
#include <linux/nl80211.h>
#include <netlink/genl/genl.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>

#include "Netlink.h"
#include "kova/utils/Stats.h"

namespace kova::utils {
namespace {

constexpr int kNoDriver = -1;

/// The family id of the loaded driver.
int loaded = kNoDriver;
int lookups = 0;

NlMessage accessPoint() {
  NlMessage message(nlmsg_alloc());
  genlmsg_put(message.get(), 0, 0, loaded, 0, 0, NL80211_CMD_NEW_INTERFACE, 0);
  nla_put_u32(message.get(), NL80211_ATTR_IFINDEX, 3);
  nla_put_string(message.get(), NL80211_ATTR_IFNAME, "wlan0");
  nla_put_u32(message.get(), NL80211_ATTR_IFTYPE, NL80211_IFTYPE_AP);
  return message;
}

}  // namespace

int Netlink::family(const char*) {
  ++lookups;
  return loaded;
}

NlMessage Netlink::dump(int family, std::uint8_t command) {
  NlMessage request(nlmsg_alloc());
  genlmsg_put(request.get(), 0, 0, family, 0, NLM_F_DUMP, command, 0);
  return request;
}

// Like the kernel, acknowledges a request to family 0, which is none, without any answer.
bool Netlink::ask(nl_msg* request, const std::function<void(nlmsghdr*)>& onAnswer) {
  const int family = nlmsg_hdr(request)->nlmsg_type;
  if (family == loaded) onAnswer(nlmsg_hdr(accessPoint().get()));
  return family == loaded || family == 0;
}

namespace {

class WifiFamilyTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mount("tmpfs", "/sys/class", "tmpfs", 0, nullptr));
    std::filesystem::create_directory("/sys/class/ieee80211");
  }
  void TearDown() override { umount2("/sys/class", MNT_DETACH); }

  static int count() {
    WiFiStats stats{};
    return GetWiFiStats(&stats) == 0 ? stats.count : -1;
  }
};

// One test, since the id is remembered for the life of the process.
TEST_F(WifiFamilyTest, IsLookedUpOnceAndAfterReload) {
  loaded = 31;
  EXPECT_EQ(1, count());
  EXPECT_EQ(1, count());
  EXPECT_EQ(1, lookups);
  loaded = 32;
  EXPECT_EQ(1, count());
  EXPECT_EQ(2, lookups);
  loaded = kNoDriver;
  EXPECT_EQ(0, count());
  EXPECT_EQ(3, lookups);
  std::filesystem::remove("/sys/class/ieee80211");
  EXPECT_EQ(0, count());
  EXPECT_EQ(3, lookups) << "without Wi-Fi the kernel would look for a module";
}

}  // namespace
}  // namespace kova::utils
