#include "kova/ipc/Objects.h"

#include <signal.h>
#include <sys/wait.h>

#include <fstream>
#include <limits>
#include <map>
#include <sstream>

#include "../src/ObjectServer.h"
#include "BusTest.h"

namespace kova::ipc::testing {
namespace {

constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kManager[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kUnknownObject[] = "org.freedesktop.DBus.Error.UnknownObject";
constexpr char kFailed[] = "org.freedesktop.DBus.Error.Failed";
constexpr char kLimits[] = "org.freedesktop.DBus.Error.LimitsExceeded";

enum BoxRow : std::size_t { kFull, kSeen };
enum ThingRow : std::size_t { kName, kCount, kSize };

const Interface kBox{"kova.Box1", {{"Full", "b", true}, {"Seen", "(ts)", true}}, {}};
const Interface kThing{"kova.Thing1",
                       {{"Name", "s", false}, {"Count", "q", true}, {"Size", "t", true}},
                       {"Stop", "Go"}};

class Box : public PublishedObject {
 public:
  PropertyValue read(std::size_t property) const override {
    if (property == kFull) {
      return full;
    }
    return seen;
  }
  MethodError call(std::size_t) override { return {}; }

  PropertyValue full = true;
  Moment seen{12, "OK"};
};

class Things : public PublishedFolder {
 public:
  struct Thing {
    std::string name;
    std::uint16_t count = 0;
    std::uint64_t size = 0;
  };

  std::vector<std::uint64_t> numbers() const override {
    ++listed;
    std::vector<std::uint64_t> numbers;
    for (const auto& [number, thing] : things) {
      numbers.push_back(number);
    }
    return numbers;
  }
  bool has(std::uint64_t number) const override { return things.contains(number); }
  PropertyValue read(std::uint64_t number, std::size_t property) const override {
    if (broken) {
      throw std::runtime_error("broken");
    }
    const Thing& thing = things.at(number);
    if (property == kName) {
      return thing.name;
    }
    return property == kCount ? PropertyValue(thing.count) : PropertyValue(thing.size);
  }
  MethodError call(std::uint64_t number, std::size_t method) override {
    calls.emplace_back(number, method);
    if (broken) {
      throw std::runtime_error("broken");
    }
    return method == 0 ? MethodError{"kova.Error.Late", "It has \xff stopped."} : MethodError{};
  }

  std::map<std::uint64_t, Thing> things;
  std::vector<std::pair<std::uint64_t, std::size_t>> calls;
  bool broken = false;
  mutable int listed = 0;
};

/// A message received, kept.
struct Received {
  MessagePtr message;
  std::string error;
  std::string text;  ///< of the error
  std::vector<MessagePtr> signals;

  int take(sd_bus_message* arrived, sd_bus_error*) {
    message.reset(sd_bus_message_ref(arrived));
    if (const sd_bus_error* failure = sd_bus_message_get_error(arrived)) {
      error = failure->name;
      text = failure->message;
    }
    return 1;
  }
  int note(sd_bus_message* signal, sd_bus_error*) {
    signals.emplace_back(sd_bus_message_ref(signal));
    return 0;
  }
};

class ObjectsTest : public BusTest {
 protected:
  void publish() {
    EXPECT_TRUE(ipc_.objects().publish(kBox, &box_));
    EXPECT_TRUE(ipc_.objects().publish("things", kThing, &things_));
    things_.things = {{1, {"one", 1, 10}}, {7, {"seven", 7, 70}}};
    join();
  }

  /// Stops the bus, and waits until it has stopped: it may be reading.
  bool stopBus() const {
    return kill(privateBus_.pid(), SIGSTOP) == 0 &&
           waitpid(privateBus_.pid(), nullptr, WUNTRACED) == privateBus_.pid();
  }

  MessagePtr newCall(const char* path, const char* interface, const char* member) {
    sd_bus_message* call = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(stranger_.bus(), &call, "kova.test", path, interface,
                                             member),
              0);
    return MessagePtr(call);
  }
  std::shared_ptr<Received> start(sd_bus_message* call) {
    auto received = std::make_shared<Received>();
    EXPECT_GE(sd_bus_call_async(stranger_.bus(), nullptr, call, callback<&Received::take>,
                                received.get(), 20'000'000),
              0);
    kept_.push_back(received);
    return received;
  }
  std::shared_ptr<Received> ask(sd_bus_message* call) {
    auto received = start(call);
    EXPECT_TRUE(until([&] { return received->message != nullptr; }));
    return received;
  }
  std::shared_ptr<Received> ask(const char* path, const char* interface, const char* member) {
    return ask(newCall(path, interface, member).get());
  }
  std::shared_ptr<Received> get(const char* path, const char* interface, const char* property) {
    const MessagePtr call = newCall(path, kProperties, "Get");
    sd_bus_message_append(call.get(), "ss", interface, property);
    return ask(call.get());
  }
  std::string error(const char* path, const char* interface, const char* member) {
    return ask(path, interface, member)->error;
  }
  std::string name(const char* path) {
    const auto answer = get(path, "kova.Thing1", "Name");
    const char* text = "";
    sd_bus_message_read(answer->message.get(), "v", "s", &text);
    return answer->error.empty() ? text : answer->error;
  }
  std::string introspect(const char* path) {
    const auto answer = ask(path, "org.freedesktop.DBus.Introspectable", "Introspect");
    const char* text = "";
    sd_bus_message_read(answer->message.get(), "s", &text);
    return text;
  }
  // The paths and interfaces that GetManagedObjects tells, as "PATH INTERFACE".
  std::vector<std::string> managed() {
    const auto answer = ask("/kova", kManager, "GetManagedObjects");
    sd_bus_message* body = answer->message.get();
    std::vector<std::string> all;
    const char* path = nullptr;
    const char* interface = nullptr;
    sd_bus_message_enter_container(body, 'a', "{oa{sa{sv}}}");
    while (sd_bus_message_enter_container(body, 'e', "oa{sa{sv}}") > 0) {
      sd_bus_message_read(body, "o", &path);
      sd_bus_message_enter_container(body, 'a', "{sa{sv}}");
      while (sd_bus_message_enter_container(body, 'e', "sa{sv}") > 0) {
        sd_bus_message_read(body, "s", &interface);
        if (std::string_view(interface).starts_with("kova.")) {
          all.push_back(std::string(path) + " " + interface);
        }
        sd_bus_message_skip(body, "a{sv}");
        sd_bus_message_exit_container(body);
      }
      sd_bus_message_exit_container(body);
      sd_bus_message_exit_container(body);
    }
    return answer->error.empty() ? all : std::vector{answer->error};
  }

  // Collects the signals of the endpoint from now on.
  std::shared_ptr<Received> listen() {
    auto heard = std::make_shared<Received>();
    EXPECT_GE(sd_bus_match_signal_async(stranger_.bus(), nullptr, "kova.test", nullptr, nullptr,
                                        nullptr, callback<&Received::note>, nullptr, heard.get()),
              0);
    kept_.push_back(heard);
    introspect("/kova");  // answered after the match is in place
    return heard;
  }

  Box box_;
  Things things_;
  std::vector<std::shared_ptr<Received>> kept_;
};

std::string memberOf(const MessagePtr& signal) {
  return std::string(sd_bus_message_get_path(signal.get())) + " " +
         sd_bus_message_get_member(signal.get());
}

TEST_F(ObjectsTest, PropertiesAreReadAsTheirTypes) {
  publish();
  int full = 0;
  const auto flag = get("/kova", "kova.Box1", "Full");
  ASSERT_GE(sd_bus_message_read(flag->message.get(), "v", "b", &full), 0) << flag->error;
  EXPECT_EQ(full, 1);
  std::uint64_t time = 0;
  const char* what = "";
  const auto moment = get("/kova", "kova.Box1", "Seen");
  ASSERT_GE(sd_bus_message_read(moment->message.get(), "v", "(ts)", &time, &what), 0)
      << moment->error;
  EXPECT_EQ(time, 12U);
  EXPECT_STREQ(what, "OK");
  EXPECT_EQ(name("/kova/things/7"), "seven");
  std::uint16_t count = 0;
  const auto number = get("/kova/things/1", "kova.Thing1", "Count");
  ASSERT_GE(sd_bus_message_read(number->message.get(), "v", "q", &count), 0);
  EXPECT_EQ(count, 1U);
  std::uint64_t size = 0;
  const auto large = get("/kova/things/1", "kova.Thing1", "Size");
  ASSERT_GE(sd_bus_message_read(large->message.get(), "v", "t", &size), 0);
  EXPECT_EQ(size, 10U);
}

TEST_F(ObjectsTest, ManagerTellsWhatIsThere) {
  publish();
  EXPECT_EQ(managed(),
            (std::vector<std::string>{"/kova/things/1 kova.Thing1", "/kova/things/7 kova.Thing1"}));
  things_.things.clear();
  EXPECT_TRUE(managed().empty());
}

TEST_F(ObjectsTest, IntrospectionTellsNodesAndInterfaces) {
  publish();
  const std::string root = introspect("/kova");
  for (const char* part : {"interface name=\"kova.Ipc1\"", "interface name=\"kova.Box1\"",
                           "interface name=\"org.freedesktop.DBus.ObjectManager\"",
                           "<node name=\"things\"/>", "name=\"Seen\" type=\"(ts)\""}) {
    EXPECT_NE(root.find(part), std::string::npos) << part << " is not in\n" << root;
  }
  const std::string folder = introspect("/kova/things");
  EXPECT_NE(folder.find("<node name=\"7\"/>"), std::string::npos) << folder;
  const std::string thing = introspect("/kova/things/7");
  EXPECT_NE(thing.find("<method name=\"Stop\">"), std::string::npos) << thing;
  EXPECT_EQ(thing.find("kova.Ipc1"), std::string::npos) << thing;
}

TEST_F(ObjectsTest, NothingPublishedMeansNoManager) {
  join();
  EXPECT_EQ(error("/kova", kManager, "GetManagedObjects"),
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(introspect("/kova").find("<node name=\""), std::string::npos);
}

TEST_F(ObjectsTest, MessagesPassBesideObjects) {
  Recorder handler(&ipc_);
  ipc_.AddHandler("Tell", &handler);
  publish();
  EXPECT_EQ(call("Tell").error, "");
  EXPECT_EQ(handler.requests.size(), 1U);
  EXPECT_EQ(error("/kova/things/1", "kova.Ipc1", "Send"),
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(error("/kova", nullptr, "Send"), "kova.Error.InvalidMessage");
}

TEST_F(ObjectsTest, PathsOfNothingAreUnknown) {
  publish();
  for (const char* path :
       {"/kova/things/0", "/kova/things/01", "/kova/things/2", "/kova/things/x",
        "/kova/things/18446744073709551615", "/kova/things/18446744073709551616",
        "/kova/things/18446744073709551617", "/kova/things/1_", "/kova/things/_31",
        "/kova/things/1/1", "/kova/thing/1", "/kova/things1", "/kova/things/7x"}) {
    EXPECT_EQ(name(path), kUnknownObject) << path;
    EXPECT_EQ(error(path, "kova.Thing1", "Stop"), kUnknownObject) << path;
  }
  EXPECT_TRUE(things_.calls.empty());
  EXPECT_TRUE(ipc_.Service(0));
}

TEST(ObjectNumberTest, IsDecimalAndCanonical) {
  const auto number = [](const char* path) { return objectNumber("/a/b", path); };
  EXPECT_EQ(number("/a/b/1"), 1U);
  EXPECT_EQ(number("/a/b/18446744073709551615"), std::numeric_limits<std::uint64_t>::max());
  for (const char* path : {"",         "/",
                           "/a/b",     "/a/b/",
                           "/a/b/0",   "/a/b/00",
                           "/a/b/01",  "/a/b/-1",
                           "/a/b/+1",  "/a/b/ 1",
                           "/a/b/1 ",  "/a/b/0x1",
                           "/a/b/1e1", "/a/b/18446744073709551616",
                           "/a/b1",    "/a/c/1",
                           "1",        "/a/b/1/",
                           "/a/b//1",  "/a/b/99999999999999999999999999999999999999"}) {
    EXPECT_EQ(number(path), 0U) << path;
  }
}

TEST_F(ObjectsTest, NothingCanBeWritten) {
  publish();
  const MessagePtr call = newCall("/kova/things/1", kProperties, "Set");
  sd_bus_message_append(call.get(), "ssv", "kova.Thing1", "Name", "s", "other");
  EXPECT_EQ(ask(call.get())->error, "org.freedesktop.DBus.Error.PropertyReadOnly");
  EXPECT_EQ(name("/kova/things/1"), "one");
}

TEST_F(ObjectsTest, MethodsAnswerOrTellTheirError) {
  publish();
  EXPECT_EQ(error("/kova/things/7", "kova.Thing1", "Go"), "");
  const auto refused = ask("/kova/things/1", "kova.Thing1", "Stop");
  EXPECT_EQ(refused->error, "kova.Error.Late");
  EXPECT_EQ(refused->text, "It has ? stopped.");
  EXPECT_EQ(things_.calls, (std::vector<std::pair<std::uint64_t, std::size_t>>{{7, 1}, {1, 0}}));
  EXPECT_EQ(error("/kova/things/1", "kova.Thing1", "Other"),
            "org.freedesktop.DBus.Error.UnknownMethod");
  const MessagePtr withArgument = newCall("/kova/things/1", "kova.Thing1", "Stop");
  sd_bus_message_append(withArgument.get(), "s", "now");
  EXPECT_EQ(ask(withArgument.get())->error, "org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(things_.calls.size(), 2U);
}

TEST_F(ObjectsTest, ExceptionsStayInProcess) {
  publish();
  things_.broken = true;
  EXPECT_EQ(name("/kova/things/1"), kFailed);
  EXPECT_EQ(error("/kova/things/1", "kova.Thing1", "Go"), kFailed);
  EXPECT_EQ(managed(), std::vector<std::string>{kFailed});
  EXPECT_TRUE(ipc_.objects().changed(things_, 1, {kCount}));
  things_.broken = false;
  EXPECT_EQ(name("/kova/things/1"), "one");
}

TEST_F(ObjectsTest, ValueOfOtherTypeFailsItsRead) {
  publish();
  box_.full = std::string("yes");
  EXPECT_NE(get("/kova", "kova.Box1", "Full")->error, "");
  EXPECT_EQ(get("/kova", "kova.Box1", "Seen")->error, "");
}

TEST_F(ObjectsTest, ChangesAreSignalled) {
  publish();
  const auto heard = listen();
  things_.things[9] = {"nine", 9, 90};
  ASSERT_TRUE(ipc_.objects().added(things_, 9));
  ASSERT_TRUE(ipc_.objects().changed(things_, 9, {kCount, kSize}));
  things_.things.erase(9);
  ASSERT_TRUE(ipc_.objects().removed(things_, 9));
  ASSERT_TRUE(ipc_.objects().changed(box_, {kFull}));
  ASSERT_TRUE(until([&] { return heard->signals.size() == 4; }));

  EXPECT_EQ(memberOf(heard->signals[0]), "/kova InterfacesAdded");
  const char* path = "";
  EXPECT_GT(sd_bus_message_read(heard->signals[0].get(), "o", &path), 0);
  EXPECT_STREQ(path, "/kova/things/9");

  EXPECT_EQ(memberOf(heard->signals[1]), "/kova/things/9 PropertiesChanged");
  const char* interface = "";
  const char* first = "";
  const char* second = "";
  std::uint16_t count = 0;
  std::uint64_t size = 0;
  EXPECT_GT(sd_bus_message_read(heard->signals[1].get(), "sa{sv}", &interface, 2, &first, "q",
                                &count, &second, "t", &size),
            0);
  EXPECT_STREQ(interface, "kova.Thing1");
  EXPECT_STREQ(first, "Count");
  EXPECT_EQ(count, 9U);
  EXPECT_STREQ(second, "Size");
  EXPECT_EQ(size, 90U);

  EXPECT_EQ(memberOf(heard->signals[2]), "/kova InterfacesRemoved");
  EXPECT_GT(sd_bus_message_read(heard->signals[2].get(), "o", &path), 0);
  EXPECT_STREQ(path, "/kova/things/9");
  EXPECT_EQ(memberOf(heard->signals[3]), "/kova PropertiesChanged");
}

// A client keeps an object until all interfaces that it was told of are removed.
TEST_F(ObjectsTest, WhatIsRemovedIsWhatWasAdded) {
  publish();
  const auto heard = listen();
  ipc_.objects().added(things_, 1);
  ipc_.objects().removed(things_, 1);
  ASSERT_TRUE(until([&] { return heard->signals.size() == 2; }));
  std::set<std::string> added;
  std::set<std::string> removed;
  const char* text = nullptr;
  sd_bus_message* body = heard->signals[0].get();
  sd_bus_message_skip(body, "o");
  sd_bus_message_enter_container(body, 'a', "{sa{sv}}");
  while (sd_bus_message_enter_container(body, 'e', "sa{sv}") > 0) {
    sd_bus_message_read(body, "s", &text);
    added.insert(text);
    sd_bus_message_skip(body, "a{sv}");
    sd_bus_message_exit_container(body);
  }
  body = heard->signals[1].get();
  sd_bus_message_skip(body, "o");
  sd_bus_message_enter_container(body, 'a', "s");
  while (sd_bus_message_read(body, "s", &text) > 0) {
    removed.insert(text);
  }
  EXPECT_TRUE(added.contains("kova.Thing1"));
  EXPECT_EQ(added, removed);
}

TEST_F(ObjectsTest, PublishingIsForBeforeJoining) {
  EXPECT_TRUE(ipc_.objects().publish(kBox, &box_));
  EXPECT_FALSE(ipc_.objects().changed(box_, {kFull}));
  join();
  EXPECT_FALSE(ipc_.objects().publish("things", kThing, &things_));
  EXPECT_FALSE(ipc_.objects().added(things_, 1));
  EXPECT_TRUE(ipc_.objects().changed(box_, {kFull}));
}

TEST_F(ObjectsTest, JoinCanBeTriedAgain) {
  Ipc first;
  ASSERT_TRUE(first.Init("test", false, nullptr));
  EXPECT_TRUE(ipc_.objects().publish(kBox, &box_));
  EXPECT_FALSE(ipc_.Init("test", false, nullptr));
  ASSERT_TRUE(ipc_.Init("test2", false, nullptr));
  EXPECT_TRUE(ipc_.objects().changed(box_, {kFull}));
}

TEST(ShownTextTest, IsUtf8AndBounded) {
  EXPECT_EQ(shownText("", 9), "");
  EXPECT_EQ(shownText("Grüße", 9), "Grüße");
  EXPECT_EQ(shownText("a\xff\xc3z", 9), "a??z");
  EXPECT_EQ(shownText(std::string("a\0b", 3), 9), "a?b");
  EXPECT_EQ(shownText("\xed\xa0\x80", 9), "???");
  EXPECT_EQ(shownText("aüü", 4), "aü");
  EXPECT_EQ(shownText(std::string(10'000, 'x'), 4096), std::string(4096, 'x'));
}

TEST_F(ObjectsTest, OddTextsAreShownRepaired) {
  publish();
  things_.things[1].name = std::string("a\xfe\0b", 4);
  EXPECT_EQ(name("/kova/things/1"), "a??b");
  things_.things[1].name = std::string(2'000'000, 'y');
  EXPECT_EQ(name("/kova/things/1").size(), Objects::kMostTextBytes);
}

// A longer answer would cost the endpoint its connection to the bus.
TEST_F(ObjectsTest, AnswerAboutTooManyObjectsIsRefused) {
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

TEST_F(ObjectsTest, FloodOfReadsIsServedInPasses) {
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
TEST_F(ObjectsTest, LargeAnswersToDeafPeerDoNotPileUp) {
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

TEST_F(ObjectsTest, SignalsAreRefusedWhileBusDoesNotRead) {
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

TEST_F(ObjectsTest, SignalsLeaveEventsTheirPlaces) {
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
