#include "Watch.h"

#include <algorithm>
#include <sstream>

#include "BusClient.h"

namespace kova::attack {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kPause(50);
constexpr unsigned kPumpMs = 20;

milliseconds since(Clock::time_point begin) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
}

}  // namespace

Watch::Watch(const system_test::Camera& camera, Journal& journal, milliseconds bound)
    : journal_(journal),
      server_(system_test::controlServer(camera)),
      boundMs_(bound.count()),
      thread_([this, address = camera.busAddress()] { run(address); }) {}

Watch::~Watch() {
  stop();
}

void Watch::stop() {
  stopped_ = true;
  if (thread_.joinable()) {
    thread_.join();
  }
}

// The second number of schedstat is the time on a run queue, in nanoseconds (Documentation/
// scheduler/sched-stats.rst of the kernel); 0 on kernels that do not count it.
milliseconds Watch::waitedForProcessor() const {
  const std::string path = "/proc/" + std::to_string(server_.pid()) + "/schedstat";
  std::istringstream line(system_test::readFile(path));
  std::int64_t ran = 0;
  std::int64_t waited = 0;
  line >> ran >> waited;
  return std::chrono::duration_cast<milliseconds>(std::chrono::nanoseconds(waited));
}

void Watch::run(const std::string& address) {
  try {
    watch(address);
  } catch (const std::exception& error) {
    answering_ = false;
    journal_.fail("the bus serves everybody", error.what());
  }
}

void Watch::watch(const std::string& address) {
  system_test::BusClient client(address);
  while (!stopped_ && alive_) {
    const auto asked = Clock::now();
    const auto waited = waitedForProcessor();
    // The largest bound while the request was pending: the bound may be lowered before the answer
    // to a request sent under a higher one is read.
    std::int64_t boundMs = 0;
    bool late = false;
    client.post(system_test::request("GetSystemStats"));
    while (client.outstanding() > 0 && !stopped_ && alive_) {
      boundMs = std::max<std::int64_t>(boundMs, boundMs_);
      client.pump(kPumpMs);
      const milliseconds took = since(asked) - (waitedForProcessor() - waited);
      worstMs_ = std::max<std::int64_t>(worstMs_, took.count());
      if (took.count() > boundMs && client.outstanding() > 0 && !late) {
        late = true;
        answering_ = false;
        journal_.fail("a bus request is answered in time",
                      "nothing for " + std::to_string(boundMs) + " ms");
      }
      alive_ = !server_.waitForEnd(milliseconds(0));
    }
    answering_ = client.outstanding() == 0;
    std::this_thread::sleep_for(kPause);
  }
  if (!alive_) {
    journal_.fail("the control server lives", "its process has ended");
  }
}

}  // namespace kova::attack
