#pragma once

#include <string_view>

#include "Command.h"
#include "kova/messages/BaseMessage.h"

namespace kova::ctl {

/// How a transfer is asked for and followed.
struct TransferOptions {
  std::uint32_t timeoutMs = 0;  ///< how long the camera may take
  bool wait = false;            ///< stay until the camera tells the outcome
};

/// Declares --timeout and --wait.
/// @param defaultMs the time-out when none is given
/// @param silence   what it means when no event comes; stands in the help too
std::shared_ptr<TransferOptions> addTransferOptions(CommandLine& line, std::uint32_t defaultMs,
                                                    std::string_view silence);

/// Sends the request of a transfer. When it is to wait: until the camera's event with the request's
/// id arrives, Ok for "OK" and Refused for anything else, or until the time-out (and 2 s for the
/// event to arrive) has passed, then Unknown.
Exit runTransfer(const Options& options, ipc::messages::BaseRequestMessage& request,
                 const TransferOptions& transfer, std::string_view silence);

}  // namespace kova::ctl
