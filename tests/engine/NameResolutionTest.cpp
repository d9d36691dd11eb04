// Host names that resolve slowly: libcurl resolves them in a separate thread, which the engine must
// not join.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "Engine.h"

namespace kova::engine {
namespace {

constexpr char kSlowHost[] = "slow.invalid";
constexpr char kSlowUri[] = "http://slow.invalid/file";

/// A look-up of kSlowHost blocks until `released`, at most ten seconds.
struct SlowLookUp {
  std::atomic<bool> begun = false;
  std::atomic<bool> released = false;
  std::atomic<bool> ended = false;
};
SlowLookUp lookUp;

int holdLookUp() {
  lookUp.begun = true;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!lookUp.released && std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
  }
  lookUp.ended = true;
  return EAI_AGAIN;
}

}  // namespace

// Overrides the C library's function in the whole program, including libcurl.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  if (node != nullptr && std::strcmp(node, kSlowHost) == 0) {
    return holdLookUp();
  }
  static const auto real =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return real(node, service, hints, result);
}

namespace {

class NameResolutionTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    lookUp.begun = lookUp.released = lookUp.ended = false;
    task_.setPath(path("file")).setTimeout(1000);
    ASSERT_TRUE(service().add(&task_));
    ASSERT_TRUE(turnUntil([] { return lookUp.begun.load(); }));
  }
  void TearDown() override {
    lookUp.released = true;
    EXPECT_TRUE(eventually([] { return lookUp.ended.load(); }));
    EngineTest::TearDown();
  }

  RecordingTask task_{kSlowUri, ""};
};

TEST_F(NameResolutionTest, DeadlineDoesNotWaitForNameResolution) {
  fakes::platform().nowMs += task_.timeout() + 1;
  service().service(0);
  EXPECT_FALSE(lookUp.ended);
  EXPECT_EQ(task_.outcome(), "failure 5 0");
  EXPECT_FALSE(service().existsUri(kSlowUri));
}

TEST_F(NameResolutionTest, TransportTimeOutDoesNotWaitForNameResolution) {
  ASSERT_TRUE(turnUntil([&] { return !task_.outcome().empty(); }));
  EXPECT_FALSE(lookUp.ended);
  EXPECT_EQ(task_.outcome(), "failure 5 0");
}

TEST_F(NameResolutionTest, ShutdownDoesNotWaitForNameResolution) {
  endService();
  EXPECT_FALSE(lookUp.ended);
}

}  // namespace
}  // namespace kova::engine
