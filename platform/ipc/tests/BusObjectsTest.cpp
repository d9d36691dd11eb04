#include "kova/ipc/BusObjects.h"

#include "BusTest.h"

namespace kova::ipc::testing {
namespace {

constexpr std::uint32_t kPatienceMs = 10000;

/// An endpoint whose answers a test composes. Answers every method call at and below "/kova".
class Publisher {
 public:
  using Compose = std::function<int(sd_bus_message* reply)>;

  explicit Publisher(Compose compose) : compose_(std::move(compose)) {
    std::string error;
    bus_ = openBus(false, error);
    EXPECT_NE(bus_, nullptr) << error;
    sd_bus_slot* slot = nullptr;
    EXPECT_GE(sd_bus_add_fallback(bus_.get(), &slot, "/kova", callback<&Publisher::onCall>, this),
              0);
    slot_.reset(slot);
    EXPECT_GE(sd_bus_request_name(bus_.get(), "kova.published", 0), 0);
  }

  void Service() {
    while (sd_bus_process(bus_.get(), nullptr) > 0) {
    }
  }
  /// @param destination null for a broadcast
  void signal(const char* path, const char* destination = nullptr) {
    sd_bus_message* created = nullptr;
    EXPECT_GE(sd_bus_message_new_signal(bus_.get(), &created, path, "kova.Ipc1", "Broadcast"), 0);
    const MessagePtr message(created);
    EXPECT_GE(sd_bus_message_append(created, "a{os}", 1, "/kova", "text"), 0);
    EXPECT_GE(sd_bus_send_to(bus_.get(), created, destination, nullptr), 0);
    // Once the bus answers, it has forwarded the signal.
    awaitBus(bus_.get());
  }

  std::string caller;              ///< unique name of the last caller
  std::vector<std::string> calls;  ///< path, interface and member, and the argument

 private:
  int onCall(sd_bus_message* call, sd_bus_error*) {
    std::string seen = std::string(sd_bus_message_get_path(call)) + " " +
                       sd_bus_message_get_interface(call) + "." + sd_bus_message_get_member(call);
    const char* argument = nullptr;
    if (sd_bus_message_has_signature(call, "s") > 0 &&
        sd_bus_message_read(call, "s", &argument) > 0) {
      seen += std::string(" ") + argument;
    }
    calls.push_back(seen);
    caller = sd_bus_message_get_sender(call);
    if (!compose_) {
      return sd_bus_reply_method_errorf(call, "kova.Error.Busy", "it is being %s", "flashed");
    }
    sd_bus_message* created = nullptr;
    EXPECT_GE(sd_bus_message_new_method_return(call, &created), 0);
    const MessagePtr reply(created);
    EXPECT_GE(compose_(created), 0);
    return sd_bus_send(nullptr, created, nullptr);
  }

  Compose compose_;
  BusPtr bus_;
  SlotPtr slot_;
};

class BusObjectsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(objects_.open(error)) << error;
  }
  BusObjects::Receiver keep() {
    return [this](const BusObjects::Answer& answer) { answers_.push_back(answer); };
  }
  bool until(Publisher* publisher, const std::function<bool()>& done) {
    const std::uint64_t deadline = utils::nowMs() + kPatienceMs;
    while (!done() && utils::nowMs() < deadline) {
      if (publisher != nullptr) {
        publisher->Service();
      }
      if (!objects_.Service(5)) {
        return done();
      }
    }
    return done();
  }
  BusObjects::Answer answered(Publisher* publisher) {
    EXPECT_TRUE(until(publisher, [this] { return !answers_.empty(); }));
    return answers_.empty() ? BusObjects::Answer{} : answers_.back();
  }
  BusObjects::Answer readAll(Publisher* publisher, std::uint32_t patienceMs = kPatienceMs) {
    answers_.clear();
    EXPECT_TRUE(objects_.readAll(patienceMs, keep()));
    return answered(publisher);
  }

  PrivateBus bus_;
  BusObjects objects_{"published"};
  std::vector<BusObjects::Answer> answers_;
};

