// kova_attack [SECONDS] [--seed N] [CAMPAIGN...]: see usage() and CONTRIBUTING.md.
#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <optional>
#include <random>
#include <string_view>

#include "Attack.h"

namespace kova::attack {
namespace {

constexpr unsigned kDefaultSeconds = 60;

struct Arguments {
  unsigned seconds = kDefaultSeconds;
  std::uint64_t seed = std::random_device{}();
  std::vector<const CampaignKind*> chosen;
};

template <typename Number>
bool parse(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

int usage() {
  std::fprintf(stderr, "usage: attack [SECONDS] [--seed N] [CAMPAIGN...]\ncampaigns:");
  for (const CampaignKind& kind : campaigns()) {
    std::fprintf(stderr, " %s", kind.name.c_str());
  }
  std::fprintf(stderr, "\n");
  return 2;
}

std::optional<Arguments> read(const std::vector<std::string>& words) {
  Arguments arguments;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const auto kind = std::ranges::find(campaigns(), words[i], &CampaignKind::name);
    if (kind != campaigns().end()) {
      arguments.chosen.push_back(&*kind);
    } else if (words[i] == "--seed" && i + 1 < words.size()) {
      if (!parse(words[++i], arguments.seed)) {
        return std::nullopt;
      }
    } else if (i != 0 || !parse(words[i], arguments.seconds) || arguments.seconds == 0) {
      return std::nullopt;
    }
  }
  if (arguments.chosen.empty()) {
    for (const CampaignKind& kind : campaigns()) {
      arguments.chosen.push_back(&kind);
    }
  }
  return arguments;
}

// Blocks SIGINT and SIGTERM in every thread; they are polled between actions, so that every camera
// is taken down.
void blockSignals() {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
}

bool isInterrupted() {
  sigset_t pending;
  return sigpending(&pending) == 0 &&
         (sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1);
}

std::vector<Report> attackAll(const Arguments& arguments) {
  unsigned shares = 0;
  for (const CampaignKind* kind : arguments.chosen) {
    shares += kind->share;
  }
  std::vector<Report> reports;
  for (const CampaignKind* kind : arguments.chosen) {
    if (isInterrupted()) {
      break;
    }
    Order order;
    order.seed = arguments.seed;
    order.limit = std::chrono::seconds(std::max(1U, arguments.seconds * kind->share / shares));
    order.interrupted = isInterrupted;
    std::printf("%s, for %lld s\n", kind->name.c_str(),
                static_cast<long long>(order.limit.count()));
    std::fflush(stdout);
    reports.push_back(Attack(*kind, std::move(order)).run());
  }
  return reports;
}

std::size_t show(const std::vector<Report>& reports) {
  std::size_t found = 0;
  std::printf("\n%-10s %8s %13s %14s %9s\n", "campaign", "actions", "worst answer", "memory growth",
              "findings");
  for (const Report& report : reports) {
    std::printf("%-10s %8zu %10lld ms %10zu KiB %9zu\n", report.campaign.c_str(), report.actions,
                static_cast<long long>(report.worstAnswer.count()), report.grownKiB,
                report.findings.size());
    found += report.findings.size();
  }
  for (const Report& report : reports) {
    for (const Finding& finding : report.findings) {
      std::printf("%s: does not hold: %s (%zu times; %s)\n", report.campaign.c_str(),
                  finding.invariant.c_str(), finding.times, finding.detail.c_str());
    }
  }
  return found;
}

int attack(const std::vector<std::string>& words) {
  const std::optional<Arguments> arguments = read(words);
  if (!arguments) {
    return usage();
  }
  std::string chosen;
  for (const CampaignKind* kind : arguments->chosen) {
    chosen += " " + kind->name;
  }
  std::printf("./dev attack %u --seed %llu%s\n", arguments->seconds,
              static_cast<unsigned long long>(arguments->seed), chosen.c_str());
  keepLittleOfFreedMemory();
  blockSignals();
  const std::vector<Report> reports = attackAll(*arguments);
  const std::size_t found = show(reports);
  if (isInterrupted()) {
    std::printf("interrupted\n");
    return 130;
  }
  return found == 0 ? 0 : 1;
}

}  // namespace
}  // namespace kova::attack

int main(int argc, char** argv) {
  try {
    return kova::attack::attack({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "attack: %s\n", error.what());
    return 1;
  }
}
