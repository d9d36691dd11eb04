#include "Suggestion.h"

#include <algorithm>

namespace kova::ctl {
namespace {

constexpr std::size_t kFar = 1000;
constexpr std::size_t kLongestWord = 64;

// The edit distance of Damerau and Levenshtein, restricted to one edit per position: letters
// inserted, dropped, replaced or swapped with their neighbour.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> before(b.size() + 1);
  std::vector<std::size_t> last(b.size() + 1);
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) {
    last[j] = j;
  }
  for (std::size_t i = 1; i <= a.size(); ++i) {
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      row[j] =
          std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        row[j] = std::min(row[j], before[j - 2] + 1);
      }
    }
    std::swap(before, last);
    std::swap(last, row);
  }
  return last[b.size()];
}

std::string lower(std::string_view text) {
  std::string out(text);
  std::ranges::transform(out, out.begin(), [](unsigned char c) {
    return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  });
  return out;
}

std::size_t remoteness(std::string_view word, std::string_view candidate) {
  constexpr std::size_t kShortestStart = 3;
  if (word.size() > kLongestWord || candidate.size() > kLongestWord) {
    return kFar;
  }
  const std::string typed = lower(word);
  const std::string meant = lower(candidate);
  if (typed == meant) {
    return 0;
  }
  const std::size_t slips = distance(typed, meant);
  if (typed.size() >= kShortestStart && meant.starts_with(typed)) {
    return 1;
  }
  return slips <= std::max<std::size_t>(1, typed.size() / 3) ? slips : kFar;
}

}  // namespace

std::string closest(std::string_view word, const std::vector<std::string>& candidates) {
  std::string best;
  std::size_t least = kFar;
  for (const std::string& candidate : candidates) {
    const std::size_t far = remoteness(word, candidate);
    if (far < least) {
      least = far;
      best = candidate;
    }
  }
  return best;
}

std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates) {
  const std::string meant = closest(word, candidates);
  return meant.empty() ? "" : ": did you mean \"" + meant + "\"?";
}

std::string alternatives(const std::vector<std::string>& words) {
  std::string text;
  for (std::size_t i = 0; i < words.size(); ++i) {
    text += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + words[i];
  }
  return text;
}

std::string notFound(std::string_view kind, const std::string& word,
                     const std::vector<std::string>& candidates) {
  constexpr std::size_t kFew = 10;
  const bool vowel = std::string_view("aeiou").find(kind.front()) != kind.npos;
  const std::string fault = "\"" + word + "\" is not " + (vowel ? "an " : "a ") + std::string(kind);
  if (const std::string meant = didYouMean(word, candidates); !meant.empty()) {
    return fault + meant;
  }
  return candidates.empty() || candidates.size() > kFew
             ? fault
             : fault + ": choose " + alternatives(candidates);
}

}  // namespace kova::ctl
