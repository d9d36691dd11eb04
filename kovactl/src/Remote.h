#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ExitStatus.h"
#include "Options.h"

/// Cameras that are reached through ssh(1): `kovactl bridge` there carries the connection to the
/// bus, and sd-bus runs ssh here (`unixexec:`). sd-bus sends no user id when it authenticates, so
/// the bus takes the connection for one of the user who is logged in there.
namespace kova::ctl {

/// A remote camera, "[USER@]HOST[:PORT]". An IPv6 address is written in brackets.
struct Remote {
  std::string login;  ///< "USER@HOST" or "HOST", without brackets
  std::string port;   ///< "" for the choice of ssh
};

/// @param error receives, on failure, one line that says what is wrong
bool parseRemote(std::string_view text, Remote& remote, std::string& error);

/// The program ssh with its arguments, to run a command of kovactl there.
std::vector<std::string> sshWords(const Remote& remote, const std::vector<std::string>& command);

/// The D-Bus address of the bus of a remote camera. It names this program, which becomes ssh by
/// becomeSsh(): sd-bus alone would let Ctrl-C end ssh before this process has noticed.
std::string remoteBusAddress(std::string_view text);

/// Replaces this process by the ssh that carries a connection. Returns only on failure.
ExitStatus becomeSsh(const std::string& text);

/// Runs a command of kovactl there that inspects the machine on which it runs.
ExitStatus runThere(const Options& options, std::vector<std::string> command);

/// Remembers from now on how the ssh of a connection ends.
void watchSsh();

/// Explains why the bus of a remote camera could not be joined, by how ssh ended.
/// @param problem the message of the bus library
std::string explainRemote(const std::string& text, const std::string& problem);

}  // namespace kova::ctl
