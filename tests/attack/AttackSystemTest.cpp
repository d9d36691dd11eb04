#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <optional>

#include "Attack.h"

namespace kova::attack {
namespace {

using std::chrono::seconds;
using testing::Contains;
using testing::Field;

const CampaignKind& kindOf(const std::string& name) {
  return *std::ranges::find(campaigns(), name, &CampaignKind::name);
}

Order shortOrder() {
  Order order;
  order.seed = 1;
  order.limit = seconds(3);
  return order;
}

Report reportOf(const std::string& campaign, std::function<void(system_test::Camera&)> sabotage) {
  Order order = shortOrder();
  order.begun = std::move(sabotage);
  return Attack(kindOf(campaign), order).run();
}

testing::Matcher<Report> finds(const std::string& invariant) {
  return Field(&Report::findings, Contains(Field(&Finding::invariant, invariant)));
}

TEST(AttackSystem, SoundServerHasNoFindings) {
  keepLittleOfFreedMemory();
  for (const auto& [campaign, actions] : {std::pair("requests", 100U), std::pair("servers", 40U)}) {
    CampaignKind kind = kindOf(campaign);
    kind.answerBound = seconds(20);  // other tests keep the machine busy
    Order order = shortOrder();
    order.limit = seconds(100);  // enough for the actions on a busy machine
    order.mostActions = actions;
    const Report report = Attack(kind, order).run();
    EXPECT_GE(report.actions, actions) << campaign;
    for (const Finding& finding : report.findings) {
      ADD_FAILURE() << finding.invariant << ": " << finding.detail;
    }
  }
}

TEST(AttackSystem, UnresponsiveServerIsFound) {
  std::optional<system_test::HostProcess> stopped;
  const Report report = reportOf("servers", [&](system_test::Camera& camera) {
    stopped.emplace(system_test::controlServer(camera));
    stopped->signal(SIGSTOP);
  });
  EXPECT_THAT(report, finds("a bus request is answered in time"));
  EXPECT_THAT(report, finds("SIGTERM ends the control server"));
}

TEST(AttackSystem, DeadServerIsFound) {
  const Report report = reportOf("requests", [](system_test::Camera& camera) {
    system_test::controlServer(camera).signal(SIGKILL);
  });
  EXPECT_THAT(report, finds("the control server lives"));
}

TEST(AttackSystem, MemoryBeyondLimitIsFound) {
  CampaignKind kind = kindOf("requests");
  kind.mostGrowthKiB = 0;
  EXPECT_THAT(Attack(kind, shortOrder()).run(), finds("memory stays in its bound"));
}

TEST(AttackSystem, InterruptedCampaignTakesNoAction) {
  Order order = shortOrder();
  order.interrupted = [] { return true; };
  EXPECT_EQ(Attack(kindOf("pictures"), order).run().actions, 0U);
}

}  // namespace
}  // namespace kova::attack
