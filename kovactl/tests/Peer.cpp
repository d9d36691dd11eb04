#include "Peer.h"

#include <gtest/gtest.h>

#include <chrono>

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
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (received().size() < count && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return received().size() >= count;
}

MutePeer::MutePeer(const std::string& endpoint) {
  EXPECT_TRUE(ipc_.Init(endpoint, false, nullptr));
}

Witness::Witness() {
  std::string error;
  EXPECT_TRUE(monitor_.open(error)) << error;
}

bool Witness::awaitCall(const std::string& function) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!called_.contains(function) && std::chrono::steady_clock::now() < deadline) {
    const bool open = monitor_.Service(50, [this](const ipc::SeenMessage& seen) {
      const variant::Variant* name = seen.body.find("functionName");
      if (seen.kind == ipc::SeenMessage::Kind::Call && name != nullptr) {
        called_.insert(name->toText());
      }
    });
    if (!open) {
      break;
    }
  }
  return called_.contains(function);
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
