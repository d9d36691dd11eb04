#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "../src/ObjectServer.h"
#include "BusTest.h"
#include "kova/ipc/Objects.h"

namespace kova::ipc::testing {

inline constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
inline constexpr char kManager[] = "org.freedesktop.DBus.ObjectManager";
inline constexpr char kUnknownObject[] = "org.freedesktop.DBus.Error.UnknownObject";
inline constexpr char kFailed[] = "org.freedesktop.DBus.Error.Failed";
inline constexpr char kLimits[] = "org.freedesktop.DBus.Error.LimitsExceeded";

// Places of the box's properties, then of a thing's.
inline constexpr std::size_t kFull = 0;
inline constexpr std::size_t kSeen = 1;

inline constexpr std::size_t kName = 0;
inline constexpr std::size_t kCount = 1;
inline constexpr std::size_t kSize = 2;

inline const Interface kBox{"kova.Box1", {{"Full", "b", true}, {"Seen", "(ts)", true}}, {}};
inline const Interface kThing{"kova.Thing1",
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
    if (broken) {
      throw std::runtime_error("broken");
    }
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

/// The answer to a call, and signals.
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

  MessagePtr newCall(const char* path, const char* interface, const char* member) {
    return stranger_.newCall("test", path, interface, member);
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
  // Reads a property, expecting these types.
  template <typename... Values>
  void read(const char* path, const char* interface, const char* property, const char* types,
            Values*... values) {
    const auto answer = get(path, interface, property);
    ASSERT_GE(sd_bus_message_read(answer->message.get(), "v", types, values...), 0)
        << property << ": " << answer->error;
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
  // Number of objects in an answer of GetManagedObjects, counting duplicates.
  static std::size_t told(sd_bus_message* answer) {
    constexpr char kObject[] = "{oa{sa{sv}}}";
    EXPECT_GE(sd_bus_message_rewind(answer, 1), 0);
    EXPECT_GE(sd_bus_message_enter_container(answer, 'a', kObject), 0);
    std::size_t count = 0;
    while (sd_bus_message_at_end(answer, 0) == 0 && sd_bus_message_skip(answer, kObject) >= 0) {
      ++count;
    }
    return count;
  }
  // The paths and interfaces that GetManagedObjects lists, as "PATH INTERFACE".
  std::vector<std::string> managed() {
    const auto answer = ask("/kova", kManager, "GetManagedObjects");
    if (!answer->error.empty()) {
      return {answer->error};
    }
    std::vector<std::string> all;
    Variant objects;
    std::string reason;
    EXPECT_TRUE(wire::decodeAnswer(answer->message.get(), objects, reason)) << reason;
    EXPECT_EQ(told(answer->message.get()), objects.Size()) << "an object is listed twice";
    for (const auto& [path, interfaces] : objects.elements()) {
      for (const auto& [interface, properties] : interfaces.elements()) {
        if (interface.starts_with("kova.")) {
          all.push_back(path + " " + interface);
        }
      }
    }
    return all;
  }

  // Collects the signals of the endpoint from now on.
  std::shared_ptr<Received> listen() {
    auto heard = std::make_shared<Received>();
    EXPECT_GE(sd_bus_match_signal_async(stranger_.bus(), nullptr, "kova.test", nullptr, nullptr,
                                        nullptr, callback<&Received::note>, nullptr, heard.get()),
              0);
    kept_.push_back(heard);
    introspect("/kova");  // its answer follows the installation of the match
    return heard;
  }

  Box box_;
  Things things_;
  std::vector<std::shared_ptr<Received>> kept_;
};

}  // namespace kova::ipc::testing