TEST_F(BusObjectsTest, ReadsPropertiesOfEveryType) {
  Publisher publisher([](sd_bus_message* reply) {
    return sd_bus_message_append(reply, "a{sv}", 5, "Text", "s", "x", "Long", "t", UINT64_MAX,
                                 "Short", "q", 404, "Flag", "b", 1, "Save", "(ts)",
                                 std::uint64_t{7}, "failed");
  });
  ASSERT_TRUE(objects_.read("/kova/transfers/7", "kova.Transfer1", kPatienceMs, keep()));
  const auto answer = answered(&publisher);
  EXPECT_EQ(answer.error, "");
  EXPECT_EQ(*answer.value.find("Text"), Variant("x"));
  EXPECT_EQ(*answer.value.find("Long"), Variant(UINT64_MAX));
  EXPECT_EQ(answer.value.find("Short")->toNumber<int>(), 404);
  EXPECT_EQ(*answer.value.find("Flag"), Variant(true));
  EXPECT_EQ(*answer.value.find("Save"), (Variant(Variant::Array{std::uint64_t{7}, "failed"})));
  EXPECT_EQ(publisher.calls,
            std::vector<std::string>{
                "/kova/transfers/7 org.freedesktop.DBus.Properties.GetAll kova.Transfer1"});
}

TEST_F(BusObjectsTest, ReadsAllObjectsByPath) {
  Publisher publisher([](sd_bus_message* reply) {
    return sd_bus_message_append(reply, "a{oa{sa{sv}}}", 2, "/kova/transfers/1", 1,
                                 "kova.Transfer1", 1, "Kind", "s", "logo", "/kova/transfers/2", 0);
  });
  const Variant all = readAll(&publisher).value;
  ASSERT_EQ(all.Size(), 2U);
  EXPECT_EQ(all.find("/kova/transfers/1")->find("kova.Transfer1")->find("Kind")->toText(), "logo");
  EXPECT_EQ(publisher.calls,
            std::vector<std::string>{"/kova org.freedesktop.DBus.ObjectManager.GetManagedObjects"});
}

TEST_F(BusObjectsTest, CallsMethodsAndReportsErrors) {
  Publisher publisher(nullptr);
  ASSERT_TRUE(objects_.call("/kova/transfers/7", "kova.Transfer1", "Cancel", kPatienceMs, keep()));
  const auto answer = answered(&publisher);
  EXPECT_EQ(answer.error, "kova.Error.Busy");
  EXPECT_EQ(answer.text, "it is being flashed");
  EXPECT_EQ(publisher.calls, std::vector<std::string>{"/kova/transfers/7 kova.Transfer1.Cancel"});
}

TEST_F(BusObjectsTest, AnswerWithoutValueIsEmpty) {
  Publisher publisher([](sd_bus_message*) { return 0; });
  ASSERT_TRUE(objects_.call("/kova", "kova.Any1", "Any", kPatienceMs, keep()));
  const auto answer = answered(&publisher);
  EXPECT_EQ(answer.error, "");
  EXPECT_TRUE(answer.value.isEmpty());
}

TEST_F(BusObjectsTest, OversizedAndOddAnswersAreErrors) {
  const std::string large(wire::kMaxBodySize + 1, 'x');
  const Publisher::Compose odd[] = {
      [&](sd_bus_message* reply) {
        return sd_bus_message_append(reply, "a{sv}", 1, "Text", "s", large.c_str());
      },
      [](sd_bus_message* reply) { return sd_bus_message_append(reply, "ss", "one", "two"); },
      [](sd_bus_message* reply) { return sd_bus_message_append(reply, "a{us}", 1, 7U, "x"); },
  };
  for (const auto& compose : odd) {
    Publisher publisher(compose);
    const auto answer = readAll(&publisher);
    EXPECT_EQ(answer.error, "kova.Error.InvalidMessage");
    EXPECT_NE(answer.text, "");
    EXPECT_TRUE(answer.value.isEmpty());
  }
}

TEST_F(BusObjectsTest, AbsentAndSilentEndpointsAreErrors) {
  EXPECT_EQ(readAll(nullptr).error, "org.freedesktop.DBus.Error.ServiceUnknown");
  const Publisher mute(nullptr);
  EXPECT_EQ(readAll(nullptr, 50).error, "org.freedesktop.DBus.Error.NoReply");
}

TEST_F(BusObjectsTest, NewCallAbandonsPendingOne) {
  Publisher publisher([number = 0](sd_bus_message* reply) mutable {
    return sd_bus_message_append(reply, "u", ++number);
  });
  ASSERT_TRUE(objects_.readAll(kPatienceMs, [](const auto&) { ADD_FAILURE(); }));
  ASSERT_TRUE(objects_.call("/kova", "kova.Any1", "Any", kPatienceMs, keep()));
  answered(&publisher);
  EXPECT_EQ(publisher.calls.size(), 2U);
  ASSERT_EQ(answers_.size(), 1U);
  EXPECT_EQ(answers_[0].value, Variant(2U));
}

