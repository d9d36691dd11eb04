#include "Descriptors.h"

#include <unistd.h>

namespace kova::utils {

int inheritNoneFrom(posix_spawn_file_actions_t* actions, int first) {
  return posix_spawn_file_actions_addclosefrom_np(actions, first);
}

int startInFolder(posix_spawn_file_actions_t* actions, const char* folder) {
  return posix_spawn_file_actions_addchdir_np(actions, folder);
}

void closeDescriptorsFrom(int first) {
  closefrom(first);
}

}  // namespace kova::utils
