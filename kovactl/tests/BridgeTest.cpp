#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "Child.h"
#include "Peer.h"
#include "PrivateBus.h"
#include "kova/utils/UniqueFd.h"

namespace kova::ctl::testing {
namespace {

using ::testing::HasSubstr;
using utils::UniqueFd;
using Clock = std::chrono::steady_clock;

/// A socket in place of a bus, of which a test is the daemon.
class MuteBus {
 public:
  MuteBus() {
    EXPECT_NE(mkdtemp(folder_.data()), nullptr);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener_.get(), 4), 0);
  }
  ~MuteBus() { std::filesystem::remove_all(folder_); }
  MuteBus(const MuteBus&) = delete;
  MuteBus& operator=(const MuteBus&) = delete;

  std::string path() const { return folder_ + "/bus"; }
  UniqueFd accept() const {
    pollfd ready{listener_.get(), POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, kPatienceMs), 1);
    return UniqueFd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  }

 private:
  std::string folder_ = std::filesystem::temp_directory_path() / "kova_mute.XXXXXX";
  UniqueFd listener_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

/// A kovactl bridge between two pipes.
class Bridge {
 public:
  explicit Bridge(const std::string& path) {
    std::array<int, 2> up{};
    std::array<int, 2> down{};
    EXPECT_EQ(pipe2(up.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(down.data(), O_CLOEXEC), 0);
    const std::string address = "unix:path=" + path;
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(up[0], STDIN_FILENO);
      dup2(down[1], STDOUT_FILENO);
      execl(KOVACTL_PROGRAM, KOVACTL_PROGRAM, "--bus", address.c_str(), "bridge", nullptr);
      _exit(127);
    }
    close(up[0]);
    close(down[1]);
    in = UniqueFd(up[1]);
    out = UniqueFd(down[0]);
    fcntl(in.get(), F_SETFL, O_NONBLOCK);
    fcntl(out.get(), F_SETFL, O_NONBLOCK);
  }
  ~Bridge() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Bridge(const Bridge&) = delete;
  Bridge& operator=(const Bridge&) = delete;

  /// The exit status; -1 when it does not end.
  int wait() {
    int status = 0;
    const auto deadline = Clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  /// The processor time that it takes in half a second, in clock ticks of 10 ms.
  long ticksInHalfASecond() const {
    const long before = ticks();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return ticks() - before;
  }
  /// Whether it sleeps, after all that it can do.
  bool awaitRest() const {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kPatienceMs);
    long before = -1;
    while (Clock::now() < deadline && before != ticks()) {
      before = ticks();
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return before == ticks();
  }

  UniqueFd in;
  UniqueFd out;

 private:
  // proc(5): utime and stime are the fields 14 and 15; the name before holds no space.
  long ticks() const {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/stat");
    std::vector<std::string> fields;
    for (std::string field; file >> field;) {
      fields.push_back(field);
    }
    return fields.size() > 14 ? std::stol(fields[13]) + std::stol(fields[14]) : -1;
  }

  pid_t pid_ = -1;
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

/// Writes until nothing more is taken for a quarter of a second.
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

TEST(Bridge, ClientWorksThroughIt) {
  const ipc::testing::PrivateBus bus;
  const Peer peer(answering(0));
  setenv("BRIDGE", bridgeCommand(bus.address()).c_str(), 1);
  const Result result = run({"--bus", "unixexec:path=sh,argv1=-c,argv2=eval%20%24BRIDGE", "call",
                             "GetSystemStats", "--json"});
  unsetenv("BRIDGE");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\"statusCode\": 0"));
}

TEST(Bridge, BusRejectsGarbage) {
  const ipc::testing::PrivateBus bus;
  Child child({"bridge"});
  child.write("GET / HTTP/1.1\r\n\r\n" + std::string(3, '\xff'));
  EXPECT_EQ(child.wait().status, 0) << "with its input still open";
}

TEST(Bridge, BothWaysArriveComplete) {
  const MuteBus bus;
  Bridge bridge(bus.path());
  const UniqueFd server = bus.accept();
  const std::string text = numbered(1'000'000);
  std::string up;
  std::string down;
  std::thread reader([&] { up = readAll(server.get()); });
  std::thread client([&] { down = readAll(bridge.out.get()); });
  std::thread writer([&] {
    writeAll(bridge.in.get(), text + "up");
    bridge.in.reset();
  });
  writeAll(server.get(), text + "down");
  reader.join();
  shutdown(server.get(), SHUT_WR);
  writer.join();
  client.join();
  EXPECT_EQ(bridge.wait(), 0);
  EXPECT_TRUE(up == text + "up") << up.size();
  EXPECT_TRUE(down == text + "down") << down.size();
}

