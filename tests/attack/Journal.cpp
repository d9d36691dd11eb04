#include "Journal.h"

#include <algorithm>
#include <cstdio>

namespace kova::attack {
namespace {

constexpr std::size_t kActionsKept = 12;
constexpr std::size_t kActionLength = 300;
constexpr int kLogLines = 20;

/// `text` truncated and with unprintable characters replaced.
std::string printable(const std::string& text) {
  std::string line = text.substr(0, kActionLength);
  std::ranges::replace_if(
      line, [](unsigned char byte) { return byte < ' ' || byte > '~'; }, '?');
  return text.size() > kActionLength ? line + "..." : line;
}

}  // namespace

Journal::Journal(const system_test::Camera& camera, std::string repeat)
    : camera_(camera), repeat_(std::move(repeat)) {}

void Journal::act(const std::string& what) {
  const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - begin_);
  const std::lock_guard lock(mutex_);
  ++actions_;
  last_.push_back(std::to_string(since.count()) + " ms: " + printable(what));
  if (last_.size() > kActionsKept) {
    last_.pop_front();
  }
}

void Journal::fail(const std::string& invariant, const std::string& detail) {
  const std::lock_guard lock(mutex_);
  const auto known = std::ranges::find(findings_, invariant, &Finding::invariant);
  if (known != findings_.end()) {
    ++known->times;
    return;
  }
  findings_.push_back({invariant, printable(detail), 1});
  print(findings_.back());
}

std::size_t Journal::actions() const {
  const std::lock_guard lock(mutex_);
  return actions_;
}

std::vector<Finding> Journal::findings() const {
  const std::lock_guard lock(mutex_);
  return findings_;
}

void Journal::print(const Finding& finding) const {
  std::printf("FINDING: does not hold: %s\n  %s\n  repeat with: %s\n  the last actions:\n",
              finding.invariant.c_str(), finding.detail.c_str(), repeat_.c_str());
  for (const std::string& action : last_) {
    std::printf("    %s\n", action.c_str());
  }
  std::printf("  the end of the camera's log:\n%s",
              system_test::lastLines(camera_.log(), kLogLines).c_str());
  std::fflush(stdout);
}

}  // namespace kova::attack
