#include "DeviceObject.h"

#include "CtlServer.h"
#include "UnitTest.h"
#include "kova/ipc/Ipc.h"

namespace kova::ctlserver {
namespace {

using ipc::Moment;
using ipc::PropertyValue;
using testing::Pair;

class DeviceObjectTest : public testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    platform().cameraInfo = Variant(Map{{"name", "Kova Dome"}, {"sysid", 42264}});
    platform().config.values["resolv.host.1.name"] = "Front door";
    info_.Init();
    device_ = std::make_unique<DeviceObject>(info_, state_, ipc_.objects());
  }

  PropertyValue value(const std::string& name) const {
    const auto& rows = platform().bus.published.front().interface.properties;
    for (std::size_t place = 0; place < rows.size(); ++place) {
      if (rows[place].name == name) {
        return device_->read(place);
      }
    }
    return "no property " + name;
  }
  auto changes() {
    device_->service(state_);
    std::map<std::string, PropertyValue> values;
    for (const auto& signal : std::exchange(platform().bus.signals, {})) {
      EXPECT_EQ(signal.what, "changed");
      values.insert(signal.values.begin(), signal.values.end());
    }
    return values;
  }

  variant::CameraInfo info_;
  DeviceState state_;
  ipc::Ipc ipc_;
  std::unique_ptr<DeviceObject> device_;
};

TEST_F(DeviceObjectTest, PropertiesDescribeDevice) {
  EXPECT_STREQ(platform().bus.published.front().interface.name, "kova.Device1");
  EXPECT_EQ(platform().bus.published.front().folder, "");
  EXPECT_EQ(value("Model"), PropertyValue(std::string("Kova Dome")));
  EXPECT_EQ(value("SysId"), PropertyValue(std::string("42264")));
  EXPECT_EQ(value("Name"), PropertyValue(std::string("Front door")));
  EXPECT_EQ(value("FirmwareVersion"), PropertyValue(std::string("1.2.3")));
  EXPECT_EQ(value("BootId"), PropertyValue(std::string("boot-id")));
  EXPECT_EQ(value("DaemonVersion"), PropertyValue(std::string(KOVA_VERSION)));
  EXPECT_EQ(value("SavePending"), PropertyValue(false));
  EXPECT_EQ(value("ResetPending"), PropertyValue(false));
  EXPECT_EQ(value("LastSave"), PropertyValue(Moment{}));
  EXPECT_EQ(value("ButtonReadable"), PropertyValue(true));
}

TEST_F(DeviceObjectTest, TypesAreAsDeclared) {
  const std::map<std::size_t, std::string> types{
      {0, "b"}, {1, "q"}, {2, "t"}, {3, "s"}, {4, "(ts)"}};
  const auto& rows = platform().bus.published.front().interface.properties;
  std::vector<std::string> changing;
  for (std::size_t place = 0; place < rows.size(); ++place) {
    EXPECT_EQ(types.at(device_->read(place).index()), rows[place].type) << rows[place].name;
    if (rows[place].changes) {
      changing.emplace_back(rows[place].name);
    }
  }
  EXPECT_THAT(changing,
              ElementsAre("Name", "SavePending", "ResetPending", "LastSave", "ButtonReadable"));
}

TEST_F(DeviceObjectTest, OddDescriptionsAreShownAsFarAsTheyGo) {
  platform().cameraInfo = Variant(Map{{"sysid", "a text"}});
  info_.Init();
  platform().bus.published.clear();
  device_ = std::make_unique<DeviceObject>(info_, state_, ipc_.objects());
  EXPECT_EQ(value("Model"), PropertyValue(std::string()));
  EXPECT_EQ(value("SysId"), PropertyValue(std::string("a text")));
}

TEST_F(DeviceObjectTest, ChangesAreSignalledOnce) {
  EXPECT_THAT(changes(), IsEmpty());
  state_.savePending = true;
  EXPECT_THAT(changes(), ElementsAre(Pair("SavePending", PropertyValue(true))));
  EXPECT_THAT(changes(), IsEmpty());
  platform().nowMs += DeviceObject::kSignalMs;
  state_ = {false, true, false, {77, "FAILED"}, 0};
  EXPECT_THAT(changes(), ElementsAre(Pair("ButtonReadable", PropertyValue(false)),
                                     Pair("LastSave", PropertyValue(Moment{77, "FAILED"})),
                                     Pair("ResetPending", PropertyValue(true)),
                                     Pair("SavePending", PropertyValue(false))));
}

