#pragma once

#include <netlink/msg.h>
#include <netlink/socket.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace kova::utils {

template <auto kRelease>
struct ReleaseWith {
  template <typename Handle>
  void operator()(Handle* handle) const {
    kRelease(handle);
  }
};

using NlSocket = std::unique_ptr<nl_sock, ReleaseWith<nl_socket_free>>;
using NlMessage = std::unique_ptr<nl_msg, ReleaseWith<nlmsg_free>>;

/// A generic netlink connection (genetlink) for one round of questions, which must all be answered
/// before a deadline: the caller never hangs.
class Netlink {
 public:
  /// @param deadlineMs on the clock of nowMs()
  explicit Netlink(std::uint64_t deadlineMs);

  /// Number of the family `name`; -1 when the kernel does not know it.
  int Family(const char* name);

  /// A request for everything that `command` lists; null when there is no memory.
  static NlMessage Dump(int family, std::uint8_t command);

  /// Sends a request and hands every answer to `onAnswer`. False when the request was refused or
  /// its deadline passed; the connection is then closed, and later requests fail.
  bool Ask(nl_msg* request, const std::function<void(nlmsghdr*)>& onAnswer);

 private:
  bool Await(const bool& finished);

  NlSocket socket_;
  std::uint64_t deadlineMs_;
};

}  // namespace kova::utils
