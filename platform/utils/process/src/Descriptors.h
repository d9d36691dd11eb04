#pragma once

#include <spawn.h>

namespace kova::utils {

/// Functions that not every C library offers. CMakeLists.txt selects one of two implementations.

/// Makes the spawned program inherit no descriptor from `first` on.
/// @return 0, or an errno value
int inheritNoneFrom(posix_spawn_file_actions_t* actions, int first);

/// Makes the spawned program start in a folder.
/// @return 0, or an errno value: ENOSYS if not supported
int startInFolder(posix_spawn_file_actions_t* actions, const char* folder);

/// Closes all of this process's own descriptors from `first` on. Allocates no memory.
void closeDescriptorsFrom(int first);

}  // namespace kova::utils
