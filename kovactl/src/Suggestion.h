#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Suggestions for mistyped words.
namespace kova::ctl {

/// The candidate most similar to `word`: equal except for case, abbreviated by it, or a few typing
/// errors away. "" if none is similar.
std::string closest(std::string_view word, const std::vector<std::string>& candidates);

/// `: did you mean "CANDIDATE"?` for the closest candidate; "" when none is similar.
std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates);

/// `"WORD" is not a KIND` and the closest candidate, or all candidates if they are few.
std::string notFound(std::string_view kind, const std::string& word,
                     const std::vector<std::string>& candidates);

/// "a, b or c".
std::string alternatives(const std::vector<std::string>& words);

}  // namespace kova::ctl