TEST_F(DeviceObjectTest, ChangesInQuickSuccessionAreHeldBack) {
  state_.lastSave = {1, "FAILED"};
  EXPECT_THAT(changes(), SizeIs(1));
  state_.lastSave = {2, "FAILED"};
  EXPECT_THAT(changes(), IsEmpty());
  EXPECT_EQ(value("LastSave"), PropertyValue(Moment{2, "FAILED"}));
  platform().nowMs += DeviceObject::kSignalMs;
  EXPECT_THAT(changes(), ElementsAre(Pair("LastSave", PropertyValue(Moment{2, "FAILED"}))));
}

TEST_F(DeviceObjectTest, BusyBusIsSignalledLater) {
  platform().bus.signalResult = false;
  state_.resetPending = true;
  EXPECT_THAT(changes(), IsEmpty());
  EXPECT_EQ(value("ResetPending"), PropertyValue(true));
  platform().bus.signalResult = true;
  EXPECT_THAT(changes(), ElementsAre(Pair("ResetPending", PropertyValue(true))));
}

TEST_F(DeviceObjectTest, NameIsReadAgainAfterStoring) {
  EXPECT_EQ(value("Name"), PropertyValue(std::string("Front door")));
  platform().journal.clear();
  platform().config.values["resolv.host.1.name"] = "Back door";
  EXPECT_EQ(value("Name"), PropertyValue(std::string("Front door")));
  EXPECT_THAT(platform().journal, IsEmpty());
  ++state_.settingsChanges;
  EXPECT_THAT(changes(), ElementsAre(Pair("Name", PropertyValue(std::string("Back door")))));
}

TEST_F(DeviceObjectTest, StoreIsReadAgainAfterFailure) {
  platform().config.initResult = false;
  EXPECT_EQ(value("Name"), PropertyValue(std::string()));
  platform().config.initResult = true;
  platform().nowMs += DeviceObject::kRetryMs - 1;
  EXPECT_EQ(value("Name"), PropertyValue(std::string())) << "not read again yet";
  platform().nowMs += 1;
  EXPECT_EQ(value("Name"), PropertyValue(std::string("Front door")));
}

TEST_F(DeviceObjectTest, AbsentNameIsNotReadAgain) {
  platform().config.values.clear();
  EXPECT_EQ(value("Name"), PropertyValue(std::string()));
  platform().config.values["resolv.host.1.name"] = "Back door";
  platform().nowMs += 2 * DeviceObject::kRetryMs;
  EXPECT_EQ(value("Name"), PropertyValue(std::string()));
}

TEST_F(DeviceObjectTest, StoringEndsWaitAfterFailure) {
  platform().config.initResult = false;
  EXPECT_EQ(value("Name"), PropertyValue(std::string()));
  platform().config.initResult = true;
  ++state_.settingsChanges;
  EXPECT_THAT(changes(), ElementsAre(Pair("Name", PropertyValue(std::string("Front door")))));
}

TEST_F(DeviceObjectTest, StateFollowsSavingAndSettings) {
  CtlServer server(info_);
  ASSERT_TRUE(server.init(nullptr));
  EXPECT_EQ(server.deviceState(), DeviceState());
  server.persist(false);
  EXPECT_TRUE(server.deviceState().savePending);
  platform().nowMs = 3'000'000;
  server.persist(true);
  EXPECT_FALSE(server.deviceState().savePending);
  EXPECT_EQ(server.deviceState().lastSave, (Moment{3'000'000'000, "OK"}));
  platform().onRun = [](const std::string&) { return fakes::ProcessResult{1, "", ""}; };
  server.persist(true);
  EXPECT_TRUE(server.deviceState().savePending);
  EXPECT_EQ(server.deviceState().lastSave.what, "FAILED");
  platform().onRun = {};
  server.resetToDefaults();
  EXPECT_FALSE(server.deviceState().savePending);
  EXPECT_TRUE(server.deviceState().resetPending);
  platform().button.serviceResult = false;
  server.service(0);
  EXPECT_FALSE(server.deviceState().buttonReadable);

  Variant reply;
  ipc::messages::ChangeDeviceSettings query(Variant(Map{}));
  query.NormalizeFields();
  EXPECT_TRUE(server.updateSettings(query, reply));
  EXPECT_EQ(server.deviceState().settingsChanges, 0U);
  ipc::messages::ChangeDeviceSettings change(Variant(Map{{"name", "Gate"}}));
  change.NormalizeFields();
  EXPECT_TRUE(server.updateSettings(change, reply));
  EXPECT_EQ(server.deviceState().settingsChanges, 1U);
}

}  // namespace
}  // namespace kova::ctlserver
