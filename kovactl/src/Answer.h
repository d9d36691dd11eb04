#pragma once

#include <string>

#include "Client.h"

namespace kova::ctl {

/// Prints what a command has to show; a failing standard output becomes Exit::Local.
Exit show(std::string_view text);

/// Joins the bus, asks the control server and ends: the whole of most commands. For programs the
/// answer is printed as JSON ("{}" when the camera had nothing to say), for people `done`.
/// @param refusal what a refusal usually means, see Client::Request
Exit askServer(const Options& options, ipc::messages::BaseRequestMessage& request,
               std::string_view done, std::string_view refusal = "");

/// Prints an answer as JSON.
Exit showJson(const Reply& reply);

/// The payload of an answer; an empty Variant when there is none.
variant::Variant payloadOf(const Reply& reply);

}  // namespace kova::ctl
