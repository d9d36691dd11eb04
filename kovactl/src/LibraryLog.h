#pragma once

#include <string>

/// The logger of this program. A person reads its standard error, and a failed command of theirs
/// is no business of the camera's system log; so what the libraries log is kept, to explain the
/// failure that it led to, and is printed only on demand.
namespace kova::ctl::library_log {

/// Whether to print what is logged to standard error.
void verbose(bool on);

/// The last error or warning that was logged; "" when there was none.
const std::string& lastProblem();

}  // namespace kova::ctl::library_log
