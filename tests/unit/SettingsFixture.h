#pragma once

#include <syslog.h>

#include "CtlServer.h"
#include "UnitTest.h"

namespace kova::ctlserver {

constexpr std::uint32_t kPlainModel = 42000;
constexpr std::uint32_t kTimelapseModel = 42321;

/// A server on a camera named "Front door", for reading and changing settings.
class SettingsTest : public testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    platform().config.values = {{"resolv.host.1.name", "Front door"},
                                {"system.timezone", "GMT"},
                                {"system.region", "US"},
                                {"system.timelapseminutes", "1"}};
    info_["sysid"] = kPlainModel;
  }

  bool update(const Map& fields) {
    ipc::messages::ChangeDeviceSettings request{Variant(fields)};
    request.NormalizeFields();
    return server_.updateSettings(request, reply_);
  }

  static LogLine error(const std::string& text) {
    return {"CtlServer", "updateSettings", LOG_ERR, 0, text};
  }

  static std::string stored(const std::string& key) { return platform().config.values.at(key); }

  /// Expects a failure that leaves the store unclosed and logs one line.
  void expectFailure(const Map& fields, const std::string& text) {
    EXPECT_FALSE(update(fields));
    EXPECT_THAT(platform().log, ElementsAre(error(text)));
    EXPECT_THAT(platform().journal, Not(Contains(StartsWith("close"))));
  }

  variant::CameraInfo info_;
  CtlServer server_{info_};
  Variant reply_;
};

}  // namespace kova::ctlserver
