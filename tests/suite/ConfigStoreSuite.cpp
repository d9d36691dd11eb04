#include "Rig.h"
#include "kova/syscfg/SystemCfgManager.h"

namespace kova::suite {
namespace {

using namespace std::string_literals;
using syscfg::SystemCfgManager;

class ConfigStoreSuite : public PlatformSuite {
 protected:
  void SetUp() override {
    PlatformSuite::SetUp();
    writeStore({{"name", "Front door"}, {"zone", "GMT"}});
    ASSERT_TRUE(store_.init());
  }

  /// The value that another user of the store reads; "(absent)" for none.
  static std::string stored(const std::string& key) {
    SystemCfgManager other;
    std::string value;
    bool absent = false;
    EXPECT_TRUE(other.init() && other.get(key, &value, &absent));
    return absent ? "(absent)" : value;
  }

  SystemCfgManager store_;
};

TEST_F(ConfigStoreSuite, ReadsValue) {
  std::string value = "before";
  bool absent = true;
  EXPECT_TRUE(store_.get("name", &value, &absent));
  EXPECT_EQ(value, "Front door");
  EXPECT_FALSE(absent);
  EXPECT_TRUE(store_.get("zone", &value, nullptr));
  EXPECT_EQ(value, "GMT");
}

TEST_F(ConfigStoreSuite, OptionalAbsentKeySucceeds) {
  std::string value = "before";
  bool absent = false;
  EXPECT_TRUE(store_.get("Name", &value, &absent));
  EXPECT_TRUE(absent);
  EXPECT_EQ(value, "");
}

TEST_F(ConfigStoreSuite, RequiredAbsentKeyFails) {
  std::string value;
  EXPECT_FALSE(store_.get("other", &value, nullptr));
}

TEST_F(ConfigStoreSuite, ReportsWhetherValueChanged) {
  bool changed = false;
  EXPECT_TRUE(store_.set("name", "Yard", &changed));
  EXPECT_TRUE(changed);
  EXPECT_TRUE(store_.set("name", "Yard", &changed));
  EXPECT_FALSE(changed);
  EXPECT_TRUE(store_.set("added", "", &changed));
  EXPECT_TRUE(changed);
  EXPECT_TRUE(store_.set("added", "", &changed));
  EXPECT_FALSE(changed);
  EXPECT_TRUE(store_.set("added", "x", nullptr));
}

TEST_F(ConfigStoreSuite, NumbersAreStoredAsDecimalText) {
  bool changed = false;
  EXPECT_TRUE(store_.set("minutes", -15, &changed));
  EXPECT_TRUE(changed);
  EXPECT_TRUE(store_.set("minutes", "-15", &changed));
  EXPECT_FALSE(changed);
}

TEST_F(ConfigStoreSuite, OthersSeeChangeOnceClosed) {
  std::string value;
  EXPECT_TRUE(store_.set("name", "Yard", nullptr));
  EXPECT_TRUE(store_.set("added", "new", nullptr));
  EXPECT_TRUE(store_.get("name", &value, nullptr));
  EXPECT_EQ(value, "Yard");
  EXPECT_EQ(stored("name"), "Front door");
  EXPECT_TRUE(store_.close(true, false));
  EXPECT_EQ(stored("name"), "Yard");
  EXPECT_EQ(stored("added"), "new");
  EXPECT_EQ(stored("zone"), "GMT");
}

TEST_F(ConfigStoreSuite, CloseWithoutChangeDropsValues) {
  EXPECT_TRUE(store_.set("name", "Yard", nullptr));
  EXPECT_TRUE(store_.close(false, false));
  EXPECT_EQ(stored("name"), "Front door");
}

TEST_F(ConfigStoreSuite, ForcedCloseStores) {
  EXPECT_TRUE(store_.set("name", "Yard", nullptr));
  EXPECT_TRUE(store_.close(false, true));
  EXPECT_EQ(stored("name"), "Yard");
}

TEST_F(ConfigStoreSuite, UnclosedStoreStoresNothing) {
  {
    SystemCfgManager dropped;
    ASSERT_TRUE(dropped.init());
    EXPECT_TRUE(dropped.set("name", "Yard", nullptr));
  }
  EXPECT_EQ(stored("name"), "Front door");
}

TEST_F(ConfigStoreSuite, OperationsFailBeforeInitAndAfterClose) {
  SystemCfgManager fresh;
  std::string value;
  bool flag = false;
  for (SystemCfgManager* closed : {&fresh, &store_}) {
    closed->close(false, false);
    EXPECT_FALSE(closed->get("name", &value, &flag));
    EXPECT_FALSE(closed->set("name", "Yard", &flag));
    EXPECT_FALSE(closed->close(true, true));
  }
  EXPECT_EQ(stored("name"), "Front door");
}

TEST_F(ConfigStoreSuite, InitReadsStoreAgain) {
  EXPECT_TRUE(store_.set("name", "Yard", nullptr));
  ASSERT_TRUE(store_.init());
  std::string value;
  EXPECT_TRUE(store_.get("name", &value, nullptr));
  EXPECT_EQ(value, "Front door");
}

TEST_F(ConfigStoreSuite, MissingStoreCannotBeOpened) {
  removeStore();
  SystemCfgManager store;
  std::string value;
  EXPECT_FALSE(store.init());
  EXPECT_FALSE(store.get("name", &value, nullptr));
}

TEST_F(ConfigStoreSuite, ValueMayHoldAnythingExceptLineBreaksAndNul) {
  for (const std::string& value :
       {"a=b"s, "#x"s, "  spaces\t "s, "Zürich"s, "\x01\xff"s, "$(reboot)"s, "; reboot"s, "%s%n"s,
        "\x1b[2J"s, std::string(4096, 'v')}) {
    ASSERT_TRUE(store_.init());
    EXPECT_TRUE(store_.set("name", value, nullptr));
    EXPECT_TRUE(store_.close(true, false));
    EXPECT_EQ(stored("name"), value);
  }
}

TEST_F(ConfigStoreSuite, ValueThatCouldAddLineIsRefused) {
  for (const std::string& value : {"a\nb=c"s, "a\r"s, "\n"s, "a\0b"s}) {
    EXPECT_FALSE(store_.set("name", value, nullptr));
    EXPECT_FALSE(store_.set("added", value, nullptr));
  }
  EXPECT_TRUE(store_.close(true, false));
  EXPECT_EQ(stored("name"), "Front door");
  EXPECT_EQ(stored("added"), "(absent)");
}

TEST_F(ConfigStoreSuite, KeyThatWouldReadBackDifferentlyIsRefused) {
  for (const std::string& key :
       {""s, "a=b"s, "#a"s, " a"s, "a "s, "a\t"s, "a\nb"s, "a\rb"s, "a\0b"s}) {
    EXPECT_FALSE(store_.set(key, "x", nullptr)) << testing::PrintToString(key);
  }
}

}  // namespace
}  // namespace kova::suite
