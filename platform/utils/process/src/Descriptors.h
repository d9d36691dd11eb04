#pragma once

#include <spawn.h>

namespace kova::utils {

/// What not every C library offers. Two files implement this; CMakeLists.txt chooses.

/// Has a program that is started inherit no descriptor from `first` on.
/// @return 0, or an errno value
int inheritNoneFrom(posix_spawn_file_actions_t* actions, int first);

/// Has a program start in a folder.
/// @return 0, or an errno value: ENOSYS where that cannot be had
int startInFolder(posix_spawn_file_actions_t* actions, const char* folder);

/// Closes all of this process's own descriptors from `first` on. Allocates no memory.
void closeDescriptorsFrom(int first);

}  // namespace kova::utils
