// Passes that do not end by themselves: sockets that always have data, and servers that flood TLS
// with messages without payload.

#include "PumpGuard.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <optional>
#include <thread>

#include "CurlFaults.h"
#include "Engine.h"
#include "RawServer.h"
#include "TlsFiles.h"
#include "TlsFlood.h"
#include "kova/utils/UniqueFd.h"

namespace kova::engine {
namespace {

using ctlserver::PumpGuard;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr milliseconds kLongestPass{1000};

/// The CPU time of this thread, the clock of the guard.
struct ThreadClock {
  using duration = std::chrono::nanoseconds;
  static duration now() {
    timespec time{};
    EXPECT_EQ(clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time), 0);
    return std::chrono::seconds(time.tv_sec) + duration(time.tv_nsec);
  }
};

/// Burns CPU time, as a flooded pass does, until `condition` holds, for at most `limit`. The kernel
/// checks CPU timers at ticks: on a busy machine, where the thread may run between ticks, they
/// expire late.
bool heldUntil(const std::function<bool()>& condition,
               milliseconds limit = std::chrono::seconds(2)) {
  const auto end = ThreadClock::now() + limit;
  while (!condition() && ThreadClock::now() < end) {
  }
  return condition();
}

void compute(milliseconds time) {
  const auto end = ThreadClock::now() + time;
  while (ThreadClock::now() < end) {
  }
}

std::string cutLine(const std::string& uri) {
  return "4 basehttp.Service: Connection cut because a server held all transfers, uri=" + uri;
}

class PumpGuardTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    std::signal(SIGPIPE, SIG_IGN);  // for good: a flood still writes when the test is torn down
    ASSERT_TRUE(guard_.Init());
    ASSERT_TRUE(http_.Init());
  }

  /// Steps until `completions` transfers have ended.
  /// @return the longest step
  ThreadClock::duration finish(std::size_t completions) {
    ThreadClock::duration longest{};
    EXPECT_TRUE(eventually([&] {
      const auto start = ThreadClock::now();
      http_.Service(0);
      longest = std::max(longest, ThreadClock::now() - start);
      std::this_thread::sleep_for(milliseconds(1));
      return http_.completions.size() >= completions;
    }));
    return longest;
  }
  /// Expects that a pass that does not end is cut and `mark` is set.
  void expectCut(const PumpGuard::Mark& mark) {
    guard_.beginTurn(0);
    const PumpGuard::Pass pass(guard_, true);
    EXPECT_TRUE(heldUntil([&] { return *mark != 0; }));
  }
  bool startTls(const std::string& uri) {
    tests::writeText(ctlserver::kControllerCertFile, server_.certificatePem());
    return http_.RegisterRequest(true, uri, {}, 0, "", "", ctlserver::kControllerCertFile);
  }

  const Identity server_ = makeIdentity({});
  PumpGuard guard_;
  MemoryHttp http_;
};

/// A TCP connection between two sockets of this process.
struct TcpPair {
  TcpPair() : near(socket(AF_INET, SOCK_STREAM, 0)) {  // takes the lowest descriptor
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    bind(listener, generic, size);
    listen(listener, 1);
    getsockname(listener, generic, &size);
    connect(near, generic, size);
    far = accept(listener, nullptr, nullptr);
    close(listener);
  }
  ~TcpPair() {
    close(near);
    close(far);
  }
  TcpPair(const TcpPair&) = delete;
  TcpPair& operator=(const TcpPair&) = delete;
  bool isCut() const {
    pollfd peer{far, POLLIN, 0};
    return poll(&peer, 1, 0) == 1;
  }
  int near;
  int far;
};

/// Whether this thread blocks the signal now.
bool isBlocked(int number) {
  sigset_t blocked;
  EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &blocked), 0);
  return sigismember(&blocked, number) == 1;
}

/// Fills the stack with garbage where the next function has its variables.
__attribute__((noinline)) void litterStack() {
  volatile unsigned char litter[4096];
  for (volatile unsigned char& byte : litter) {
    byte = 0xFF;
  }
}

PumpGuard::Mark newMark() {
  return std::make_shared<volatile std::sig_atomic_t>(0);
}

/// A socket that the guard watches.
class WatchedSocketTest : public PumpGuardTest {
 protected:
  void SetUp() override {
    PumpGuardTest::SetUp();
    guard_.watch(pair_.near, mark_);
  }
  void TearDown() override {
    guard_.forget(pair_.near);
    PumpGuardTest::TearDown();
  }

  const TcpPair pair_;
  const PumpGuard::Mark mark_ = newMark();
};

