#include <syslog.h>

#include <algorithm>
#include <set>

#include "BaseTransferTask.h"
#include "DispatchFixture.h"

int kova_ctlserver_main();

namespace kova::ctlserver {
namespace {

using testing::Gt;

/// Places that log through a common helper report their own source line, not that of the helper.
class SourceLinesTest : public DispatchFixture {
 protected:
  static int loggedLine() {
    EXPECT_EQ(platform().log.size(), 1U) << testing::PrintToString(platform().logTexts());
    return platform().log.empty() ? 0 : platform().log.back().line;
  }

  int lineAfter(const char* functionName, Map fields) {
    platform().log.clear();
    fields["functionName"] = functionName;
    handle(std::move(fields));
    return loggedLine();
  }
};

TEST_F(SourceLinesTest, OfStart) {
  platform().crashHandlerResult = false;
  kova_ctlserver_main();
  const int crashHandler = loggedLine();
  SetUp();
  platform().cameraInfoResult = false;
  kova_ctlserver_main();
  EXPECT_NE(loggedLine(), crashHandler);
}

TEST_F(SourceLinesTest, OfServices) {
  const int started = lineAfter("StartService", {{"service", "sshd"}});
  EXPECT_THAT(lineAfter("StopService", {{"service", "sshd"}}), Gt(started));
}

TEST_F(SourceLinesTest, OfStatistics) {
  platform().stats.memoryResult = 1;
  const int memory = lineAfter("GetSystemStats", {});
  platform().stats.memoryResult = 0;
  platform().stats.cpuResult = 1;
  EXPECT_NE(lineAfter("GetSystemStats", {}), memory);
}

TEST_F(SourceLinesTest, OfSettings) {
  platform().config.failingGet = "resolv.host.1.name";
  const int name = lineAfter("ChangeDeviceSettings", {});
  platform().config.failingGet = "system.timezone";
  const int zone = lineAfter("ChangeDeviceSettings", {});
  platform().config.failingGet = "";
  platform().config.failingSet = "resolv.host.1.name";
  const int setName = lineAfter("ChangeDeviceSettings", {{"name", "Door"}});
  platform().config.failingSet = "system.timezone";
  const int setZone = lineAfter("ChangeDeviceSettings", {{"timezone", "GMT"}});
  EXPECT_THAT(setName, Gt(name));
  EXPECT_THAT(zone, Gt(setName));
  EXPECT_NE(setZone, setName);
}

TEST_F(SourceLinesTest, OfAccount) {
  const auto lineOf = [&](const char* passwordOld, const char* passwordNew) {
    return lineAfter(
        "ChangeUsernamePassword",
        {{"username", "admin"}, {"passwordOld", passwordOld}, {"passwordNew", passwordNew}});
  };
  const int oldEmpty = lineOf("", "new");
  const int wrong = lineOf("wrong", "new");
  const int newEmpty = lineOf("secret", "");
  EXPECT_THAT(wrong, Gt(oldEmpty));
  EXPECT_THAT(newEmpty, Gt(wrong));
}

TEST_F(SourceLinesTest, OfIncompleteTransfer) {
  BaseTransferTask task;
  std::vector<int> lines;
  const auto refuse = [&] {
    platform().log.clear();
    EXPECT_FALSE(task.start());
    lines.push_back(loggedLine());
  };
  refuse();
  task.setName("task");
  refuse();
  task.setMaxSz(1);
  refuse();
  task.setUri("http://host/file");
  refuse();
  task.setPath("/tmp/file");
  refuse();
  task.setTimeout(1);
  refuse();
  task.setIpcOrigin("client.a");
  EXPECT_TRUE(task.start());
  EXPECT_EQ(std::set<int>(lines.begin(), lines.end()).size(), 6U) << testing::PrintToString(lines);
  EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end()));
}

}  // namespace
}  // namespace kova::ctlserver
