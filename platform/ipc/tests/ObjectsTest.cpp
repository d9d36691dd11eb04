#include "kova/ipc/Objects.h"

#include <limits>
#include <set>

#include "ObjectsFixture.h"
#include "SyslogRecorder.h"

namespace kova::ipc::testing {
namespace {

std::string memberOf(const MessagePtr& signal) {
  return std::string(sd_bus_message_get_path(signal.get())) + " " +
         sd_bus_message_get_member(signal.get());
}

std::string signatureOf(const MessagePtr& signal) {
  return sd_bus_message_get_signature(signal.get(), 1);
}

Variant argumentsOf(const MessagePtr& signal) {
  Variant arguments;
  wire::decodeArguments(signal.get(), arguments);
  return arguments;
}

TEST_F(ObjectsTest, PropertiesAreReadAsTheirTypes) {
  publish();
  int full = 0;
  read("/kova", "kova.Box1", "Full", "b", &full);
  EXPECT_EQ(full, 1);
  box_.full = false;
  read("/kova", "kova.Box1", "Full", "b", &full);
  EXPECT_EQ(full, 0);
  std::uint16_t count = 0;
  read("/kova/things/1", "kova.Thing1", "Count", "q", &count);
  EXPECT_EQ(count, 1U);
  std::uint64_t size = 0;
  read("/kova/things/1", "kova.Thing1", "Size", "t", &size);
  EXPECT_EQ(size, 10U);
  EXPECT_EQ(name("/kova/things/7"), "seven");
  std::uint64_t time = 0;
  const char* what = "";
  read("/kova", "kova.Box1", "Seen", "(ts)", &time, &what);
  EXPECT_EQ(time, 12U);
  EXPECT_STREQ(what, "OK");
}

TEST_F(ObjectsTest, ManagerListsObjects) {
  publish();
  things_.things[3] = {};
  EXPECT_EQ(managed(),
            (std::vector<std::string>{"/kova/things/1 kova.Thing1", "/kova/things/3 kova.Thing1",
                                      "/kova/things/7 kova.Thing1"}));
  things_.things.clear();
  EXPECT_TRUE(managed().empty());
}

TEST_F(ObjectsTest, IntrospectionListsNodesAndInterfaces) {
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
  EXPECT_EQ((root + thing).find("Deprecated"), std::string::npos) << root << thing;
}

TEST_F(ObjectsTest, NothingPublishedMeansNoManager) {
  join();
  EXPECT_EQ(error("/kova", kManager, "GetManagedObjects"),
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(introspect("/kova").find("<node name=\""), std::string::npos);
}

TEST_F(ObjectsTest, MessagesPassBesideObjects) {
  Recorder handler(&ipc_, "Tell");
  publish();
  EXPECT_EQ(call("Tell").error, "");
  EXPECT_EQ(handler.requests.size(), 1U);
  EXPECT_EQ(error("/kova/things/1", "kova.Ipc1", "Send"),
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(error("/kova", nullptr, "Send"), "kova.Error.InvalidMessage");
}

TEST_F(ObjectsTest, NonexistentPathsAreUnknown) {
  publish();
  for (const char* path :
       {"/kova/things/01", "/kova/things/2", "/kova/things/x", "/kova/things/18446744073709551617",
        "/kova/things/_31", "/kova/things/1/1", "/kova/thing/1", "/kova/things1"}) {
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

TEST_F(ObjectsTest, PropertiesAreReadOnly) {
  publish();
  const MessagePtr call = newCall("/kova/things/1", kProperties, "Set");
  sd_bus_message_append(call.get(), "ssv", "kova.Thing1", "Name", "s", "other");
  EXPECT_EQ(ask(call.get())->error, "org.freedesktop.DBus.Error.PropertyReadOnly");
  EXPECT_EQ(name("/kova/things/1"), "one");
}

TEST_F(ObjectsTest, MethodsAnswerOrReturnError) {
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

TEST_F(ObjectsTest, ExceptionsBecomeErrors) {
  publish();
  things_.broken = true;
  EXPECT_EQ(name("/kova/things/1"), kFailed);
  EXPECT_EQ(error("/kova/things/1", "kova.Thing1", "Go"), kFailed);
  EXPECT_EQ(managed(), std::vector<std::string>{kFailed});
  EXPECT_EQ(error("/kova/things", "org.freedesktop.DBus.Introspectable", "Introspect"), kFailed);
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
  tests::records.clear();
  const auto heard = listen();
  things_.things[9] = {"nine", 9, 90};
  ASSERT_TRUE(ipc_.objects().added(things_, 9));
  ASSERT_TRUE(ipc_.objects().changed(things_, 9, {kCount, kSize}));
  things_.things.erase(9);
  ASSERT_TRUE(ipc_.objects().removed(things_, 9));
  ASSERT_TRUE(ipc_.objects().changed(box_, {kFull}));
  ASSERT_TRUE(until([&] { return heard->signals.size() == 4; }));

  EXPECT_EQ(memberOf(heard->signals[0]), "/kova InterfacesAdded");
  EXPECT_EQ(signatureOf(heard->signals[0]), "oa{sa{sv}}");
  EXPECT_EQ(argumentsOf(heard->signals[0]).items()[0], Variant("/kova/things/9"));
  EXPECT_EQ(memberOf(heard->signals[1]), "/kova/things/9 PropertiesChanged");
  const Variant::Map changed{{"Count", std::uint32_t{9}}, {"Size", std::uint64_t{90}}};
  EXPECT_EQ(argumentsOf(heard->signals[1]),
            (Variant::Array{"kova.Thing1", changed, Variant::Array{}}));
  EXPECT_EQ(memberOf(heard->signals[2]), "/kova InterfacesRemoved");
  EXPECT_EQ(signatureOf(heard->signals[2]), "oas");
  EXPECT_EQ(argumentsOf(heard->signals[2]).items()[0], Variant("/kova/things/9"));
  EXPECT_EQ(memberOf(heard->signals[3]), "/kova PropertiesChanged");
  EXPECT_TRUE(tests::records.empty());
}

// A client keeps an object until all its announced interfaces are removed.
TEST_F(ObjectsTest, RemovedInterfacesMatchAddedOnes) {
  publish();
  const auto heard = listen();
  ipc_.objects().added(things_, 1);
  ipc_.objects().removed(things_, 1);
  ASSERT_TRUE(until([&] { return heard->signals.size() == 2; }));
  const Variant toldAdded = argumentsOf(heard->signals[0]);
  const Variant toldRemoved = argumentsOf(heard->signals[1]);
  std::set<std::string> added;
  std::set<std::string> removed;
  for (const auto& [interface, properties] : toldAdded.items()[1].elements()) {
    added.insert(interface);
  }
  for (const Variant& interface : toldRemoved.items()[1].items()) {
    removed.insert(interface.toText());
  }
  EXPECT_TRUE(added.contains("kova.Thing1"));
  EXPECT_EQ(added, removed);
}

TEST_F(ObjectsTest, PublishingAfterJoiningFails) {
  EXPECT_TRUE(ipc_.objects().publish(kBox, &box_));
  EXPECT_FALSE(ipc_.objects().changed(box_, {kFull}));
  join();
  EXPECT_FALSE(ipc_.objects().publish("things", kThing, &things_));
  EXPECT_FALSE(ipc_.objects().added(things_, 1));
  EXPECT_TRUE(ipc_.objects().changed(box_, {kFull}));
}

TEST_F(ObjectsTest, InvalidInterfaceFailsJoin) {
  EXPECT_TRUE(ipc_.objects().publish({"invalid", {}, {}}, &box_));
  EXPECT_FALSE(ipc_.Init("test", false, nullptr));
}

TEST_F(ObjectsTest, JoinCanBeRetried) {
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
  EXPECT_EQ(shownText("a\uFDD0b\uFFFFc", 9), "a?b?c") << "noncharacters";
  EXPECT_EQ(shownText("aüü", 4), "aü");
  EXPECT_EQ(shownText(std::string(10'000, 'x'), 4096), std::string(4096, 'x'));
}

TEST_F(ObjectsTest, OddTextsAreShownRepaired) {
  publish();
  things_.things[1].name = std::string("a\xfe\0b", 4);
  EXPECT_EQ(name("/kova/things/1"), "a??b");
  things_.things[1].name = std::string(2'000'000, 'y');
  EXPECT_EQ(name("/kova/things/1").size(), Objects::kMaxTextBytes);
}

}  // namespace
}  // namespace kova::ipc::testing
