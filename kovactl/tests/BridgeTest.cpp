#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <fstream>
#include <thread>

#include "../../platform/utils/tests/TemporaryFolder.h"
#include "Child.h"
#include "Peer.h"
#include "kova/utils/UniqueFd.h"

namespace kova::ctl::testing {
namespace {

using ::testing::HasSubstr;
using utils::UniqueFd;
using Clock = std::chrono::steady_clock;

/// A listening socket in place of a bus; the test acts as the bus daemon.
class MuteBus {
 public:
  MuteBus() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener_.get(), 4), 0);
  }

  std::string path() const { return folder_ / "bus"; }
  UniqueFd accept() const {
    pollfd ready{listener_.get(), POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, kPatienceMs), 1);
    return UniqueFd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  }

 private:
  tests::TemporaryFolder folder_;
  UniqueFd listener_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

bool await(int fd, short event) {
  pollfd ready{fd, event, 0};
  return poll(&ready, 1, kPatienceMs) == 1;
}

/// Reads to the end of the stream.
std::string readAll(int fd) {
  std::string text;
  std::array<char, 65536> buffer{};
  while (await(fd, POLLIN)) {
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got <= 0) {
      return text;
    }
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
  ADD_FAILURE() << "the stream does not end";
  return text;
}

void writeAll(int fd, const std::string& text) {
  for (std::size_t at = 0; at < text.size() && await(fd, POLLOUT);) {
    const ssize_t put = write(fd, text.data() + at, text.size() - at);
    ASSERT_GT(put, 0);
    at += static_cast<std::size_t>(put);
  }
}

/// Writes until nothing is accepted for a quarter of a second.
std::size_t fill(int fd) {
  const std::string chunk(4096, 'x');
  std::size_t taken = 0;
  pollfd ready{fd, POLLOUT, 0};
  while (poll(&ready, 1, 250) == 1 && taken < (16U << 20U)) {
    const ssize_t put = write(fd, chunk.data(), chunk.size());
    taken += put > 0 ? static_cast<std::size_t>(put) : 0;
  }
  return taken;
}

std::string numbered(std::size_t size) {
  std::string text;
  for (std::size_t number = 0; text.size() < size; ++number) {
    text += std::to_string(number) + "\n";
  }
  return text;
}

TEST(Bridge, BusRejectsGarbage) {
  const ipc::testing::PrivateBus bus;
  Child child({"bridge"});
  child.write("GET / HTTP/1.1\r\n\r\n" + std::string(3, '\xff'));
  EXPECT_EQ(child.wait().status, 0) << "with its input still open";
}

/// A kovactl bridge to a bus whose daemon is the test.
class BridgeToMuteBus : public ::testing::Test {
 protected:
  void SetUp() override {
    fcntl(bridge_.input(), F_SETFL, O_NONBLOCK);
    fcntl(bridge_.output(), F_SETFL, O_NONBLOCK);
  }

  /// The processor time that the bridge uses in half a second, in clock ticks of 10 ms.
  long ticksInHalfASecond() const {
    const long before = ticks();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return ticks() - before;
  }
  /// Waits until the bridge has nothing left to do and sleeps.
  bool awaitRest() const {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kPatienceMs);
    long before = -1;
    while (Clock::now() < deadline && before != ticks()) {
      before = ticks();
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return before == ticks();
  }

  const MuteBus bus_;
  Child bridge_{{"--bus", "unix:path=" + bus_.path(), "bridge"}};
  UniqueFd server_{bus_.accept()};

 private:
  // proc(5): utime and stime are fields 14 and 15; the program name before them has no space.
  long ticks() const {
    std::ifstream file("/proc/" + std::to_string(bridge_.pid()) + "/stat");
    std::vector<std::string> fields;
    for (std::string field; file >> field;) {
      fields.push_back(field);
    }
    return fields.size() > 14 ? std::stol(fields[13]) + std::stol(fields[14]) : -1;
  }
};

