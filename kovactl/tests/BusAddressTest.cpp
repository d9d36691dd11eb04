#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "Child.h"
#include "Peer.h"
#include "PrivateBus.h"

namespace kova::ctl::testing {
namespace {

using variant::Variant;

class BusAddress : public ::testing::Test {
 protected:
  std::string socket() const { return bus_.address().substr(std::string("unix:path=").size()); }

  ipc::testing::PrivateBus bus_;
  Peer peer_{answering(0, Variant::Map{{"uptime", Variant::Map{{"sec", std::uint64_t{61}}}}})};
};

/// Forwards a socket, like ssh -L.
class Forward {
 public:
  Forward(const std::string& target, std::string socket) : socket_(std::move(socket)) {
    pid_ = fork();
    if (pid_ == 0) {
      execl(KOVACTL_RELAY, KOVACTL_RELAY, target.c_str(), socket_.c_str(), nullptr);
      _exit(127);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!std::filesystem::is_socket(socket_) && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  ~Forward() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Forward(const Forward&) = delete;
  Forward& operator=(const Forward&) = delete;

 private:
  std::string socket_;
  pid_t pid_ = -1;
};

TEST_F(BusAddress, ProgramCarriesConnection) {
  const std::string address = std::string("unixexec:path=") + KOVACTL_RELAY + ",argv1=" + socket();
  const Result result = run({"--bus", address, "stats", "uptime"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Up  00:01:01\n");
}

TEST_F(BusAddress, SocketIsForwarded) {
  const std::string here = socket() + ".fwd";
  const Forward forward(socket(), here);
  // The socket may exist before it accepts connections.
  Result result{3, "", ""};
  for (int attempt = 0; result.status == 3 && attempt < 100; ++attempt) {
    result = run({"--bus", "unix:path=" + here, "stats", "uptime"});
  }
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Up  00:01:01\n");
}

}  // namespace
}  // namespace kova::ctl::testing
