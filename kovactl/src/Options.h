#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace kova::ctl {

/// The options that every command accepts.
struct Options {
  static constexpr std::uint32_t kAnswerTimeoutMs = 10000;

  std::string bus;                         ///< bus address; "" leaves the choice to the library
  std::string host;                        ///< remote camera, see Remote; "" for this machine
  std::optional<std::uint32_t> timeoutMs;  ///< time-out for an answer, if given
  bool json = false;                       ///< print JSON instead of text
  bool verbose = false;                    ///< print the messages of the bus library

  std::uint32_t answerTimeoutMs() const { return timeoutMs.value_or(kAnswerTimeoutMs); }
};

/// The default destination of requests.
inline constexpr const char* kServer = "kova_ctlserver";
/// The endpoints that exist on every camera.
inline constexpr std::array<const char*, 3> kEndpoints{kServer, "kova_sounds_leds",
                                                       "kova_discovery_server"};

}  // namespace kova::ctl
