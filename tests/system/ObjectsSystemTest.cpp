#include <sstream>

#include "BusClient.h"
#include "TransferRig.h"

namespace kova::system_test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using namespace std::string_literals;

constexpr char kBusctl[] = "/usr/bin/busctl";
constexpr char kServer[] = "kova.kova_ctlserver";

class ObjectsSystem : public TransferRig {
 protected:
  static Result busctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "--address=" + camera().busAddress());
    return run(kBusctl, arguments);
  }
  Result follow(std::vector<std::string> words) {
    words.insert(words.begin(), {KOVA_FOLLOW_TRANSFER, camera().busAddress()});
    return run("/usr/bin/python3", words);
  }
};

// The tags of one interface, without comments and white space.
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

TEST_F(ObjectsSystem, IntrospectionMatchesShippedDescriptions) {
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
  const engine::RawServer server(engine::stalling());
  const std::uint64_t id =
      requester().ask({{"what", "sound"}, {"uri", server.uri()}, {"hash", "0"}});
  ASSERT_TRUE(eventually([&] { return !server.requests().empty(); }));
  const auto cancel = [] {
    return camera().shell("kovactl cancel $(kovactl transfers | awk '/sound/ {print $1}')");
  };
  const Result first = cancel();
  EXPECT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(requester().outcome(id), "TRANSFER_FAILED");
  EXPECT_THAT(camera().ctl({"transfers"}).out, ContainsRegex("sound +CANCELLED"));
  const Result again = cancel();
  EXPECT_NE(again.status, 0);
  EXPECT_THAT(again.err, HasSubstr("has already ended"));
}

}  // namespace
}  // namespace kova::system_test
