#include "Netlink.h"

#include <netlink/errno.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <poll.h>

#include <cerrno>

#include "kova/utils/Clock.h"
#include "kova/utils/ExceptionBarrier.h"

namespace kova::utils {
namespace {

/// State shared by the callbacks of one request.
struct Exchange {
  const std::function<void(nlmsghdr*)>& onAnswer;
  bool finished = false;
  bool refused = false;
};

int onValid(nl_msg* message, void* exchange) {
  auto* const own = static_cast<Exchange*>(exchange);
  const auto answer = [&] {
    own->onAnswer(nlmsg_hdr(message));
    return int{NL_OK};
  };
  const auto giveUp = [own](const char*) { own->finished = own->refused = true; };
  return exceptionBarrier(int{NL_STOP}, answer, giveUp);
}

/// The end of a list, or the acknowledgement of a request for a single object.
int onFinish(nl_msg*, void* exchange) {
  static_cast<Exchange*>(exchange)->finished = true;
  return NL_STOP;
}

int onRefusal(sockaddr_nl*, nlmsgerr*, void* exchange) {
  static_cast<Exchange*>(exchange)->finished = true;
  static_cast<Exchange*>(exchange)->refused = true;
  return NL_STOP;
}

}  // namespace

int Netlink::family(const char* name) {
  NlMessage request(nlmsg_alloc());
  if (!request ||
      genlmsg_put(request.get(), NL_AUTO_PORT, NL_AUTO_SEQ, GENL_ID_CTRL, 0, 0, CTRL_CMD_GETFAMILY,
                  1) == nullptr ||
      nla_put_string(request.get(), CTRL_ATTR_FAMILY_NAME, name) != 0) {
    return -1;
  }
  int family = -1;
  const auto readNumber = [&family](nlmsghdr* answer) {
    const nlattr* number = nlmsg_find_attr(answer, GENL_HDRLEN, CTRL_ATTR_FAMILY_ID);
    if (number != nullptr) family = nla_get_u16(number);
  };
  return ask(request.get(), readNumber) ? family : -1;
}

NlMessage Netlink::dump(int family, std::uint8_t command) {
  NlMessage request(nlmsg_alloc());
  if (request && genlmsg_put(request.get(), NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, NLM_F_DUMP,
                             command, 0) == nullptr) {
    request.reset();
  }
  return request;
}

bool Netlink::ask(nl_msg* request, const std::function<void(nlmsghdr*)>& onAnswer) {
  if (!socket_ && !connect()) return false;
  Exchange exchange{onAnswer};
  nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_CUSTOM, onValid, &exchange);
  nl_socket_modify_cb(socket_.get(), NL_CB_FINISH, NL_CB_CUSTOM, onFinish, &exchange);
  nl_socket_modify_cb(socket_.get(), NL_CB_ACK, NL_CB_CUSTOM, onFinish, &exchange);
  nl_socket_modify_err_cb(socket_.get(), NL_CB_CUSTOM, onRefusal, &exchange);
  const bool answered = nl_send_auto(socket_.get(), request) >= 0 && await(exchange.finished);
  if (!answered) socket_.reset();
  return answered && !exchange.refused;
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
    pollfd polled{nl_socket_get_fd(socket_.get()), POLLIN, 0};
    if (poll(&polled, 1, static_cast<int>(deadlineMs_ - time)) < 0 && errno != EINTR) return false;
  }
}

}  // namespace kova::utils
