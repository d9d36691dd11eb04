#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "../../platform/utils/process/tests/Processes.h"
#include "Child.h"
#include "Peer.h"

namespace kova::ctl::testing {
namespace {

using variant::Variant;

class BusAddress : public BusTest {};

/// Forwards a socket, like ssh -L.
class Forward {
 public:
  Forward(const std::string& target, std::string socket) : socket_(std::move(socket)) {
    pid_ = fork();
    if (pid_ == 0) {
      execl(KOVACTL_RELAY, KOVACTL_RELAY, target.c_str(), socket_.c_str(), nullptr);
      _exit(127);
    }
    EXPECT_TRUE(tests::eventually([this] { return std::filesystem::is_socket(socket_); }));
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

TEST_F(BusAddress, SocketIsForwarded) {
  const Peer peer(answering(0, Variant::Map{{"n", 5}}));
  const std::string here = bus_.socket() + ".fwd";
  const Forward forward(bus_.socket(), here);
  // The socket may exist before it accepts connections.
  Result result{3, "", ""};
  for (int attempt = 0; result.status == 3 && attempt < 100; ++attempt) {
    result = run({"--bus", "unix:path=" + here, "call", "Anything"});
  }
  expectOutput(result, 0, "n  5\n");
}

}  // namespace
}  // namespace kova::ctl::testing
