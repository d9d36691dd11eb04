#include <sys/time.h>

#include "../Answer.h"
#include "../Command.h"
#include "../MessageLine.h"
#include "../StopSignals.h"

namespace kova::ctl {
namespace {

// Prints what arrives. Nothing is ever answered, so a sender that expects an answer is told by the
// bus library that the request was taken.
class Printer : public ipc::BaseHandler {
 public:
  Printer(const Options& options, std::string endpoint)
      : BaseHandler("kovactl", nullptr), options_(options), endpoint_(std::move(endpoint)) {}

  bool HandleRequest(ipc::messages::BaseRequestMessage& request, bool&) override {
    using Kind = ipc::SeenMessage::Kind;
    const Kind kind = request.isBroadcast() ? Kind::Broadcast : Kind::Call;
    const ipc::SeenMessage seen{kind, request.from(), endpoint_, "", request};
    timeval when{};
    gettimeofday(&when, nullptr);
    if (status_ == Exit::Ok) {
      status_ = show((options_.json ? messageJson(seen, when) : messageLine(seen, when)) + "\n");
    }
    return true;
  }

  Exit Status() const { return status_; }

 private:
  const Options& options_;
  std::string endpoint_;
  Exit status_ = Exit::Ok;
};

Exit run(const Options& options, const std::string& endpoint) {
  Printer printer(options, endpoint);
  Client client(options);
  if (const Exit joined = client.Join(endpoint, &printer); joined != Exit::Ok) {
    return joined;
  }
  const Exit served = client.ServeUntil([&printer] { return printer.Status() != Exit::Ok; });
  if (stopRequested()) {
    return Exit::Ok;
  }
  return served == Exit::Ok ? printer.Status() : served;
}

}  // namespace

Action setUpListen(CommandLine& line) {
  auto endpoint = std::make_shared<std::string>();
  line.Argument("ENDPOINT", *endpoint, "Name to take on the bus, for example client.me");
  line.Footer(
      "One line a message, written at once; passwords are masked. SIGINT and SIGTERM end it with\n"
      "status 0; status 3 when the bus goes away. Names outside \"client.\" need root.\n");
  return [endpoint](const Options& options) { return run(options, *endpoint); };
}

}  // namespace kova::ctl
