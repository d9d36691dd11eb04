#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Camera.h"
#include "Journal.h"
#include "Random.h"
#include "Watch.h"

namespace kova::attack {

class Attack;

/// One kind of attack on one booted camera.
class Campaign {
 public:
  virtual ~Campaign() = default;
  /// Performs some actions and checks them; ends within a minute, whatever the camera does.
  virtual void round() = 0;
  /// Checks what must hold after all rounds.
  virtual void finish() {}
};

struct CampaignKind {
  std::string name;
  unsigned share;  ///< of the total time, relative to the other campaigns
  /// Upper bound for the answer to a bus request during the campaign.
  std::chrono::milliseconds answerBound;
  std::size_t mostGrowthKiB;  ///< of resident memory, including what the sanitizers retain
  std::unique_ptr<Campaign> (*make)(Attack& attack);
};

/// All campaigns, in the order in which they run.
const std::vector<CampaignKind>& campaigns();

struct Order {
  std::uint64_t seed = 0;
  std::chrono::seconds limit{10};
  /// Ends the campaign early, after the round that reaches this number of actions.
  std::size_t mostActions = SIZE_MAX;
  /// Whether to stop early.
  std::function<bool()> interrupted = [] { return false; };
  /// Called when the campaign begins; the camera serves by then.
  std::function<void(system_test::Camera&)> begun = [](system_test::Camera&) {};
};

struct Report {
  std::string campaign;
  std::size_t actions = 0;
  std::chrono::milliseconds worstAnswer{0};
  std::size_t grownKiB = 0;  ///< peak resident memory less that at the beginning
  std::vector<Finding> findings;
};

/// Limits the quarantine of the address sanitizer to 16 MiB in cameras booted later: large enough
/// to detect a use after free, small enough not to hide a leak.
void keepLittleOfFreedMemory();

/// The environment of a campaign: its camera, random numbers and journal.
class Attack {
 public:
  /// Boots the camera. Throws std::runtime_error if it does not come up.
  Attack(const CampaignKind& kind, Order order);
  Attack(const Attack&) = delete;
  Attack& operator=(const Attack&) = delete;

  /// Runs rounds as long as the order says; then checks that the camera works as before.
  Report run();

  system_test::Camera& camera() { return camera_; }
  Random& random() { return random_; }
  std::uint64_t seed() const { return order_.seed; }
  /// A path as the host sees it.
  std::filesystem::path inside(const std::string& path) const {
    return camera_.root() / path.substr(1);
  }

  /// Whether the control server serves; if not, waiting for its answers is pointless.
  bool serves() const { return watch_.alive() && watch_.answering(); }
  std::chrono::milliseconds left() const;
  void act(const std::string& what) { journal_.act(what); }
  void expect(bool holds, const std::string& invariant, const std::string& detail);
  /// Sets the bound for answers from here on; allowAsUsual() restores that of the kind.
  void allow(std::chrono::milliseconds bound) { watch_.allow(bound); }
  void allowAsUsual() { watch_.allow(kind_.answerBound); }

 private:
  void play(Campaign& campaign);
  void showProgress();
  void expectAsBefore();
  void expectCleanEnd();

  const CampaignKind& kind_;
  const Order order_;
  Random random_;
  system_test::Camera camera_;
  Journal journal_;
  Watch watch_;
  std::size_t descriptors_;
  std::size_t residentKiB_;
  std::chrono::steady_clock::time_point begin_;
  std::chrono::steady_clock::time_point shown_;
};

}  // namespace kova::attack
