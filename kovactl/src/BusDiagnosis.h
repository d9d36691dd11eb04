#pragma once

#include <string>

/// Explains, in one line, why this process cannot use the bus and what its user can do about it.
namespace kova::ctl {

/// The address of the bus: KOVA_BUS_ADDRESS or the default.
std::string busAddress();

/// Explains why `address` is not a bus address; "" if it has the form of one.
std::string addressFault(const std::string& address);

/// Warns that a command reads a local folder although the bus may be on another machine.
void warnOfLocal(const std::string& command, const std::string& folder);

/// Explains why the bus could not be joined. Connects again to find the cause.
/// @param host     the remote camera whose bus it is; "" for this machine
/// @param endpoint the name to own on the bus; "" for none
/// @param problem  the message of the bus library, returned if nothing better is found
std::string explainJoin(const std::string& host, const std::string& endpoint,
                        const std::string& problem);

/// Explains why the bus policy denied a request; "" for root, which it never denies anything.
/// @param host see explainJoin()
std::string explainDenial(const std::string& host = "");

/// Explains that an endpoint is not on the bus.
std::string absence(const std::string& endpoint);

/// The log messages of the libraries. kovactl replaces the logger: a failed command does not belong
/// in the camera's system log, so messages are kept to explain the failure and printed only on
/// demand.
namespace library_log {

/// Sets whether messages are printed to standard error.
void verbose(bool on);

/// The last error or warning; "" when there was none.
const std::string& lastProblem();

}  // namespace library_log
}  // namespace kova::ctl
