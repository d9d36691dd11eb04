#include "Attack.h"

#include <stdlib.h>

#include <csignal>
#include <cstdio>

#include "BusClient.h"
#include "Requester.h"

namespace kova::attack {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kProgressEach(5);
constexpr seconds kSettled(20);
constexpr seconds kEnded(20);
constexpr milliseconds kPoll(50);

std::string repeatCommand(const CampaignKind& kind, const Order& order) {
  return "./dev attack " + std::to_string(order.limit.count()) + " --seed " +
         std::to_string(order.seed) + " " + kind.name;
}

}  // namespace

void keepLittleOfFreedMemory() {
  setenv("ASAN_OPTIONS", "quarantine_size_mb=16", 1);
}

Attack::Attack(const CampaignKind& kind, Order order)
    : kind_(kind),
      order_(std::move(order)),
      random_(order_.seed),
      journal_(camera_, repeatCommand(kind_, order_)),
      watch_(camera_, journal_, kind_.answerBound) {
  // Warm up: the first transfer loads libraries, and the first request for statistics opens files,
  // all of which stay.
  system_test::Requester(camera_).settle();
  system_test::BusClient(camera_.busAddress()).call(system_test::request("GetSystemStats"));
  descriptors_ = watch_.server().descriptors();
  residentKiB_ = watch_.server().residentKiB();
  begin_ = shown_ = Clock::now();
}

milliseconds Attack::left() const {
  return order_.interrupted() || journal_.actions() >= order_.mostActions
             ? milliseconds(0)
             : std::chrono::duration_cast<milliseconds>(begin_ + order_.limit - Clock::now());
}

void Attack::expect(bool holds, const std::string& invariant, const std::string& detail) {
  if (!holds) {
    journal_.fail(invariant, detail);
  }
}

Report Attack::run() {
  order_.begun(camera_);
  const auto campaign = kind_.make(*this);
  try {
    play(*campaign);
  } catch (const std::exception& error) {
    journal_.fail("the camera can be worked with", error.what());
  }
  Report report{kind_.name, journal_.actions(), watch_.worst(), 0, {}};
  if (watch_.alive()) {
    const std::size_t peak = watch_.server().peakResidentKiB();
    report.grownKiB = peak > residentKiB_ ? peak - residentKiB_ : 0;
    expectAsBefore();
    expectCleanEnd();
  }
  watch_.stop();
  report.findings = journal_.findings();
  return report;
}

void Attack::play(Campaign& campaign) {
  while (left() > milliseconds(0) && watch_.alive()) {
    if (serves()) {
      campaign.round();
    } else {
      std::this_thread::sleep_for(kPoll);  // it may answer yet
    }
    showProgress();
  }
  if (serves() && !order_.interrupted()) {
    campaign.finish();
  }
}

void Attack::showProgress() {
  if (Clock::now() < shown_ + kProgressEach) {
    return;
  }
  shown_ = Clock::now();
  std::printf("  %s: %lld s of %lld s, %zu actions, %zu findings\n", kind_.name.c_str(),
              static_cast<long long>(std::chrono::duration_cast<seconds>(shown_ - begin_).count()),
              static_cast<long long>(order_.limit.count()), journal_.actions(),
              journal_.findings().size());
  std::fflush(stdout);
}

void Attack::expectAsBefore() {
  const system_test::HostProcess& server = watch_.server();
  const std::size_t peak = server.peakResidentKiB();
  expect(peak < residentKiB_ + kind_.mostGrowthKiB, "memory stays in its bound",
         std::to_string(residentKiB_) + " KiB at first, " + std::to_string(peak) + " at most");
  std::size_t open = 0;
  const bool flat =
      system_test::eventually([&] { return (open = server.descriptors()) <= descriptors_; },
                              serves() ? kSettled : seconds(0));
  expect(flat, "descriptors stay flat",
         std::to_string(descriptors_) + " at first, " + std::to_string(open) + " at the end");
}

// A sanitized program checks for leaks at exit.
void Attack::expectCleanEnd() {
  const system_test::HostProcess& server = watch_.server();
  watch_.stop();
  server.signal(SIGTERM);
  const bool ended = server.waitForEnd(serves() ? kEnded : seconds(1));
  expect(ended, "SIGTERM ends the control server", "it still runs");
  const std::string log = camera_.log();
  for (const char* report :
       {"ERROR: AddressSanitizer", "detected memory leaks", "runtime error: "}) {
    const auto at = log.find(report);
    expect(at == std::string::npos, "no sanitizer reports anything",
           at == std::string::npos ? "" : log.substr(at, 200));
  }
}

}  // namespace kova::attack
