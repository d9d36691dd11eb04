#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ExitStatus.h"
#include "Options.h"

/// Remote cameras, reached through ssh(1): sd-bus runs ssh locally (`unixexec:`), and `kovactl
/// bridge` on the camera connects it to the bus. sd-bus sends no user id when it authenticates, so
/// the bus sees the user who is logged in on the camera.
namespace kova::ctl {

/// A remote camera, "[USER@]HOST[:PORT]". An IPv6 address is written in brackets.
struct Remote {
  std::string login;  ///< "USER@HOST" or "HOST", without brackets
  std::string port;   ///< "" lets ssh choose
};

/// @param error receives, on failure, one line that says what is wrong
bool parseRemote(std::string_view text, Remote& remote, std::string& error);

/// The ssh command line that runs a kovactl command on the camera.
std::vector<std::string> sshWords(const Remote& remote, const std::vector<std::string>& command);

/// The D-Bus address of the bus of a remote camera. It runs this program, which replaces itself by
/// ssh in becomeSsh(): an ssh started directly by sd-bus would die of Ctrl-C before this process
/// notices the signal.
std::string remoteBusAddress(std::string_view text);

/// Replaces this process by the ssh that carries a connection. Returns only on failure.
ExitStatus becomeSsh(const std::string& text);

/// Runs on the camera a kovactl command that inspects the machine it runs on.
ExitStatus runThere(const Options& options, std::vector<std::string> command);

/// Installs a SIGCHLD handler that records how ssh ends, for explainRemote().
void watchSsh();

/// Explains why the bus of a remote camera could not be joined, from the exit status of ssh.
/// @param problem the message of the bus library
std::string explainRemote(const std::string& text, const std::string& problem);

}  // namespace kova::ctl
