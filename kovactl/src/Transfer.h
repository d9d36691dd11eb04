#pragma once

#include <string_view>

#include "Command.h"
#include "kova/messages/BaseMessage.h"

namespace kova::ctl {

struct TransferOptions {
  std::uint32_t timeoutMs = 0;  ///< how long the camera may take
  bool wait = false;            ///< wait for the outcome
  bool cancel = false;          ///< cancel the transfer on a stop signal
};

/// Declares --timeout, --wait and --cancel.
/// @param defaultMs the default time-out
/// @param silence   explains, for the help, what a missing event means
std::shared_ptr<TransferOptions> addTransferOptions(CommandLine& line, std::uint32_t defaultMs,
                                                    std::string_view silence);

/// Sends a transfer request. With `wait`, shows the progress until the outcome is known: Ok if the
/// file is transferred or was already installed, else Refused. Without it, reports only a refusal.
/// If the camera publishes no transfers, waits for the event with the outcome instead. Unknown if
/// there is no outcome within the time-out and a grace period.
ExitStatus runTransfer(const Options& options, ipc::messages::BaseRequestMessage& request,
                       const TransferOptions& transfer, std::string_view silence);

}  // namespace kova::ctl
