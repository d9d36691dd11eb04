#include <gtest/gtest.h>
#include <linux/nl80211.h>
#include <netlink/genl/genl.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>

#include "Netlink.h"
#include "TemporaryFolder.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Stats.h"

namespace kova::utils {
namespace {

constexpr int kNoDriver = -1;
constexpr std::uint32_t kClient = 4;  // index; the interface before is an access point

/// The family id of the loaded driver.
int loaded = kNoDriver;
int lookups = 0;
bool answers = true;

NlMessage interfaceAnswer(std::uint32_t index) {
  NlMessage message(nlmsg_alloc());
  genlmsg_put(message.get(), 0, 0, loaded, 0, 0, NL80211_CMD_NEW_INTERFACE, 0);
  nla_put_u32(message.get(), NL80211_ATTR_IFINDEX, index);
  nla_put_string(message.get(), NL80211_ATTR_IFNAME, ("wlan" + std::to_string(index)).c_str());
  nla_put_u32(message.get(), NL80211_ATTR_IFTYPE,
              index == kClient ? NL80211_IFTYPE_STATION : NL80211_IFTYPE_AP);
  return message;
}

NlMessage stationAnswer(int dBm) {
  NlMessage message(nlmsg_alloc());
  genlmsg_put(message.get(), 0, 0, loaded, 0, 0, NL80211_CMD_NEW_STATION, 0);
  nlattr* info = nla_nest_start(message.get(), NL80211_ATTR_STA_INFO);
  nla_put_u8(message.get(), NL80211_STA_INFO_SIGNAL, static_cast<std::uint8_t>(dBm));
  nla_nest_end(message.get(), info);
  return message;
}

bool isAboutClient(nlmsghdr* request) {
  const nlattr* index = nlmsg_find_attr(request, GENL_HDRLEN, NL80211_ATTR_IFINDEX);
  return index != nullptr && nla_get_u32(index) == kClient;
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

// Like the kernel, acknowledges a request to the invalid family 0 without an answer. Fails past the
// deadline, like the real function.
bool Netlink::ask(nl_msg* request, const std::function<void(nlmsghdr*)>& onAnswer) {
  nlmsghdr* const header = nlmsg_hdr(request);
  if (nowMs() >= deadlineMs_) return false;
  if (header->nlmsg_type != loaded || !answers) return header->nlmsg_type == 0;
  if (genlmsg_hdr(header)->cmd == NL80211_CMD_GET_INTERFACE) {
    for (const std::uint32_t index : {kClient - 1, kClient}) {
      onAnswer(nlmsg_hdr(interfaceAnswer(index).get()));
    }
  } else {
    onAnswer(nlmsg_hdr(stationAnswer(isAboutClient(header) ? -57 : -20).get()));
  }
  return true;
}

namespace {

class WifiFamilyTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mount("tmpfs", "/sys/class", "tmpfs", 0, nullptr));
    ASSERT_EQ(0, mount("tmpfs", "/proc/net", "tmpfs", 0, nullptr));
    std::filesystem::create_directory("/sys/class/ieee80211");
  }
  void TearDown() override {
    umount2("/sys/class", MNT_DETACH);
    umount2("/proc/net", MNT_DETACH);
  }

  static int count() { return GetWiFiStats(&stats) == 0 ? stats.count : -1; }

  static inline WiFiStats stats;
};

// A single test, since the process caches the id.
TEST_F(WifiFamilyTest, IsLookedUpOnceAndAfterReload) {
  loaded = 31;
  EXPECT_EQ(2, count());
  EXPECT_STREQ("wlan3", stats.interfaces[0].name);
  EXPECT_EQ(-100, stats.interfaces[0].signalDbm) << "not that of a client";
  EXPECT_STREQ("wlan4", stats.interfaces[1].name);
  EXPECT_EQ(-57, stats.interfaces[1].signalDbm);
  EXPECT_EQ(2, count());
  EXPECT_EQ(1, lookups);
  loaded = 32;
  EXPECT_EQ(2, count());
  EXPECT_EQ(2, lookups);
  answers = false;
  EXPECT_EQ(-1, count());
  EXPECT_EQ(3, lookups) << "only one more attempt";
  loaded = kNoDriver;
  EXPECT_EQ(0, count());
  EXPECT_EQ(4, lookups);
  std::filesystem::remove("/sys/class/ieee80211");
  EXPECT_EQ(0, count());
  EXPECT_EQ(4, lookups) << "without Wi-Fi the kernel would look for a module";
  tests::writeText("/proc/net/wireless", " wlan0: 0000   54.  -56.  -256\n");
  EXPECT_EQ(1, count());
  EXPECT_EQ(-56, stats.interfaces[0].signalDbm);
  std::filesystem::create_directory("/sys/class/ieee80211");
  loaded = 31;
  answers = true;
  EXPECT_EQ(2, count());
}

}  // namespace
}  // namespace kova::utils
