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

/// One kind of hostility against one booted camera.
class Campaign {
 public:
  virtual ~Campaign() = default;
  /// Some actions, and their checks; ends by itself within a minute, whatever the camera does.
  virtual void round() = 0;
  /// What has to hold after all of them.
  virtual void finish() {}
};

struct CampaignKind {
  std::string name;
  unsigned share;  ///< of the time, beside the others
  /// A bus request is answered within it, whatever the campaign does.
  std::chrono::milliseconds answerBound;
  std::size_t mostGrowthKiB;  ///< of resident memory, what the sanitizers keep included
  std::unique_ptr<Campaign> (*make)(Attack& attack);
};

/// All that there are, in the order in which they run.
const std::vector<CampaignKind>& campaigns();

struct Order {
  std::uint64_t seed = 0;
  std::chrono::seconds limit{10};
  /// Ends the campaign before its time, after the round that reaches it.
  std::size_t mostActions = SIZE_MAX;
  /// Whether to stop early.
  std::function<bool()> interrupted = [] { return false; };
  /// Called when the camera serves and the campaign begins.
  std::function<void(system_test::Camera&)> begun = [](system_test::Camera&) {};
};

struct Report {
  std::string campaign;
  std::size_t actions = 0;
  std::chrono::milliseconds worstAnswer{0};
  std::size_t grownKiB =
      0;  ///< the most resident memory there ever was, less that of the beginning
  std::vector<Finding> findings;
};

/// Has the address sanitizer of cameras that are booted later keep 16 MiB of what was freed: long
/// enough to notice its use, and so little that memory which only grows is noticed, too.
void keepLittleOfFreedMemory();

/// What a campaign works with: its camera, its random numbers and its journal.
class Attack {
 public:
  /// Boots the camera. Throws std::runtime_error when it does not come up.
  Attack(const CampaignKind& kind, Order order);
  Attack(const Attack&) = delete;
  Attack& operator=(const Attack&) = delete;

  /// Rounds of the campaign for as long as its order says; then the camera has to be as it was.
  Report run();

  system_test::Camera& camera() { return camera_; }
  Random& random() { return random_; }
  std::uint64_t seed() const { return order_.seed; }
  /// A path as the host sees it.
  std::filesystem::path inside(const std::string& path) const {
    return camera_.root() / path.substr(1);
  }

  /// Whether the control server serves: else nothing that it owes need be waited for.
  bool serves() const { return watch_.alive() && watch_.answering(); }
  std::chrono::milliseconds left() const;
  void act(const std::string& what) { journal_.act(what); }
  void expect(bool holds, const std::string& invariant, const std::string& detail);
  /// A bus request may take so long to be answered from here on; without it, what the kind says.
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
