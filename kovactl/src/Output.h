#pragma once

#include <string_view>

#include "ExitStatus.h"
#include "Options.h"
#include "kova/variant/Variant.h"

/// What commands print: text or, with --json, documents of one shape, see kovactl(1).
namespace kova::ctl {

/// Presents the result of a command: prints the text or, with --json, keeps the result for
/// conclude(); ExitStatus::Local when it cannot be printed.
ExitStatus present(const Options& options, const variant::Variant& result, std::string_view text);

/// Presents one of many results at once: the text, or a document on one line.
ExitStatus presentEach(const Options& options, const variant::Variant& result,
                       std::string_view text);

/// Ends a command. With --json, prints the document with its result and, unless it succeeded, the
/// last failure; none after a success whose results have been presented one by one.
/// @return `status`, or ExitStatus::Local when the document cannot be printed
ExitStatus conclude(const Options& options, ExitStatus status);

/// Prints nothing more in conclude(): the same command on another machine has printed its document.
void leaveToOther();

/// A copy in which the numbers of messages are text: most JSON readers round numbers above 2^53.
variant::Variant withTextIds(const variant::Variant& message);

}  // namespace kova::ctl