TEST_F(WatchedSocketTest, BlockedPassLosesItsSocketsAndData) {
  const TcpPair forgotten;
  ASSERT_EQ(send(pair_.far, "unread", 6, 0), 6);
  guard_.watch(forgotten.near, mark_);
  guard_.forget(forgotten.near);
  guard_.beginTurn(0);
  {
    const PumpGuard::Pass pass(guard_, true);
    errno = EBADMSG;
    EXPECT_TRUE(heldUntil([&] { return *mark_ != 0; }));
    EXPECT_EQ(errno, EBADMSG);
  }
  char buffer[6];
  EXPECT_EQ(recv(pair_.near, buffer, sizeof buffer, MSG_DONTWAIT), -1);
  EXPECT_TRUE(pair_.isCut());
  EXPECT_FALSE(forgotten.isCut());
}

TEST_F(PumpGuardTest, SocketOfOtherKindIsShutDown) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const utils::UniqueFd near(ends[0]);
  const utils::UniqueFd far(ends[1]);
  const PumpGuard::Mark mark = newMark();
  guard_.watch(near.get(), mark);
  expectCut(mark);
  char buffer[1];
  EXPECT_EQ(recv(far.get(), buffer, sizeof buffer, MSG_DONTWAIT), 0);
  guard_.forget(near.get());
}

TEST_F(PumpGuardTest, OnlyOwnSignalIsBlockedWhileSocketsChange) {
  std::optional<bool> own;
  std::optional<bool> other;
  auto* value = new volatile std::sig_atomic_t(0);
  PumpGuard::Mark mark(value, [&](const volatile std::sig_atomic_t* last) {
    own = isBlocked(ctlserver::pumpSignal());
    other = isBlocked(SIGUSR2);
    delete last;
  });
  guard_.watch(0, std::move(mark));
  litterStack();
  guard_.forget(0);
  EXPECT_EQ(own, true);
  EXPECT_EQ(other, false);
  EXPECT_FALSE(isBlocked(ctlserver::pumpSignal()));
}

TEST_F(WatchedSocketTest, ManyTransfersMakeTurnLonger) {
  guard_.beginTurn((1000 - PumpGuard::kTurnMs) / PumpGuard::kTransferMs);  // a second
  for (int pass = 0; pass < 2; ++pass) {
    const PumpGuard::Pass guarded(guard_, true);
    compute(milliseconds(30));
  }
  EXPECT_EQ(*mark_, 0);
}

TEST_F(WatchedSocketTest, PassesOfOneTurnShareItsTime) {
  guard_.beginTurn(0);
  const auto start = ThreadClock::now();
  while (*mark_ == 0 && ThreadClock::now() - start < std::chrono::seconds(5)) {
    const PumpGuard::Pass pass(guard_, true);
    compute(milliseconds(50));
  }
  EXPECT_LT(ThreadClock::now() - start, kLongestPass);
}

TEST_F(PumpGuardTest, SocketsOpenedInOrAfterBlockedPassAreCutToo) {
  const TcpPair first;
  const TcpPair second;
  const PumpGuard::Mark mark = newMark();
  const PumpGuard::Mark later = newMark();
  guard_.beginTurn(0);
  {
    const PumpGuard::Pass pass(guard_, true);
    compute(milliseconds(PumpGuard::kTurnMs + 10));
    guard_.watch(first.near, mark);
    EXPECT_TRUE(heldUntil([&] { return *mark != 0; }));
  }
  guard_.watch(second.near, later);
  const PumpGuard::Pass pass(guard_, true);
  EXPECT_TRUE(heldUntil([&] { return *later != 0; }, milliseconds(PumpGuard::kTurnMs - 100)))
      << "no time is left";
  guard_.forget(first.near);
  guard_.forget(second.near);
}

TEST_F(WatchedSocketTest, NothingIsCutOutsidePass) {
  guard_.beginTurn(0);
  { const PumpGuard::Pass pass(guard_, true); }
  { const PumpGuard::Pass pass(guard_, false); }
  compute(milliseconds(PumpGuard::kTurnMs + 100));
  EXPECT_EQ(*mark_, 0);
  EXPECT_FALSE(pair_.isCut());
}

TEST_F(WatchedSocketTest, PassThatWaitsIsNotCut) {
  guard_.beginTurn(0);
  {
    const PumpGuard::Pass pass(guard_, true);
    std::this_thread::sleep_for(milliseconds(PumpGuard::kTurnMs + 100));
  }
  EXPECT_EQ(*mark_, 0);
  EXPECT_FALSE(pair_.isCut());
}

TEST_F(PumpGuardTest, ForeignSignalCutsNothing) {
  EXPECT_EQ(std::raise(ctlserver::pumpSignal()), 0);
}

TEST_F(PumpGuardTest, SignalThatArrivesAfterPassCutsNothing) {
  const TcpPair pair;
  const PumpGuard::Mark mark = newMark();
  PumpGuard guard;
  ASSERT_TRUE(guard.Init());
  guard.watch(pair.near, mark);
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, ctlserver::pumpSignal());
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &own, nullptr), 0);
  {
    const PumpGuard::Pass pass(guard, true);  // has no budget, as no turn has begun
    compute(milliseconds(30));
  }
  ASSERT_EQ(pthread_sigmask(SIG_UNBLOCK, &own, nullptr), 0);
  {
    const PumpGuard::Pass unguarded(guard, false);
    compute(milliseconds(30));
  }
  EXPECT_EQ(*mark, 0);
}

