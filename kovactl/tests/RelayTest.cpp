#include "Relay.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "Terminal.h"

namespace kova::ctl {
namespace {

TEST(Relay, StopSignalBeforeFirstWaitEndsIt) {
  int in[2];
  int out[2];
  int bus[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, out), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, bus), 0);
  const auto stopped = [&] {
    catchStopSignals();
    raise(SIGTERM);
    alarm(10);
    std::exit(static_cast<int>(relay(in[0], out[0], bus[0])));
  };
  EXPECT_EXIT(stopped(), ::testing::ExitedWithCode(143), "");
  for (const int fd : {in[0], in[1], out[0], out[1], bus[0], bus[1]}) {
    close(fd);
  }
}

}  // namespace
}  // namespace kova::ctl
