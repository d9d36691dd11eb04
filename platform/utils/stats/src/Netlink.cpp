#include "Netlink.h"

#include <netlink/errno.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <poll.h>

#include "kova/utils/Clock.h"
#include "kova/utils/ExceptionBarrier.h"

namespace kova::utils {
namespace {

/// State shared by the callbacks of one request.
struct Exchange {
  const std::function<void(nlmsghdr*)>& onAnswer;
  bool finished = false;
};

int onValid(nl_msg* message, void* exchange) {
  const auto answer = [&] {
    static_cast<Exchange*>(exchange)->onAnswer(nlmsg_hdr(message));
    return int{NL_OK};
  };
  return exceptionBarrier(int{-NLE_FAILURE}, answer, [](const char*) {});
}

/// The end of a list, or the acknowledgement of a request for a single object.
int onFinish(nl_msg*, void* exchange) {
  static_cast<Exchange*>(exchange)->finished = true;
  return NL_STOP;
}

NlMessage makeRequest(int family, int flags, std::uint8_t command) {
  NlMessage request(nlmsg_alloc());
  if (request) {
    genlmsg_put(request.get(), NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, flags, command, 0);
  }
  return request;
}

}  // namespace

int Netlink::family(const char* name) {
  int family = -1;
  const auto readNumber = [&family](nlmsghdr* answer) {
    const nlattr* number = nlmsg_find_attr(answer, GENL_HDRLEN, CTRL_ATTR_FAMILY_ID);
    if (number != nullptr) family = nla_get_u16(number);
  };
  const NlMessage request = makeRequest(GENL_ID_CTRL, NLM_F_REQUEST, CTRL_CMD_GETFAMILY);
  if (request && nla_put_string(request.get(), CTRL_ATTR_FAMILY_NAME, name) == 0) {
    ask(request.get(), readNumber);
  }
  return family;
}

NlMessage Netlink::dump(int family, std::uint8_t command) {
  return makeRequest(family, NLM_F_DUMP, command);
}

// A refusal by the kernel, or a failure of onAnswer, becomes an error of nl_recvmsgs_default().
bool Netlink::ask(nl_msg* request, const std::function<void(nlmsghdr*)>& onAnswer) {
  if (!socket_ && !connect()) return false;
  Exchange exchange{onAnswer};
  nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_CUSTOM, onValid, &exchange);
  nl_socket_modify_cb(socket_.get(), NL_CB_FINISH, NL_CB_CUSTOM, onFinish, &exchange);
  nl_socket_modify_cb(socket_.get(), NL_CB_ACK, NL_CB_CUSTOM, onFinish, &exchange);
  const bool answered = nl_send_auto(socket_.get(), request) >= 0 && await(exchange.finished);
  if (!answered) socket_.reset();
  return answered;
}

bool Netlink::connect() {
  NlSocket socket(nl_socket_alloc());
  if (!socket || genl_connect(socket.get()) != 0 || nl_socket_set_nonblocking(socket.get()) != 0) {
    return false;
  }
  socket_ = std::move(socket);
  return true;
}

bool Netlink::await(const bool& finished) {
  while (true) {
    const int error = nl_recvmsgs_default(socket_.get());
    if (finished) return true;
    if (error < 0 && error != -NLE_AGAIN) return false;
    const std::uint64_t time = nowMs();
    if (time >= deadlineMs_) return false;
    pollfd polled{nl_socket_get_fd(socket_.get()), POLLIN, {}};
    poll(&polled, 1, static_cast<int>(deadlineMs_ - time));
  }
}

}  // namespace kova::utils
