#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kova::ctl {

/// What every subcommand accepts.
struct Options {
  static constexpr std::uint32_t kAnswerTimeoutMs = 10000;

  std::string bus;                         ///< bus address; "" leaves the choice to the library
  std::optional<std::uint32_t> timeoutMs;  ///< how long to wait for an answer, if given
  bool json = false;                       ///< for programs rather than for people
  bool verbose = false;                    ///< show what the bus library logs

  std::uint32_t answerTimeoutMs() const { return timeoutMs.value_or(kAnswerTimeoutMs); }
};

/// The endpoint that the requests of this program are for.
inline constexpr const char* kServer = "kova_ctlserver";

}  // namespace kova::ctl