TEST(Bridge, AnswersFollowEndOfInput) {
  const MuteBus bus;
  Bridge bridge(bus.path());
  UniqueFd server = bus.accept();
  writeAll(bridge.in.get(), "question");
  bridge.in.reset();
  EXPECT_EQ(readAll(server.get()), "question");
  writeAll(server.get(), "answer");
  server.reset();
  EXPECT_EQ(readAll(bridge.out.get()), "answer");
  EXPECT_EQ(bridge.wait(), 0);
}

TEST(Bridge, EndsWithBus) {
  const MuteBus bus;
  Bridge bridge(bus.path());
  bus.accept().reset();
  EXPECT_EQ(bridge.wait(), 0);
}

TEST(Bridge, EndsWithReader) {
  const MuteBus bus;
  Bridge bridge(bus.path());
  const UniqueFd server = bus.accept();
  writeAll(bridge.in.get(), "last words");
  bridge.out.reset();
  bridge.in.reset();
  EXPECT_EQ(readAll(server.get()), "last words");
  EXPECT_EQ(bridge.wait(), 0);
}

TEST(Bridge, EndsUnderSilentBus) {
  const MuteBus bus;
  Bridge bridge(bus.path());
  const UniqueFd server = bus.accept();
  bridge.in.reset();
  EXPECT_LE(bridge.ticksInHalfASecond(), 10);
  EXPECT_EQ(bridge.wait(), 0);
}

TEST(Bridge, HoldsLittleOfFlood) {
  const MuteBus bus;
  Bridge bridge(bus.path());
  UniqueFd server = bus.accept();
  // A pipe and the buffer of each way, and what the kernel holds for the socket.
  constexpr std::size_t kMost = 1U << 20U;
  EXPECT_LT(fill(bridge.in.get()), kMost);
  EXPECT_LT(fill(server.get()), kMost);
  EXPECT_TRUE(bridge.awaitRest());
  EXPECT_LE(bridge.ticksInHalfASecond(), 10) << "while both sides are stuck";
  bridge.in.reset();
  server.reset();
  EXPECT_LE(bridge.ticksInHalfASecond(), 10) << "while both have hung up";
  bridge.out.reset();
  EXPECT_EQ(bridge.wait(), 0);
}

TEST(Bridge, RestsWhileIdle) {
  const MuteBus bus;
  const Bridge bridge(bus.path());
  const UniqueFd server = bus.accept();
  EXPECT_TRUE(bridge.awaitRest());
  EXPECT_LE(bridge.ticksInHalfASecond(), 10);
}

TEST(Bridge, RefusalsAreExplained) {
  const auto expect = [](const std::vector<std::string>& typed, int status, const char* said) {
    const Result result = run(typed);
    EXPECT_EQ(result.status, status) << result.err;
    EXPECT_THAT(result.err, HasSubstr(said));
  };
  expect({"--bus", "tcp:host=127.0.0.1,port=1", "bridge"}, 2, "is not the address of a socket");
  expect({"--bus", "unixexec:path=sh", "bridge"}, 2, "is not the address of a socket");
  expect({"--bus", "unix:path=", "bridge"}, 2, "is not the address of a socket");
  expect({"--bus", "unix:path=/tmp/%g0", "bridge"}, 2, "is not the address of a socket");
  expect({"--bus", "unix:path=/nonexistent%20x", "bridge"}, 3, "no bus at unix:path=/nonexis");
  expect({"--bus", "unix:abstract=kova.none", "bridge"}, 3, "\"sv status kova_bus\"");
  expect({"--bus", "unix:path=/" + std::string(200, 'x'), "bridge"}, 3, "too long");
  expect({"--host", "cam", "bridge"}, 2, "--host runs \"kovactl bridge\"");
  Child onTerminal({"bridge"}, Child::On::Terminal);
  const Result refused = onTerminal.wait();
  EXPECT_EQ(refused.status, 2);
  EXPECT_THAT(refused.out, HasSubstr("use --host on the other machine"));
}

}  // namespace
}  // namespace kova::ctl::testing
