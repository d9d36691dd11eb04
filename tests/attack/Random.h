#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace kova::attack {

/// The random numbers of a campaign. The same seed gives the same numbers with every standard
/// library, because no distribution of <random> is used.
class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  std::uint64_t number() { return engine_(); }
  /// 0 .. limit - 1
  std::size_t below(std::size_t limit) { return engine_() % limit; }
  bool oneIn(std::size_t times) { return below(times) == 0; }
  template <typename Container>
  const auto& pick(const Container& from) {
    return *(std::begin(from) + static_cast<std::ptrdiff_t>(below(std::size(from))));
  }

  std::string bytes(std::size_t size) {
    std::string content(size, '\0');
    for (char& byte : content) {
      byte = static_cast<char>(engine_());
    }
    return content;
  }

  /// The content with random changes: bytes flipped, a range removed, repeated or overwritten, the
  /// end cut off.
  std::string mutated(std::string content) {
    for (std::size_t times = 1 + below(6); times > 0 && !content.empty(); --times) {
      mutateOnce(content);
    }
    return content;
  }

 private:
  void mutateOnce(std::string& content) {
    const std::size_t at = below(content.size());
    const std::size_t length = 1 + below(std::min<std::size_t>(content.size() - at, 64));
    switch (below(8)) {
      case 0:
        content.erase(at, length);
        break;
      case 1:
        content.insert(at, content.substr(at, length));
        break;
      case 2:
        content.replace(at, length, bytes(length));
        break;
      case 3:
        content.resize(at);
        break;
      case 4:  // the largest of a number's bytes
        content.replace(at, std::min<std::size_t>(length, 4), "\xff\xff\xff\x7f");
        break;
      default:
        content[at] = static_cast<char>(engine_());
    }
  }

  std::mt19937_64 engine_;
};

/// Draws the numbers below a limit in random order, each once before any repeats.
class Deck {
 public:
  explicit Deck(std::size_t limit) : limit_(limit) {}

  std::size_t draw(Random& random) {
    if (left_.empty()) {
      left_.resize(limit_);
      std::iota(left_.begin(), left_.end(), std::size_t{0});
    }
    std::swap(left_[random.below(left_.size())], left_.back());
    const std::size_t drawn = left_.back();
    left_.pop_back();
    return drawn;
  }

 private:
  const std::size_t limit_;
  std::vector<std::size_t> left_;
};

}  // namespace kova::attack
