// Many objects, many readers, and a bus that does not read.

#include <signal.h>
#include <sys/wait.h>

#include "ObjectsFixture.h"

namespace kova::ipc::testing {
namespace {

class ObjectsLoadTest : public ObjectsTest {
 protected:
  /// Stops the bus, and waits until it has stopped: it may be reading.
  bool stopBus() const {
    return kill(privateBus_.pid(), SIGSTOP) == 0 &&
           waitpid(privateBus_.pid(), nullptr, WUNTRACED) == privateBus_.pid();
  }
};

// A longer answer would cost the endpoint its connection to the bus.
TEST_F(ObjectsLoadTest, AnswerAboutTooManyObjectsIsRefused) {
  publish();
  for (std::uint64_t number = 1; number <= 100'000; ++number) {
    things_.things[number] = {"name", 1, number};
  }
  EXPECT_EQ(managed(), std::vector<std::string>{kLimits});
  EXPECT_EQ(name("/kova/things/100000"), "name");
  EXPECT_EQ(error("/kova/things", "org.freedesktop.DBus.Introspectable", "Introspect"), kLimits);
  EXPECT_EQ(name("/kova/things/99999"), "name");
  things_.things.clear();
  for (std::uint64_t number = 1; number <= 400; ++number) {
    things_.things[number] = {std::string(5'000, 'x'), 1, number};
  }
  EXPECT_EQ(managed(), std::vector<std::string>{kLimits});
  EXPECT_TRUE(ipc_.Service(0));
  things_.things.erase(things_.things.find(101), things_.things.end());
  EXPECT_EQ(managed().size(), 100U);
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

// Two hundred answers of 400 kB are 80 MB.
TEST_F(ObjectsLoadTest, LargeAnswersToDeafPeerDoNotPileUp) {
  publish();
  for (std::uint64_t number = 1; number <= 100; ++number) {
    things_.things[number] = {std::string(4'000, 'x'), 1, number};
  }
  ASSERT_EQ(managed().size(), 100U);
  Stranger deaf;
  for (int call = 0; call < 200; ++call) {
    sd_bus_message* created = nullptr;
    sd_bus_message_new_method_call(deaf.bus(), &created, "kova.test", "/kova", kManager,
                                   "GetManagedObjects");
    const MessagePtr owned(created);
    deaf.start(created);
  }
  ASSERT_TRUE(stopBus());
  things_.listed = 0;
  for (int pass = 0; pass < 100; ++pass) {
    ASSERT_TRUE(ipc_.Service(0));
  }
  // Each answer reads the list four times; 4 MiB of them, and what the kernel takes, may wait.
  EXPECT_LT(things_.listed, 4 * 20);
  kill(privateBus_.pid(), SIGCONT);
  EXPECT_EQ(name("/kova/things/1").size(), 4'000U);
}

TEST_F(ObjectsLoadTest, AnswersThatWereSentTakeNoRoom) {
  publish();
  for (std::uint64_t number = 1; number <= 100; ++number) {
    things_.things[number] = {std::string(4'000, 'x'), 1, number};
  }
  for (int call = 0; call < 25; ++call) {  // 10 MB
    ASSERT_EQ(managed().size(), 100U);
  }
  EXPECT_TRUE(until([&] { return ipc_.objects().changed(things_, 1, {kCount}); }));
}

TEST_F(ObjectsLoadTest, SignalsAreRefusedWhileBusDoesNotRead) {
  publish();
  ASSERT_TRUE(stopBus());
  int accepted = 0;
  while (accepted < 100'000 && ipc_.objects().changed(things_, 1, {kCount})) {
    ++accepted;
  }
  EXPECT_LT(accepted, 100'000);
  EXPECT_FALSE(ipc_.objects().added(things_, 1));
  EXPECT_FALSE(ipc_.objects().removed(things_, 1));
  EXPECT_TRUE(ipc_.Service(0));
  kill(privateBus_.pid(), SIGCONT);
  EXPECT_TRUE(until([&] { return ipc_.objects().changed(things_, 1, {kCount}); }));
}

TEST_F(ObjectsLoadTest, SignalsLeaveEventsTheirPlaces) {
  publish();
  ASSERT_TRUE(stopBus());
  int signals = 0;
  while (signals < 100'000 && ipc_.objects().changed(things_, 1, {kCount})) {
    ++signals;
  }
  int events = 0;
  for (; events < 100'000; ++events) {
    BaseRequestMessage event;
    event.functionName("Tell");
    event.isBroadcast(true);
    if (!ipc_.SendRequest(event)) {
      break;
    }
  }
  kill(privateBus_.pid(), SIGCONT);
  EXPECT_GE(signals, 1'000);
  EXPECT_GE(events, 1'000);
  EXPECT_LT(events, 3'000);
}

}  // namespace
}  // namespace kova::ipc::testing
