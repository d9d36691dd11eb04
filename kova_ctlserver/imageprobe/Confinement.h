#pragma once

namespace kova::imageprobe {

/// Gives up, for the rest of the process's life, all that decoding a picture does not need:
///
/// - processor time beyond 5 s, memory beyond 256 MB of data, writing files, further processes
///   (setrlimit(2));
/// - root: the process becomes nobody (65534) where it can be another user at all;
/// - new privileges (PR_SET_NO_NEW_PRIVS, prctl(2));
/// - every system call but those that reading files, computing and ending take (seccomp(2)): no
///   network, no further programs or threads, no changes to files, no signals to others. A call
///   that is not foreseen ends the process.
///
/// Meant to be called once the program's libraries have been loaded.
/// @return false when the limits or the filter could not be set; decoding must then not be tried
bool confine();

}  // namespace kova::imageprobe
