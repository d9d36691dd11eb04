#pragma once

#include <netlink/msg.h>
#include <netlink/socket.h>

#include <cstdint>
#include <functional>

#include "kova/utils/Handle.h"

namespace kova::utils {

using NlSocket = Handle<nl_sock, nl_socket_free>;
using NlMessage = Handle<nl_msg, nlmsg_free>;

/// A generic netlink connection (genetlink), opened on first use. A deadline bounds the wait for
/// answers.
class Netlink {
 public:
  /// Deadline for the answers to subsequent requests, on the clock of nowMs().
  void setDeadline(std::uint64_t deadlineMs) { deadlineMs_ = deadlineMs; }

  /// Id of the family `name`; -1 if the kernel does not know it.
  int family(const char* name);

  /// A request for all objects that `command` lists; null if memory is exhausted.
  static NlMessage dump(int family, std::uint8_t command);

  /// Sends a request and passes every answer to `onAnswer`. False if the request was refused or not
  /// answered in time. A failure closes the socket, so that a late answer is never mistaken for
  /// that of another request.
  bool ask(nl_msg* request, const std::function<void(nlmsghdr*)>& onAnswer);

 private:
  bool connect();
  bool await(const bool& finished);

  NlSocket socket_;
  std::uint64_t deadlineMs_ = 0;
};

}  // namespace kova::utils
