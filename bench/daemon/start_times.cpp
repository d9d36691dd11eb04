// Times the start of services, from spawn to ownership of their bus name as observed by another
// process on the bus.
//
//   bench_start_times ROUNDS NAME COMMAND [NAME COMMAND]...
//
// Every round starts each COMMAND once, in turn, so that other load on the machine affects all of
// them alike. A COMMAND is split at blanks. Prints a line "NAME MICROSECONDS" per start, or "NAME
// failed" for a service that does not own its name within five seconds; such a service is not
// started again. The output of the services goes to standard error.

#include <spawn.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "bus.h"

namespace {

using bench::check;
using bench::Clock;

constexpr auto kPatience = std::chrono::seconds(5);

class Service {
 public:
  Service(std::string name, const std::string& command) : name_(std::move(name)) {
    std::istringstream words(command);
    for (std::string word; words >> word;) {
      words_.push_back(word);
    }
    if (words_.empty()) {
      bench::giveUp(name_.c_str(), "no command");
    }
  }

  /// Subscribes to changes of the name's owner.
  void watch(sd_bus* bus) {
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg0='" +
        name_ + "'";
    check(sd_bus_add_match(bus, nullptr, rule.c_str(), onOwnerChange, this), "watching a name");
  }

  void startOnce(sd_bus* bus) {
    if (failed_) {
      return;
    }
    const auto start = Clock::now();
    const pid_t pid = spawn();
    failed_ = !await(bus, true);
    const std::chrono::duration<double, std::micro> took = ownedAt_ - start;
    kill(pid, failed_ ? SIGKILL : SIGTERM);
    waitpid(pid, nullptr, 0);
    if (failed_) {
      std::printf("%s failed\n", name_.c_str());
    } else if (!await(bus, false)) {
      bench::giveUp(name_.c_str(), "still owned after its process ended");
    } else {
      std::printf("%s %.1f\n", name_.c_str(), took.count());
    }
  }

 private:
  static int onOwnerChange(sd_bus_message* signal, void* owner, sd_bus_error*) {
    auto& service = *static_cast<Service*>(owner);
    const char* after = nullptr;
    check(sd_bus_message_read(signal, "sss", nullptr, nullptr, &after), "reading an owner");
    service.owned_ = *after != '\0';
    if (service.owned_) {
      service.ownedAt_ = Clock::now();
    }
    return 0;
  }

  pid_t spawn() {
    std::vector<char*> arguments;
    for (auto& word : words_) {
      arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    pid_t pid = 0;
    check(-posix_spawnp(&pid, arguments[0], nullptr, nullptr, arguments.data(), environ),
          arguments[0]);
    return pid;
  }

  bool await(sd_bus* bus, bool owned) {
    const auto deadline = Clock::now() + kPatience;
    return bench::serveUntil(bus, deadline, [&] { return owned_ == owned; });
  }

  std::string name_;
  std::vector<std::string> words_;
  bool owned_ = false;
  bool failed_ = false;
  Clock::time_point ownedAt_{};
};

}  // namespace

int main(int argc, char** argv) {
  const long rounds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 0;
  if (rounds <= 0 || argc < 4 || argc % 2 != 0) {
    bench::giveUp("usage", "bench_start_times ROUNDS NAME COMMAND [NAME COMMAND]...");
  }
  const bench::BusPtr bus = bench::joinBus();
  std::vector<Service> services;
  for (int i = 2; i < argc; i += 2) {
    services.emplace_back(argv[i], argv[i + 1]);
  }
  for (auto& service : services) {
    service.watch(bus.get());
  }
  for (long round = 0; round < rounds; ++round) {
    for (auto& service : services) {
      service.startOnce(bus.get());
    }
  }
}
