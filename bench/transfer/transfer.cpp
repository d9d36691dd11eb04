// Moves files through TransferService.
//
//   bench_transfer RHYTHM download COUNT URI FOLDER CA-FILE
//       all at once, "URI/0" into "FOLDER/0" and so on
//   bench_transfer RHYTHM upload FILE URI CA-FILE
//
// RHYTHM is "daemon" for that of the daemon's main loop, which sleeps 10 ms and then turns the
// service without waiting, or "sockets" for turns that wait for the transfers' sockets instead.
//
// Prints the longest turn of the service in milliseconds and, in KiB, how much memory each transfer
// added at most. A transfer that fails ends the program with status 1.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "BaseTransferTask.h"
#include "TransferService.h"
#include "kova/utils/Clock.h"

namespace {

using kova::ctlserver::BaseTransferTask;
using kova::ctlserver::TransferService;
using kova::ctlserver::TransferStatus;
using Clock = std::chrono::steady_clock;

/// What one turn waits for within the service, and how long the loop sleeps after it.
struct Rhythm {
  unsigned waitMs;
  int sleepMs;
};
constexpr Rhythm kDaemon{0, 10};
constexpr Rhythm kSockets{10, 0};

constexpr std::uint32_t kDeadlineMs = 120'000;
constexpr std::uint32_t kMaxSize = 1U << 30U;

class Task : public BaseTransferTask {
 public:
  Task(const std::string& uri, const std::string& path, const std::string& caFile) {
    setName(path).setUri(uri).setPath(path).setMaxSz(kMaxSize).setTimeout(kDeadlineMs);
    setCertFile("").setCACertFile(caFile).setSendNoEvents(true);
  }
  void onFailure(TransferStatus status, int httpCode) override {
    std::fprintf(stderr, "bench_transfer: %s: %s, HTTP %d\n", uri().c_str(),
                 decodeTransferStatus(status).c_str(), httpCode);
    failed = true;
  }
  bool failed = false;
};

using Tasks = std::vector<std::unique_ptr<Task>>;

/// A value of /proc/self/status in KiB, see proc(5).
long memory(std::string_view field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field)) {
      return std::stol(line.substr(field.size()));
    }
  }
  return 0;
}

void allowManyDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// @return the longest turn
Clock::duration turnUntilDone(TransferService& service, const Tasks& tasks, Rhythm rhythm) {
  Clock::duration longest{};
  std::size_t done = 0;  // all tasks before this one have ended
  while (done < tasks.size()) {
    kova::utils::sleepMs(rhythm.sleepMs);  // a request waits for the next pass, too
    const auto start = Clock::now();
    service.service(rhythm.waitMs);
    longest = std::max(longest, Clock::now() - start);
    while (done < tasks.size() && !service.existsUri(tasks[done]->uri())) {
      ++done;
    }
  }
  return longest;
}

int run(const Tasks& tasks, Rhythm rhythm) {
  TransferService service;
  if (!service.init()) {
    return 1;
  }
  const long before = memory("VmRSS:");
  for (const auto& task : tasks) {
    if (!service.add(task.get())) {
      return 1;
    }
  }
  const std::chrono::duration<double, std::milli> longest = turnUntilDone(service, tasks, rhythm);
  const long added = memory("VmHWM:") - before;
  std::printf("%.1f %.1f\n", longest.count(),
              static_cast<double>(added) / static_cast<double>(tasks.size()));
  return std::any_of(tasks.begin(), tasks.end(), [](const auto& task) { return task->failed; }) ? 1
                                                                                                : 0;
}

Tasks downloads(unsigned long count, const std::string& uri, const std::string& folder,
                const std::string& caFile) {
  Tasks tasks;
  for (unsigned long number = 0; number < count; ++number) {
    const std::string name = "/" + std::to_string(number);
    tasks.push_back(std::make_unique<Task>(uri + name, folder + name, caFile));
  }
  return tasks;
}

Tasks upload(const std::string& file, const std::string& uri, const std::string& caFile) {
  Tasks tasks;
  tasks.push_back(std::make_unique<Task>(uri, file, caFile));
  tasks.back()->setKind(false);
  return tasks;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + std::min(argc, 3), argv + argc);
  const std::string_view rhythmName = argc > 1 ? argv[1] : "";
  const std::string_view direction = argc > 2 ? argv[2] : "";
  const Rhythm rhythm = rhythmName == "sockets" ? kSockets : kDaemon;
  allowManyDescriptors();
  if (direction == "download" && arguments.size() == 4) {
    return run(downloads(std::stoul(arguments[0]), arguments[1], arguments[2], arguments[3]),
               rhythm);
  }
  if (direction == "upload" && arguments.size() == 3) {
    return run(upload(arguments[0], arguments[1], arguments[2]), rhythm);
  }
  std::fputs(
      "usage: bench_transfer daemon|sockets download COUNT URI FOLDER CA-FILE\n"
      "       bench_transfer daemon|sockets upload FILE URI CA-FILE\n",
      stderr);
  return 2;
}
