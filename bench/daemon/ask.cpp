// Requests statistics from an endpoint and times the answers.
//
//   bench_ask NAME SECTIONS one COUNT
//       sends COUNT requests, one at a time; prints the duration of each in microseconds, one per
//       line
//   bench_ask NAME SECTIONS many OUTSTANDING SECONDS
//       keeps OUTSTANDING requests pending for SECONDS; prints the answers per second
//
// NAME is the bus name of the endpoint. SECTIONS is "all", or "uptime" for only that section. Exits
// with status 1 on an error or an answer whose status code is not 0.

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>

#include "bus.h"

namespace {

using bench::check;
using bench::Clock;
using bench::MessagePtr;

constexpr auto kPatience = std::chrono::seconds(10);

constexpr const char* kAllButUptime[] = {"memory",  "cpu",  "cpuInfo", "loadavg",
                                         "network", "wifi", "battery"};

/// Reads the map at the read position of the message. True if its status code is 0.
bool succeeded(sd_bus_message* answer) {
  bool found = false;
  check(sd_bus_message_enter_container(answer, 'a', "{sv}"), "reading an answer");
  while (sd_bus_message_enter_container(answer, 'e', "sv") > 0) {
    const char* key = nullptr;
    check(sd_bus_message_read(answer, "s", &key), "reading a key");
    if (std::string_view(key) == "statusCode") {
      std::uint64_t status = 1;
      check(sd_bus_message_read(answer, "v", "t", &status), "reading the status");
      found = status == 0;
    } else {
      check(sd_bus_message_skip(answer, "v"), "skipping a value");
    }
    check(sd_bus_message_exit_container(answer), "leaving an entry");
  }
  return found;
}

class Client {
 public:
  Client(const char* name, std::string_view sections)
      : bus_(bench::joinBus()), name_(name), all_(sections == "all") {
    if (!all_ && sections != "uptime") {
      bench::giveUp("sections", "neither \"all\" nor \"uptime\"");
    }
  }

  void one(long count) {
    for (long asked = 0; asked < count; ++asked) {
      const auto start = Clock::now();
      request();
      if (!bench::serveUntil(bus_.get(), start + kPatience, [&] { return answered_ > asked; })) {
        bench::giveUp("an answer", "not in time");
      }
      const std::chrono::duration<double, std::micro> took = Clock::now() - start;
      std::printf("%.1f\n", took.count());
    }
  }

  void many(long outstanding, long seconds) {
    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(seconds);
    refill_ = true;
    for (long sent = 0; sent < outstanding; ++sent) {
      request();
    }
    bench::serveUntil(bus_.get(), end, [&] { return Clock::now() >= end; });
    const std::chrono::duration<double> took = Clock::now() - start;
    std::printf("%.1f\n", static_cast<double>(answered_) / took.count());
  }

 private:
  void request() {
    sd_bus_message* created = nullptr;
    check(sd_bus_message_new_method_call(bus_.get(), &created, name_, "/kova", "kova.Ipc1", "Send"),
          "making a request");
    const MessagePtr message(created);
    check(sd_bus_message_open_container(message.get(), 'a', "{sv}"), "making a request");
    entry(message.get(), "functionName", "s", "GetSystemStats");
    entry(message.get(), "requestId", "s", std::to_string(++requested_).c_str());
    entry(message.get(), "responseExpected", "b", 1);
    if (!all_) {
      for (const char* section : kAllButUptime) {
        entry(message.get(), section, "b", 0);
      }
    }
    check(sd_bus_message_close_container(message.get()), "making a request");
    check(sd_bus_call_async(bus_.get(), nullptr, message.get(), onAnswer, this, 0),
          "sending a request");
  }

  template <typename Value>
  static void entry(sd_bus_message* message, const char* key, const char* type, Value value) {
    check(sd_bus_message_append(message, "{sv}", key, type, value), "making a request");
  }

  static int onAnswer(sd_bus_message* answer, void* owner, sd_bus_error*) {
    if (const sd_bus_error* error = sd_bus_message_get_error(answer); error != nullptr) {
      bench::giveUp("refused", error->message);
    }
    if (!succeeded(answer)) {
      bench::giveUp("an answer", "the request failed");
    }
    auto& client = *static_cast<Client*>(owner);
    ++client.answered_;
    if (client.refill_) {
      client.request();
    }
    return 0;
  }

  bench::BusPtr bus_;
  const char* name_;
  bool all_;
  bool refill_ = false;
  long requested_ = 0;
  long answered_ = 0;
};

long number(const char* text) {
  const long value = std::strtol(text, nullptr, 10);
  if (value <= 0) {
    bench::giveUp(text, "not a positive number");
  }
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 3 ? argv[3] : "";
  if (mode == "one" && argc == 5) {
    Client(argv[1], argv[2]).one(number(argv[4]));
  } else if (mode == "many" && argc == 6) {
    Client(argv[1], argv[2]).many(number(argv[4]), number(argv[5]));
  } else {
    bench::giveUp("usage", "bench_ask NAME all|uptime one COUNT | many OUTSTANDING SECONDS");
  }
}
