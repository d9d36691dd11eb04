#pragma once

#include <string_view>

#include "ExitStatus.h"
#include "Options.h"
#include "kova/variant/Variant.h"

/// The output of commands: text or, with --json, JSON documents of one shape, see kovactl(1).
namespace kova::ctl {

/// Presents the result of a command: prints the text or, with --json, keeps the result for
/// conclude().
/// @return ExitStatus::Local if the text cannot be printed
ExitStatus present(const Options& options, const variant::Variant& result, std::string_view text);

/// Presents one of many results immediately: the text, or a document on one line.
ExitStatus presentEach(const Options& options, const variant::Variant& result,
                       std::string_view text);

/// Ends a command. With --json, prints the document with its result and, unless it succeeded, the
/// last failure; none after a success whose results have been presented one by one.
/// @return `status`, or ExitStatus::Local when the document cannot be printed
ExitStatus conclude(const Options& options, ExitStatus status);

/// Makes conclude() print nothing: kovactl on the remote camera has already printed the document.
void leaveToOther();

/// A copy with message ids as strings: most JSON readers round numbers above 2^53.
variant::Variant withTextIds(const variant::Variant& message);

}  // namespace kova::ctl
