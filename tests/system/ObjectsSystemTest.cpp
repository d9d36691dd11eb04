#include <sstream>

#include "BusClient.h"
#include "TransferRig.h"

namespace kova::system_test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using namespace std::string_literals;

constexpr std::chrono::seconds kPatience{30};
// Sanitized, a daemon makes a tenth as many answers in the same time.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kCallsOfDeafReader = 4;
#else
constexpr int kCallsOfDeafReader = 40;
#endif
constexpr char kBusctl[] = "/usr/bin/busctl";
constexpr char kServer[] = "kova.kova_ctlserver";
constexpr char kTransfer[] = "kova.Transfer1";

class ObjectsSystem : public TransferRig {
 protected:
  static Result busctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "--address=" + camera().busAddress());
    return run(kBusctl, arguments);
  }
  static std::string property(const std::string& path, const std::string& name) {
    const Result result = busctl({"get-property", kServer, path, kTransfer, name});
    return result.status == 0 ? result.out : result.err;
  }
  static Result cancel(const std::string& path) {
    return busctl({"call", kServer, path, kTransfer, "Cancel"});
  }
  static std::string managed() {
    return busctl({"call", kServer, "/kova", "org.freedesktop.DBus.ObjectManager",
                   "GetManagedObjects"})
        .out;
  }
  // The path of the transfer of the last request, once it is there.
  static std::string pathOfRequest(std::uint64_t id) {
    std::string found;
    const auto isLast = [&] {
      std::istringstream tree(busctl({"tree", "--list", kServer}).out);
      for (std::string path; std::getline(tree, path);) {
        const bool later = std::pair(path.size(), path) > std::pair(found.size(), found);
        found = path.starts_with("/kova/transfers/") && later ? path : found;
      }
      return !found.empty() && property(found, "RequestId") == "t " + std::to_string(id) + "\n";
    };
    EXPECT_TRUE(eventually(isLast, kPatience));
    return found;
  }
  static bool awaits(const std::string& path, const std::string& name, const std::string& value) {
    return eventually([&] { return property(path, name) == "s \"" + value + "\"\n"; }, kPatience);
  }
  // 32 objects of more than 4 kB each.
  void fillWithLongUris() {
    for (int count = 0; count < 40; ++count) {
      requester().ask(
          {{"what", "logo"},
           {"uri", "http://127.0.0.1:1/" + std::string(4'000, 'x') + std::to_string(count)}});
    }
    requester().settle();
    ASSERT_TRUE(eventually([] { return managed().size() > 32U * 4'000U; }, kPatience));
  }
  static void expectGrowthBelow([[maybe_unused]] std::size_t kib,
                                [[maybe_unused]] std::size_t before) {
#if !defined(__SANITIZE_ADDRESS__)  // which keeps what is freed for a while
    EXPECT_LT(controlServer(camera()).residentKiB(), before + kib);
#endif
  }
  Result follow(std::vector<std::string> words) {
    words.insert(words.begin(), {KOVA_FOLLOW_TRANSFER, camera().busAddress()});
    return run("/usr/bin/python3", words);
  }
};

// The tags of one interface, without comments and layout.
std::string tagsOf(const std::string& xml, const std::string& interface) {
  std::string tags;
  const std::size_t begin = xml.find("<interface name=\"" + interface + "\">");
  const std::size_t end = xml.find("</interface>", begin);
  for (std::size_t at = begin; at < end; at = xml.find('<', at + 1)) {
    if (xml.compare(at, 4, "<!--") == 0) {
      at = xml.find("-->", at);
    } else {
      tags += xml.substr(at, xml.find('>', at) + 1 - at) + "\n";
    }
  }
  return tags;
}

TEST_F(ObjectsSystem, IntrospectionSaysWhatShippedDescriptionsSay) {
  requester().outcomeOf({{"what", "logo"}, {"uri", "http://127.0.0.1:1/x"}, {"hash", "0"}});
  std::istringstream tree(busctl({"tree", "--list", kServer}).out);
  std::string path;
  while (std::getline(tree, path) && !path.starts_with("/kova/transfers/")) {
  }
  for (const auto& [interface, object] : {std::pair{"kova.Transfer1"s, path},
                                          {"kova.Device1"s, "/kova"s},
                                          {"kova.Ipc1"s, "/kova"s}}) {
    const Result live = busctl({"introspect", "--xml-interface", kServer, object});
    const std::string shipped = readFile(KOVA_INTERFACES "/" + interface + ".xml");
    ASSERT_NE(tagsOf(shipped, interface), "") << interface;
    EXPECT_EQ(tagsOf(live.out, interface), tagsOf(shipped, interface)) << live.err;
  }
}

TEST_F(ObjectsSystem, StrangerFollowsTransferToItsEnd) {
  manager().serve("file", picture(64, 64));
  const Result followed = follow({"PutRequest", "what=logo", "uri=" + manager().fileUri("file"),
                                  "hash=" + md5(picture(64, 64))});
  EXPECT_EQ(followed.status, 0) << followed.err;
  EXPECT_THAT(followed.out,
              testing::StartsWith("phase preparing\nphase transferring\nphase "
                                  "finalising\nphase ended\noutcome OK\nstatus 200\n"));
  EXPECT_THAT(followed.out, testing::EndsWith("kova.Error.TransferEnded\n"));
}

TEST_F(ObjectsSystem, RunningTransferIsCancelled) {
  SilentServer server;
  const std::uint64_t id =
      requester().ask({{"what", "sound"}, {"uri", server.uri("/never")}, {"hash", "0"}});
  const std::string path = pathOfRequest(id);
  ASSERT_NE(path, "");
  ASSERT_TRUE(awaits(path, "Phase", "transferring"));
  EXPECT_EQ(cancel(path).status, 0) << cancel(path).err;
  EXPECT_TRUE(awaits(path, "Outcome", "CANCELLED"));
  EXPECT_EQ(requester().outcome(id), "TRANSFER_FAILED");
  const Result again = cancel(path);
  EXPECT_NE(again.status, 0);
  EXPECT_THAT(again.err, HasSubstr("has ended"));
}

// Each of the callers asks as fast as it is answered.
TEST_F(ObjectsSystem, FloodOfReadsLeavesRequestsServed) {
  fillWithLongUris();
  const std::size_t before = controlServer(camera()).residentKiB();
  camera().shell(
      "for i in 1 2 3 4; do (while :; do busctl --address=unix:path=/run/kova/bus call "
      "kova.kova_ctlserver /kova org.freedesktop.DBus.ObjectManager GetManagedObjects "
      ">/dev/null 2>&1; done) </dev/null >/dev/null 2>&1 & echo $!; done >/tmp/flood");
  for (int request = 0; request < 5; ++request) {
    const Result stats = camera().ctl({"stats", "uptime"});
    EXPECT_EQ(stats.status, 0) << stats.err;
  }
  camera().shell("kill $(cat /tmp/flood); rm /tmp/flood");
  expectGrowthBelow(8'192, before);
}

/// A client that asks without end and reads nothing.
class DeafReader {
 public:
  explicit DeafReader(const std::string& address) {
    sd_bus* opened = nullptr;
    sd_bus_new(&opened);
    bus_.reset(opened);
    sd_bus_set_address(opened, address.c_str());
    sd_bus_set_bus_client(opened, 1);
    EXPECT_GE(sd_bus_start(opened), 0);
    while (sd_bus_is_ready(opened) == 0 && sd_bus_process(opened, nullptr) >= 0) {
      sd_bus_wait(opened, 100'000);
    }
  }
  void ask(int calls) {
    for (int call = 0; call < calls; ++call) {
      sd_bus_message* created = nullptr;
      sd_bus_message_new_method_call(bus_.get(), &created, kServer, "/kova",
                                     "org.freedesktop.DBus.ObjectManager", "GetManagedObjects");
      const std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)> owned(
          created, sd_bus_message_unref);
      sd_bus_send(bus_.get(), created, nullptr);
    }
  }

 private:
  std::unique_ptr<sd_bus, decltype(&sd_bus_close_unref)> bus_{nullptr, sd_bus_close_unref};
};

// Each may hold 2 MiB of answers in the bus, and all together less than what stops the daemon.
TEST_F(ObjectsSystem, DeafReadersDoNotSilenceDaemon) {
  fillWithLongUris();
  const std::size_t before = controlServer(camera()).residentKiB();
  std::vector<std::unique_ptr<DeafReader>> readers;
  for (int reader = 0; reader < 60; ++reader) {
    readers.push_back(std::make_unique<DeafReader>(camera().busAddress()));
    readers.back()->ask(kCallsOfDeafReader);
  }
  BusClient client(camera().busAddress());
  for (int request = 0; request < 20; ++request) {
    EXPECT_EQ(client.call(kova::system_test::request("GetSystemStats")), "status 0");
  }
  expectGrowthBelow(16'384, before);
}

class DeviceSystem : public ObjectsSystem {
 protected:
  static std::string device(const std::string& name) {
    return busctl({"get-property", kServer, "/kova", "kova.Device1", name}).out;
  }
};

TEST_F(DeviceSystem, PropertiesTellWhatCameraIs) {
  EXPECT_EQ(device("Model"), "s \"Kova Virtual Camera\"\n");
  EXPECT_EQ(device("SysId"), "s \"42264\"\n");
  EXPECT_EQ(device("FirmwareVersion"),
            "s \"" + camera().shell("printf %s \"$(cat /run/firmware_version)\"").out + "\"\n");
  EXPECT_EQ(
      device("BootId"),
      "s \"" + camera().shell("printf %s \"$(cat /proc/sys/kernel/random/boot_id)\"").out + "\"\n");
  EXPECT_THAT(device("DaemonVersion"), ContainsRegex("^s \"[0-9.]+\""));
  EXPECT_EQ(device("ButtonReadable"), "b true\n");
}

}  // namespace
}  // namespace kova::system_test