TEST_F(BridgeToMuteBus, BothWaysArriveComplete) {
  const std::string text = numbered(1'000'000);
  std::string up;
  std::string down;
  std::thread reader([&] { up = readAll(server_.get()); });
  std::thread client([&] { down = readAll(bridge_.output()); });
  std::thread writer([&] {
    writeAll(bridge_.input(), text + "up");
    bridge_.closeInput();
  });
  writeAll(server_.get(), text + "down");
  reader.join();
  shutdown(server_.get(), SHUT_WR);
  writer.join();
  client.join();
  EXPECT_EQ(bridge_.wait().status, 0);
  EXPECT_TRUE(up == text + "up") << up.size();
  EXPECT_TRUE(down == text + "down") << down.size();
}

TEST_F(BridgeToMuteBus, AnswersFollowEndOfInput) {
  writeAll(bridge_.input(), "question");
  bridge_.closeInput();
  EXPECT_EQ(readAll(server_.get()), "question");
  writeAll(server_.get(), "answer");
  server_.reset();
  EXPECT_EQ(readAll(bridge_.output()), "answer");
  EXPECT_EQ(bridge_.wait().status, 0);
}

TEST_F(BridgeToMuteBus, EndsWithBus) {
  server_.reset();
  EXPECT_EQ(bridge_.wait().status, 0);
}

TEST_F(BridgeToMuteBus, EndsWithReader) {
  writeAll(bridge_.input(), "last words");
  bridge_.closeOutput();
  bridge_.closeInput();
  EXPECT_EQ(readAll(server_.get()), "last words");
  EXPECT_EQ(bridge_.wait().status, 0);
}

TEST_F(BridgeToMuteBus, EndsUnderSilentBus) {
  bridge_.closeInput();
  EXPECT_LE(ticksInHalfASecond(), 10);
  EXPECT_EQ(bridge_.wait().status, 0);
}

TEST_F(BridgeToMuteBus, HoldsLittleOfFlood) {
  // Bounds the pipe, the buffer of one direction and the kernel's socket buffer.
  constexpr std::size_t kMost = 1U << 20U;
  EXPECT_LT(fill(bridge_.input()), kMost);
  EXPECT_LT(fill(server_.get()), kMost);
  EXPECT_TRUE(awaitRest());
  EXPECT_LE(ticksInHalfASecond(), 10) << "while both sides are stuck";
  bridge_.closeInput();
  server_.reset();
  EXPECT_LE(ticksInHalfASecond(), 10) << "while both have hung up";
  bridge_.closeOutput();
  EXPECT_EQ(bridge_.wait().status, 0);
}

TEST_F(BridgeToMuteBus, RestsWhileIdle) {
  EXPECT_TRUE(awaitRest());
  EXPECT_LE(ticksInHalfASecond(), 10);
}

TEST(Bridge, RefusalsAreExplained) {
  const auto expect = [](const std::string& bus, int status, const char* said) {
    SCOPED_TRACE(bus);
    expectFailure(run({"--bus", bus, "bridge"}), status, said);
  };
  expect("tcp:host=127.0.0.1,port=1", 2, "is not the address of a socket");
  expect("unixexec:path=sh", 2, "is not the address of a socket");
  expect("unix:path=", 2, "is not the address of a socket");
  expect("unix:path=/tmp/%g0", 2, "is not the address of a socket");
  expect("unix:path=/nonexistent%20x", 3, "no bus at unix:path=/nonexis");
  expect("unix:abstract=kova.none", 3, "\"sv status kova_bus\"");
  expect("unix:path=/" + std::string(200, 'x'), 3, "too long");
  expectFailure(run({"--host", "cam", "bridge"}), 2, "--host runs \"kovactl bridge\"");
  Child onTerminal({"bridge"}, Child::On::Terminal);
  const Result refused = onTerminal.wait();
  EXPECT_EQ(refused.status, 2);
  EXPECT_THAT(refused.out, HasSubstr("use --host on the other machine"));
}

}  // namespace
}  // namespace kova::ctl::testing
