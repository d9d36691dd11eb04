#pragma once

namespace kova::imageprobe {

/// Permanently drops everything that decoding the picture at `path` does not need:
///
/// - processor time beyond 1 s from now (setitimer(2); 3 s if the signal is ignored), data beyond
///   256 MiB, writing files, further processes (setrlimit(2));
/// - root: the process becomes nobody (65534), unless its user namespace has no other user;
/// - new privileges (PR_SET_NO_NEW_PRIVS, prctl(2));
/// - system calls beyond reading, computing and exiting (seccomp(2)): no network, programs,
///   threads, changes to files or signals to others. An unexpected call ends the process;
/// - files other than the picture. The picture is opened here, several times; open(2) of `path`
///   then returns one of these descriptors, and any other open(2) is refused.
///
/// Must be called once, after the libraries have been loaded. A picture that cannot be opened is
/// not a failure; the decoder's open(2) fails instead.
/// @param path must stay valid and unchanged
/// @return false if the limits or the filter could not be set; the caller must not decode then
bool confine(const char* path);

}  // namespace kova::imageprobe