TEST_F(BusObjectsTest, StaysWithOneProcess) {
  const Publisher::Compose empty = [](sd_bus_message*) { return 0; };
  auto first = std::make_unique<Publisher>(empty);
  objects_.keepTo(readAll(first.get()).sender);
  EXPECT_EQ(readAll(first.get()).error, "");
  first.reset();
  Publisher second(empty);
  EXPECT_EQ(readAll(&second).error, "org.freedesktop.DBus.Error.ServiceUnknown");
}

TEST_F(BusObjectsTest, ReceiversMayStartNextCall) {
  Publisher publisher([](sd_bus_message*) { return 0; });
  ASSERT_TRUE(objects_.readAll(
      kPatienceMs, [this](const auto&) { EXPECT_TRUE(objects_.readAll(kPatienceMs, keep())); }));
  EXPECT_EQ(answered(&publisher).error, "");
}

TEST_F(BusObjectsTest, FollowsSignalsBelowOnePath) {
  Publisher publisher(nullptr);
  std::vector<BusObjects::Signal> changes;
  ASSERT_TRUE(
      objects_.follow("/kova/transfers/7", [&](const auto& signal) { changes.push_back(signal); }));
  publisher.signal("/kova/transfers/8");
  publisher.signal("/kova/transfers/70");
  publisher.signal("/kova/transfers/7");
  EXPECT_TRUE(until(&publisher, [&] { return !changes.empty(); }));
  readAll(&publisher);  // its answer follows all signals
  ASSERT_EQ(changes.size(), 1U);
  EXPECT_EQ(changes[0].interface + "." + changes[0].name, "kova.Ipc1.Broadcast");
  EXPECT_EQ(changes[0].arguments, Variant(Variant::Array{Variant::Map{{"/kova", "text"}}}));

  int others = 0;
  ASSERT_TRUE(objects_.follow("/kova/transfers/8", [&](const auto&) { ++others; }));
  publisher.signal("/kova/transfers/7");
  publisher.signal("/kova/transfers/8");
  EXPECT_TRUE(until(&publisher, [&] { return others > 0; }));
  EXPECT_EQ(others, 1);
}

TEST_F(BusObjectsTest, ServiceWaitsOnlyForFirstMessage) {
  Publisher publisher(nullptr);
  int changes = 0;
  ASSERT_TRUE(objects_.follow("/kova", [&](const auto&) { ++changes; }));
  readAll(&publisher);
  publisher.signal("/kova/transfers/7");
  const std::uint64_t before = utils::nowMs();
  while (changes == 0 && objects_.Service(kPatienceMs)) {
  }
  EXPECT_LT(utils::nowMs() - before, kPatienceMs / 2);
}

TEST_F(BusObjectsTest, DirectedSignalsAreIgnored) {
  Publisher publisher(nullptr);
  int changes = 0;
  ASSERT_TRUE(objects_.follow("/kova", [&](const auto&) { ++changes; }));
  readAll(&publisher);
  publisher.signal("/kova/transfers/7", publisher.caller.c_str());
  readAll(&publisher);  // its answer follows the signal
  EXPECT_EQ(changes, 0);
}

TEST_F(BusObjectsTest, InvalidPathsAndClosedConnectionsFail) {
  EXPECT_FALSE(objects_.read("kova", "kova.Any1", kPatienceMs, keep()));
  EXPECT_FALSE(objects_.call("/kova", "not an interface", "Any", kPatienceMs, keep()));
  BusObjects closed("published");
  EXPECT_FALSE(closed.readAll(kPatienceMs, keep()));
  EXPECT_FALSE(closed.read("/kova", "kova.Any1", kPatienceMs, keep()));
  EXPECT_FALSE(closed.follow("/kova", nullptr));
  EXPECT_FALSE(closed.Service(0));
  closed.keepTo(":1.1");
  bus_.kill();
  EXPECT_FALSE(until(nullptr, [] { return false; }));
  EXPECT_FALSE(objects_.Service(0));
}

}  // namespace
}  // namespace kova::ipc::testing
