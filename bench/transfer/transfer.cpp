// Transfers files with TransferService.
//
//   bench_transfer RHYTHM download COUNT URI FOLDER CA-FILE
//       concurrently downloads "URI/0" to "FOLDER/0" and so on
//   bench_transfer RHYTHM upload FILE URI CA-FILE
//
// RHYTHM is "daemon" to sleep 10 ms and then run a pass of the service without waiting, as the
// daemon's main loop does, or "sockets" for passes that wait for the transfers' sockets instead.
//
// Prints the longest pass of the service in milliseconds and the peak memory per transfer in KiB.
// Exits with status 1 if a transfer fails.

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

/// How long a pass waits for sockets within the service, and how long the loop sleeps before it.
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

/// @return the duration of the longest pass
Clock::duration turnUntilDone(TransferService& service, const Tasks& tasks, Rhythm rhythm) {
  Clock::duration longest{};
  std::size_t done = 0;  // all tasks before this index have ended
  while (done < tasks.size()) {
    kova::utils::sleepMs(rhythm.sleepMs);  // first, as a new request waits for the next pass
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
