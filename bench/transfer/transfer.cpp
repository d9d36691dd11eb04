// Moves files through TransferService, called in the rhythm of the daemon's main loop.
//
//   bench_transfer download COUNT URI FOLDER CA-FILE
//       all at once, "URI/0" into "FOLDER/0" and so on
//   bench_transfer upload FILE URI CA-FILE
//
// Prints the longest turn of the service in milliseconds and, in KiB, how much memory each transfer
// added at most. A transfer that fails ends the program with status 1.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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

constexpr int kPauseMs = 10;  // of the daemon's main loop
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
      return std::atol(line.c_str() + field.size());
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
Clock::duration turnUntilDone(TransferService& service, const Tasks& tasks) {
  Clock::duration longest{};
  std::size_t done = 0;  // all tasks before this one have ended
  while (done < tasks.size()) {
    const auto start = Clock::now();
    service.service(0);
    longest = std::max(longest, Clock::now() - start);
    while (done < tasks.size() && !service.existsUri(tasks[done]->uri())) {
      ++done;
    }
    if (done < tasks.size()) {
      kova::utils::sleepMs(kPauseMs);
    }
  }
  return longest;
}

int run(const Tasks& tasks) {
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
  const std::chrono::duration<double, std::milli> longest = turnUntilDone(service, tasks);
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
  allowManyDescriptors();
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() == 5 && arguments[0] == "download") {
    return run(downloads(std::stoul(arguments[1]), arguments[2], arguments[3], arguments[4]));
  }
  if (arguments.size() == 4 && arguments[0] == "upload") {
    return run(upload(arguments[1], arguments[2], arguments[3]));
  }
  std::fputs("usage: bench_transfer download COUNT URI FOLDER CA-FILE | upload FILE URI CA-FILE\n",
             stderr);
  return 2;
}
