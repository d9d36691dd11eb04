#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "Child.h"
#include "Peer.h"

namespace kova::ctl::testing {
namespace {

using ::testing::HasSubstr;
using variant::Variant;

class Statistics : public BusTest {};

TEST_F(Statistics, StatsPrintsTable) {
  Peer peer(answering(0, Variant::Map{{"uptime", Variant::Map{{"sec", std::uint64_t{61}}}}}));
  expectOutput(run({"stats", "uptime", "WIFI"}), 0, "Wi-Fi  not reported\nUp     00:01:01\n");
  Peer::Request request = peer.received().front();
  EXPECT_EQ(*request.find("uptime"), Variant(true));
  EXPECT_EQ(*request.find("memory"), Variant(false));
}

TEST_F(Statistics, StatsShowsPayloadOfFailure) {
  Peer peer(answering(1, Variant::Map{{"uptime", Variant::Map{{"sec", std::uint64_t{61}}}}}));
  expectOutput(run({"stats"}), 1, "Up  00:01:01\n");
}

TEST_F(Statistics, WatchRepeatsUntilStopped) {
  Peer peer(answering(0, Variant::Map{{"uptime", Variant::Map{{"sec", std::uint64_t{61}}}}}));
  Child child({"stats", "--watch", "0.02", "--json"});
  ASSERT_TRUE(peer.awaitReceived(3));
  child.signal(SIGINT);
  const Result result = child.wait();
  EXPECT_EQ(result.status, 130);
  const std::string line = R"({"error":null,"ok":true,"result":{"uptime":{"sec":61}}})"
                           "\n";
  EXPECT_EQ(result.out.rfind(line + line, 0), 0U) << result.out;
  EXPECT_THAT(result.out, HasSubstr("\"code\":\"interrupted\""));
  EXPECT_EQ(result.err, "");
}

TEST_F(Statistics, WatchRestoresTerminal) {
  Peer peer(
      answering(0, Variant::Map{{"cpuinfo", Variant::Map{{"processor", std::string(200, 'x')}}}}));
  Child child({"stats", "--watch", "0.02"}, Child::On::Terminal);
  ASSERT_TRUE(peer.awaitReceived(3));
  child.write("\x03");  // Ctrl-C
  const Result result = child.wait();
  EXPECT_EQ(result.status, 130);
  EXPECT_EQ(result.out.rfind("\x1b[?1049h\x1b[?25l", 0), 0U);
  EXPECT_THAT(result.out, HasSubstr("Model  " + std::string(53, 'x') + "\x1b[K"));
  EXPECT_THAT(result.out, ::testing::EndsWith("\x1b[?25h\x1b[?1049l"));
}

}  // namespace
}  // namespace kova::ctl::testing
