#include "Answer.h"

#include <cerrno>
#include <cstring>

#include "Terminal.h"
#include "Text.h"

namespace kova::ctl {

Exit show(std::string_view text) {
  return print(text)
             ? Exit::Ok
             : fail(Exit::Local, std::string("cannot write the output: ") + std::strerror(errno));
}

Exit askServer(const Options& options, ipc::messages::BaseRequestMessage& request,
               std::string_view done, std::string_view refusal) {
  Client client(options);
  if (const Exit joined = client.Join(); joined != Exit::Ok) {
    return joined;
  }
  const Reply reply = client.Request(request, options.answerTimeoutMs(), std::string(refusal));
  const bool talks = reply.status == Exit::Ok || reply.answered;
  const Exit shown = options.json && talks                       ? showJson(reply)
                     : reply.status == Exit::Ok && !options.json ? show(done)
                                                                 : Exit::Ok;
  return reply.status != Exit::Ok ? reply.status : shown;
}

Exit showJson(const Reply& reply) {
  const variant::Variant nothing = variant::Variant::Map{};
  return show(json(reply.answered ? reply.message : nothing, 2) + "\n");
}

variant::Variant payloadOf(const Reply& reply) {
  const variant::Variant* payload = reply.message.Find("payload");
  return payload != nullptr ? *payload : variant::Variant();
}

}  // namespace kova::ctl