TEST_F(PumpGuardTest, SignalBlockedAtStartArrives) {
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, ctlserver::pumpSignal());
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &own, nullptr), 0);
  ASSERT_TRUE(guard_.Init());
  const TcpPair pair;
  const PumpGuard::Mark mark = newMark();
  guard_.watch(pair.near, mark);
  expectCut(mark);
  guard_.forget(pair.near);
}

TEST_F(PumpGuardTest, TransfersRunUnguardedWithoutTimer) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_SIGPENDING, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &none), 0);
  MemoryHttp http;
  EXPECT_TRUE(http.Init());
  EXPECT_FALSE(PumpGuard().Init());
  ASSERT_EQ(setrlimit(RLIMIT_SIGPENDING, &before), 0);
  const std::string failed = "3 PumpGuard.Init: Failed to guard the transfers";
  EXPECT_THAT(logLines(), ElementsAre(failed, failed));

  RawServer server(answering(okResponse("body")));
  ASSERT_TRUE(http.start(server.uri()));
  ASSERT_TRUE(serviceUntil(http, [&] { return !http.completions.empty(); }));
  EXPECT_THAT(http.completions, ElementsAre(server.uri() + " 0 200"));
}

TEST_F(PumpGuardTest, CutTransferNeverCountsAsSuccess) {
  RawServer server(stalling("HTTP/1.1 200 OK\r\n\r\nthe first half"));  // a close ends the body
  http_.accept = [] {
    compute(milliseconds(PumpGuard::kTurnMs + 100));
    return true;
  };
  ASSERT_TRUE(http_.start(server.uri()));
  finish(1);
  EXPECT_THAT(http_.completions, ElementsAre(server.uri() + " 1 200"));
  EXPECT_THAT(logLines(), ElementsAre(cutLine(server.uri())));
}

TEST_F(PumpGuardTest, ClosedSocketsAreForgotten) {
  RawServer server(answering(okResponse("body")));
  ASSERT_TRUE(http_.start(server.uri("/1")));
  finish(1);
  const TcpPair pair;  // in the place of the transfer's socket
  RawServer holding(stalling("HTTP/1.1 200 OK\r\n\r\nhalf"));
  http_.accept = [] {
    compute(milliseconds(PumpGuard::kTurnMs + 100));
    return true;
  };
  ASSERT_TRUE(http_.start(holding.uri("/2")));
  finish(2);
  EXPECT_EQ(http_.completions.back(), holding.uri("/2") + " 1 200");
  EXPECT_FALSE(pair.isCut());
}

TEST_F(PumpGuardTest, KeyUpdateFloodHarmsNoOtherTransfer) {
  const std::string body = noise(5'000'000);
  RawServer innocent(answering(okResponse(body)));
  const TlsFlood flood(server_, TlsFlood::keyUpdate);
  ASSERT_TRUE(startTls(flood.uri()));
  ASSERT_TRUE(serviceUntil(http_, [&] { return flood.sent() > 10'000; }));
  ASSERT_TRUE(http_.start(innocent.uri()));
  EXPECT_LT(finish(1), milliseconds(PumpGuard::kTurnMs));
  EXPECT_THAT(http_.completions, ElementsAre(innocent.uri() + " 0 200"));
  EXPECT_TRUE(http_.bodies[innocent.uri()] == body);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(PumpGuardTest, FloodReadByOpenSslIsCut) {
  curlFaults().messagesUnwatched = true;
  const TlsFlood flood(server_, TlsFlood::keyUpdate, "HTTP/1.1 200 OK\r\n\r\nhalf");
  ASSERT_TRUE(startTls(flood.uri()));
  EXPECT_LT(finish(1), kLongestPass);
  ASSERT_EQ(http_.completions.size(), 1U);
  EXPECT_TRUE(http_.completions[0].starts_with(flood.uri() + " 1 "));
  EXPECT_THAT(logLines(), ElementsAre(cutLine(flood.uri())));
}

TEST_F(PumpGuardTest, CancelIsNotBlockedByFlood) {
  curlFaults().messagesUnwatched = true;
  std::atomic<bool> waiting = false;
  std::atomic<bool> go = false;
  const TlsFlood flood(server_, [&](SSL* ssl) {
    waiting = true;
    return eventually([&] { return go.load(); }) && TlsFlood::keyUpdate(ssl);
  });
  ASSERT_TRUE(startTls(flood.uri()));
  ASSERT_TRUE(serviceUntil(http_, [&] { return waiting.load(); }));
  go = true;
  ASSERT_TRUE(eventually([&] { return flood.sent() > 1000; }));
  const auto start = ThreadClock::now();
  EXPECT_TRUE(http_.CancelTransfer(flood.uri()));
  EXPECT_LT(ThreadClock::now() - start, kLongestPass);
}

}  // namespace
}  // namespace kova::engine
