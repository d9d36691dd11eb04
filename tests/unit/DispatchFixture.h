#pragma once

#include "CtlCommandsHandler.h"
#include "CtlServer.h"
#include "UnitTest.h"

namespace kova::ctlserver {

/// Passes requests to the handler as the bus does, on a camera whose administrator is "admin" with
/// the password "secret".
class DispatchFixture : public testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    platform().config.values = {{"resolv.host.1.name", "Front door"},
                                {"system.timezone", "UTC"},
                                {"system.region", "US"},
                                {"users.1.name", "admin"},
                                {"users.1.password", "old$secret"}};
    platform().accounts.hashes = {{"admin", "old$secret"}};
    static_cast<Variant&>(info_) = Variant(kPlainCamera);
  }

  bool handle(Map content) {
    ipc::messages::BaseRequestMessage request{Variant(std::move(content))};
    bool rejected = false;
    platform().bus.handling = request.id();
    const bool result = handler_.HandleRequest(request, rejected);
    EXPECT_FALSE(rejected) << "the flag is left alone";
    return result;
  }

  variant::CameraInfo info_;
  ipc::Ipc ipc_;
  CtlServer server_{info_};
  CtlCommandsHandler handler_{&ipc_, &server_};
};

}  // namespace kova::ctlserver
