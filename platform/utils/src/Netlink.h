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

/// A generic netlink connection (genetlink), made when first needed. Answers are waited for until a
/// deadline only, so the caller never hangs.
class Netlink {
 public:
  /// Until when the questions that follow must be answered, on the clock of nowMs().
  void SetDeadline(std::uint64_t deadlineMs) { deadlineMs_ = deadlineMs; }

  /// Number of the family `name`; -1 when the kernel does not know it.
  int Family(const char* name);

  /// A request for everything that `command` lists; null when there is no memory.
  static NlMessage Dump(int family, std::uint8_t command);

  /// Sends a request and hands every answer to `onAnswer`. False when the request was refused or
  /// not answered in time; a late answer is never taken for that of another request.
  bool Ask(nl_msg* request, const std::function<void(nlmsghdr*)>& onAnswer);

 private:
  bool Connect();
  bool Await(const bool& finished);

  NlSocket socket_;
  std::uint64_t deadlineMs_ = 0;
};

}  // namespace kova::utils
