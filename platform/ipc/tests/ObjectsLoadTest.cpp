// Tests with many objects, many readers, and a stalled bus.

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ObjectsFixture.h"
#include "SyslogRecorder.h"

namespace kova::ipc::testing {
namespace {

class ObjectsLoadTest : public ObjectsTest {
 protected:
  /// Stops the bus, and waits for that, since it may be in the middle of a read.
  bool stopBus() const {
    return kill(privateBus_.pid(), SIGSTOP) == 0 &&
           waitpid(privateBus_.pid(), nullptr, WUNTRACED) == privateBus_.pid();
  }
  // Publishes over a socket with a minimal send buffer.
  void publishNarrowly() {
    const int socket = dup(STDERR_FILENO);  // the bus connection gets the same number
    close(socket);
    publish();
    const int least = 1;
    ASSERT_EQ(setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &least, sizeof least), 0);
  }
  // Signals changes until one is refused; returns the number accepted, at most 100000.
  int signalChanges() {
    int accepted = 0;
    while (accepted < 100'000 && ipc_.objects().changed(things_, 1, {kCount})) {
      ++accepted;
    }
    return accepted;
  }
  // Creates `count` objects, each of which takes `bytes` of an answer.
  void fill(std::uint64_t count, std::size_t bytes) {
    ASSERT_FALSE(managed().empty());
    listsOfAnswer_ = std::exchange(things_.listed, 0);
    const std::size_t besideName = 64U * (3U + static_cast<unsigned>(listsOfAnswer_));
    things_.things.clear();
    for (std::uint64_t number = 1; number <= count; ++number) {
      things_.things[number] = {std::string(bytes - besideName, 'x'), 1, number};
    }
  }

  int listsOfAnswer_ = 0;  // calls of numbers() per answer
};

// The bus would disconnect the endpoint for a longer answer.
TEST_F(ObjectsLoadTest, AnswerAboutTooManyObjectsIsRefused) {
  publish();
  for (std::uint64_t number = 1; number <= 100'000; ++number) {
    things_.things[number] = {"name", 1, number};
  }
  EXPECT_EQ(managed(), std::vector<std::string>{kLimits});
  EXPECT_EQ(name("/kova/things/100000"), "name");
  EXPECT_EQ(error("/kova/things", "org.freedesktop.DBus.Introspectable", "Introspect"), kLimits);
  EXPECT_EQ(name("/kova/things/99999"), "name");
  EXPECT_TRUE(ipc_.Service(0));
}

TEST_F(ObjectsLoadTest, AnswerOf512KibibytesIsLargest) {
  publish();
  fill(128, 4'096);
  EXPECT_EQ(managed().size(), 128U);
  things_.things[1].name += 'x';
  EXPECT_EQ(managed(), std::vector<std::string>{kLimits});
}

TEST_F(ObjectsLoadTest, FloodOfReadsIsServedInPasses) {
  publish();
  constexpr int kReads = 1'000;
  std::vector<std::shared_ptr<Received>> answers;
  for (int read = 0; read < kReads; ++read) {
    answers.push_back(start(newCall("/kova", kManager, "GetManagedObjects").get()));
  }
  int most = 0;
  ASSERT_TRUE(until([&] {
    const int before = things_.listed;
    ipc_.Service(0);
    most = std::max(most, things_.listed - before);
    stranger_.Service();
    return answers.back()->message != nullptr;
  }));
  EXPECT_LE(most, 128);
  for (const auto& answer : answers) {
    ASSERT_NE(answer->message, nullptr);
    EXPECT_EQ(answer->error, "");
  }
}

// 30 answers of 400 kB are 12 MB.
TEST_F(ObjectsLoadTest, AnswersAndSignalsDoNotPileUp) {
  publishNarrowly();
  fill(100, 4'195);
  Stranger deaf;
  for (int call = 0; call < 30; ++call) {
    deaf.start(deaf.newCall("test", "/kova", kManager, "GetManagedObjects").get());
  }
  ASSERT_GE(awaitBus(deaf.bus()), 0);
  ASSERT_TRUE(ipc_.flush());
  ASSERT_TRUE(stopBus());
  for (int pass = 0; pass < 100; ++pass) {
    ASSERT_TRUE(ipc_.Service(0));
  }
  EXPECT_EQ(things_.listed, 10 * listsOfAnswer_) << "4 MiB";
  box_.seen.what = std::string(Objects::kMaxTextBytes, 'x');
  int signals = 0;
  while (signals < 10'000 && ipc_.objects().changed(box_, {kSeen})) {
    ++signals;
  }
  EXPECT_EQ(signals, 1'009) << "8 MiB";
  EXPECT_FALSE(ipc_.objects().added(things_, 1));
  EXPECT_FALSE(ipc_.objects().removed(things_, 1));
  kill(privateBus_.pid(), SIGCONT);
  EXPECT_EQ(error("/kova/things/1", "kova.Thing1", "Go"), "");
}

TEST_F(ObjectsLoadTest, SentAnswersTakeNoRoom) {
  publish();
  fill(100, 4'195);
  for (int call = 0; call < 25; ++call) {  // 10 MB
    ASSERT_EQ(managed().size(), 100U);
  }
  tests::records.clear();
  for (int signal = 0; signal < 200; ++signal) {  // 800 kB
    EXPECT_TRUE(ipc_.objects().added(things_, 1));
  }
  EXPECT_TRUE(tests::records.empty());
}

TEST_F(ObjectsLoadTest, SignalsAreRefusedWhileBusDoesNotRead) {
  publish();
  ASSERT_TRUE(stopBus());
  EXPECT_LT(signalChanges(), 100'000);
  EXPECT_FALSE(ipc_.objects().added(things_, 1));
  EXPECT_FALSE(ipc_.objects().removed(things_, 1));
  EXPECT_TRUE(ipc_.Service(0));
  kill(privateBus_.pid(), SIGCONT);
  EXPECT_TRUE(until([&] { return ipc_.objects().changed(things_, 1, {kCount}); }));
}

TEST_F(ObjectsLoadTest, SignalsLeaveRoomForEvents) {
  publish();
  ASSERT_TRUE(stopBus());
  const int signals = signalChanges();
  int events = 0;
  for (; events < 100'000; ++events) {
    BaseRequestMessage event = to("");
    event.isBroadcast(true);
    if (!ipc_.SendRequest(event)) {
      break;
    }
  }
  kill(privateBus_.pid(), SIGCONT);
  EXPECT_GE(signals, 1'024);
  EXPECT_EQ(events, 1'024);
}

}  // namespace
}  // namespace kova::ipc::testing
