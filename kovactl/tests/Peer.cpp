#include "Peer.h"

#include <gtest/gtest.h>

#include "../../platform/utils/process/tests/Processes.h"

namespace kova::ctl::testing {

Peer::Peer(Script script, const std::string& endpoint)
    : BaseHandler("Peer", nullptr), script_(std::move(script)) {
  EXPECT_TRUE(ipc_.AddHandler("", this));
  EXPECT_TRUE(ipc_.Init(endpoint, true, nullptr));
  thread_ = std::thread([this] {
    while (!stop_ && ipc_.Service(20)) {
    }
  });
}

Peer::~Peer() {
  stop_ = true;
  thread_.join();
}

bool Peer::HandleRequest(Request& request, bool& rejected) {
  {
    const std::lock_guard lock(mutex_);
    received_.push_back(request);
  }
  script_(request, ipc_, rejected);
  return true;
}

std::vector<Peer::Request> Peer::received() const {
  const std::lock_guard lock(mutex_);
  return received_;
}

bool Peer::awaitReceived(std::size_t count) const {
  return tests::eventually([&] { return received().size() >= count; });
}

MutePeer::MutePeer() : bus_(ipc::openBus(false, error_)) {
  EXPECT_GE(sd_bus_request_name(bus_.get(), "kova.kova_ctlserver", 0), 0) << error_;
}

bool MutePeer::awaitRequest() {
  return tests::eventually([this] {
    sd_bus_message* taken = nullptr;
    sd_bus_process(bus_.get(), &taken);
    const ipc::MessagePtr message(taken);
    return sd_bus_message_is_method_call(taken, "kova.Ipc1", "Send") > 0;
  });
}

Peer::Script answering(std::uint64_t statusCode, variant::Variant payload) {
  return [=](Peer::Request& request, ipc::Ipc& ipc, bool&) {
    ipc::messages::BaseResponseMessage response;
    response.statusCode(statusCode);
    response.payload(payload);
    EXPECT_TRUE(ipc.SendResponse(request, response));
  };
}

Peer::Script takingNote() {
  return [](Peer::Request&, ipc::Ipc&, bool&) {};
}

}  // namespace kova::ctl::testing
