// A thousand downloads at once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Engine.h"
#include "RawServer.h"

namespace kova::engine {
namespace {

constexpr unsigned kTransfers = 1000;
constexpr std::size_t kSize = 200'000;
constexpr rlim_t kDescriptors = 8192;  // both ends are in this process

/// Answers "GET /N" with noise of seed N.
void serveNoise(Connection& connection) {
  while (connection.readRequest()) {
    const unsigned long number = std::stoul(connection.request().head.substr(5));
    connection.send(okResponse(noise(kSize, static_cast<unsigned>(number))));
  }
}

class ManyTransfersTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::max(limit.rlim_cur, std::min(kDescriptors, limit.rlim_max));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
};

TEST_F(ManyTransfersTest, ThousandDownloadsArriveComplete) {
  RawServer server(serveNoise);
  std::vector<std::unique_ptr<RecordingTask>> tasks;
  for (unsigned number = 0; number < kTransfers; ++number) {
    const std::string name = std::to_string(number);
    tasks.push_back(std::make_unique<RecordingTask>(server.uri("/" + name), path(name)));
    ASSERT_TRUE(service().add(tasks.back().get()));
  }
  std::size_t ended = 0;  // every task before it has ended
  ASSERT_TRUE(turnUntil([&] {
    while (ended < kTransfers && !service().existsUri(tasks[ended]->uri())) {
      ++ended;
    }
    return ended == kTransfers;
  }));

  EXPECT_THAT(logLines(), ::testing::IsEmpty());
  EXPECT_EQ(server.requests().size(), kTransfers);
  for (unsigned number = 0; number < kTransfers; ++number) {
    EXPECT_EQ(tasks[number]->outcome(), "success") << number;
    EXPECT_TRUE(readFile(path(std::to_string(number))) == noise(kSize, number)) << number;
  }
}

}  // namespace
}  // namespace kova::engine
