#pragma once

#include <string_view>

#include "Command.h"
#include "kova/messages/BaseMessage.h"

namespace kova::ctl {

struct TransferOptions {
  std::uint32_t timeoutMs = 0;  ///< how long the camera may take
  bool wait = false;            ///< wait for the camera to report the outcome
};

/// Declares --timeout and --wait.
/// @param defaultMs the default time-out
/// @param silence   what it means when the camera sends no event, for the help
std::shared_ptr<TransferOptions> addTransferOptions(CommandLine& line, std::uint32_t defaultMs,
                                                    std::string_view silence);

/// Sends a transfer request. With `wait`, then waits for the event with the id of the request: Ok
/// if it says "OK", else Refused. Unknown when no event arrives within the time-out and a grace
/// period of 2 s.
ExitStatus runTransfer(const Options& options, ipc::messages::BaseRequestMessage& request,
                       const TransferOptions& transfer, std::string_view silence);

}  // namespace kova::ctl
