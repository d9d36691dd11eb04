// A thousand downloads at once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/resource.h>

#include <array>
#include <chrono>
#include <iostream>

#include "Engine.h"
#include "RawServer.h"

namespace kova::engine {
namespace {

constexpr unsigned kTransfers = 1000;
constexpr std::size_t kSize = 200'000;
constexpr rlim_t kDescriptors = 8192;  // both ends are in this process

using Digest = std::array<unsigned char, 32>;
using Clock = std::chrono::steady_clock;

Digest digestOf(const std::string& bytes) {
  Digest digest{};
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  return digest;
}

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

  /// Turns the service until it has removed all tasks.
  /// @return the longest turn
  Clock::duration finish(const std::vector<std::unique_ptr<RecordingTask>>& tasks) {
    Clock::duration longest{};
    std::size_t first = 0;  // all tasks before it have ended
    EXPECT_TRUE(eventually([&] {
      const auto start = Clock::now();
      service().service(0);
      longest = std::max(longest, Clock::now() - start);
      while (first < tasks.size() && !service().existsUri(tasks[first]->uri())) {
        ++first;
      }
      return first == tasks.size();
    }));
    return longest;
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
  const auto start = Clock::now();
  const Clock::duration longest = finish(tasks);
  using Milliseconds = std::chrono::duration<double, std::milli>;
  std::cout << kTransfers << " downloads: " << Milliseconds(Clock::now() - start).count()
            << " ms, longest turn " << Milliseconds(longest).count() << " ms\n";

  EXPECT_THAT(logLines(), ::testing::IsEmpty());
  EXPECT_EQ(server.requests().size(), kTransfers);
  for (unsigned number = 0; number < kTransfers; ++number) {
    EXPECT_EQ(tasks[number]->outcome(), "success") << number;
    EXPECT_EQ(digestOf(readFile(path(std::to_string(number)))), digestOf(noise(kSize, number)))
        << number;
  }
}

}  // namespace
}  // namespace kova::engine
