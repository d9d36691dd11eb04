#include "ReceiveBuffer.h"

#include <sys/socket.h>

namespace kova::ctlserver {

void widenReceiveBuffer(int fd) {
  const int asked = kReceiveBufferSize / 2;  // the kernel doubles it, see socket(7)
  setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &asked, sizeof asked);
}

}  // namespace kova::ctlserver
