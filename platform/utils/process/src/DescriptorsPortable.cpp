#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "Descriptors.h"

namespace kova::utils {
namespace {

/// One more than the highest possible descriptor: 4096 under the service files. Without a limit, a
/// loop over all takes 0.1 s.
int pastTheLast() {
  return static_cast<int>(sysconf(_SC_OPEN_MAX));
}

}  // namespace

// No child process may inherit these descriptors, so they can stay marked close-on-exec.
int inheritNoneFrom(posix_spawn_file_actions_t* /*actions*/, int first) {
  for (int fd = first, end = pastTheLast(); fd < end; ++fd) {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  return 0;
}

int startInFolder(posix_spawn_file_actions_t* /*actions*/, const char* /*folder*/) {
  return ENOSYS;
}

void closeDescriptorsFrom(int first) {
  for (int fd = first, end = pastTheLast(); fd < end; ++fd) {
    close(fd);
  }
}

}  // namespace kova::utils
