#include "commands/Metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "../../platform/utils/tests/TemporaryFolder.h"
#include "Kinds.h"
#include "Text.h"

namespace kova::ctl {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using variant::Variant;

Variant statistics() {
  return Variant::Map{
      {"memory", Variant::Map{{"totalKb", 2048}, {"freeKb", 512}}},
      {"cpu", Variant::Map{{"cnt", 2}, {"arr", Variant::Array{12.5, 50}}}},
      {"loadavg", Variant::Map{{"01min", 8.140000343322754}, {"05min", 0.5}, {"15min", 1.0}}},
      {"network",
       Variant::Map{{"name", "eth0"}, {"bytesRx", std::uint64_t{1} << 60U}, {"bytesTx", 7}}},
      {"wifi", Variant::Map{{"signalStrength", -60}, {"quality", 80}}},
      {"battery", Variant::Map{{"percentage", 75}, {"isCharging", true}}},
      {"uptime", Variant::Map{{"sec", std::uint64_t{61}}}}};
}

Device device() {
  Device device;
  device.model = "Porch \"2\"";
  device.sysId = 42264;
  device.name = "back\\slash\nbreak";
  device.savePending = true;
  device.lastSave = 1700000000500000;
  device.lastSaveOutcome = "ok";
  return device;
}

std::vector<TransferRecord> transfers() {
  std::vector<TransferRecord> records(4);
  for (TransferRecord& record : records) {
    record.kind = "logo";
    record.phase = "transferring";
  }
  records[0].outcome = records[1].outcome = "OK";
  records[2].outcome = "REFUSED";
  return records;
}

// Runs a checker on the text; returns its output or its complaint.
std::string checkedBy(const std::string& checker, const std::string& text, int& status) {
  const tests::TemporaryFolder folder;
  tests::writeText(folder / "text", text);
  FILE* pipe = popen((checker + " <" + folder / "text" + " 2>&1").c_str(), "r");
  std::string output;
  std::array<char, 4096> buffer{};
  for (std::size_t got = 0; (got = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
    output.append(buffer.data(), got);
  }
  status = pclose(pipe);
  return output;
}

void expectValid(const std::string& text) {
  int status = 0;
  const std::string complaint = checkedBy(KOVACTL_METRICS_CHECK, text, status);
  EXPECT_EQ(status, 0) << complaint << text;
  if (std::system("command -v promtool >/dev/null") == 0) {
    const std::string lint = checkedBy("promtool check metrics", text, status);
    EXPECT_EQ(status, 0) << lint << text;
  }
}

TEST(Metrics, HaveFiguresTransfersAndVersions) {
  const Device told = device();
  const auto listed = transfers();
  const std::string text = metricsText(statistics(), &told, &listed);
  for (const char* line : {
           "kova_memory_total_bytes 2097152\n",
           "kova_cpu_busy_ratio{cpu=\"1\"} 0.5\n",
           "# TYPE kova_load1 gauge\nkova_load1 8.14\n",
           "\nkova_network_transmit_bytes_total{interface=\"eth0\"} 7\n",
           "kova_wifi_signal_dbm -60\n",
           "kova_battery_charge_ratio 0.75\n",
           "kova_uptime_seconds 61\n",
           "kova_save_pending 1\n",
           "kova_reset_pending 0\n",
           "kova_last_save_timestamp_seconds{outcome=\"ok\"} 1700000000.5\n",
           "kova_transfers_active{kind=\"logo\",phase=\"transferring\"} 1\n",
           "kova_transfers_ended{kind=\"logo\",outcome=\"OK\"} 2\n",
           "kova_transfers_ended{kind=\"logo\",outcome=\"REFUSED\"} 1\n",
           "kova_device_info{model=\"Porch "
           "\\\"2\\\"\",sysid=\"42264\",name=\"back\\\\slash\\\\nbreak\"",
       }) {
    EXPECT_THAT(text, HasSubstr(line));
  }
  expectValid(text);
}

TEST(Metrics, UnknownFiguresAreOmitted) {
  EXPECT_EQ(metricsText(Variant(), nullptr, nullptr), "# EOF\n");
  const std::vector<TransferRecord> none;
  const std::string idle = metricsText(Variant(), nullptr, &none);
  EXPECT_THAT(idle, HasSubstr("kova_transfers_active{kind=\"logo\",phase=\"preparing\"} 0\n"));
  EXPECT_THAT(idle, Not(HasSubstr("kova_transfers_ended")));
  expectValid(idle);
  const Variant odd =
      Variant::Map{{"cpu", "text"},
                   {"memory", Variant::Map{{"totalKb", std::numeric_limits<double>::quiet_NaN()}}},
                   {"wifi", Variant::Map{{"signalStrength", 0}}},
                   {"network", Variant::Map{{"name", 5}}}};
  EXPECT_EQ(metricsText(odd, nullptr, nullptr), "# EOF\n");
}

TEST(Metrics, KindsOfTransferAreThoseOfSchema) {
  const std::vector<TransferRecord> none;
  std::string text = metricsText(Variant(), nullptr, &none);
  std::vector<std::string> kinds = testing::kindsOf("GetRequest");
  std::ranges::copy(testing::kindsOf("PutRequest"), std::back_inserter(kinds));
  kinds.emplace_back("firmware");
  for (const std::string& kind : kinds) {
    const std::string series =
        "kova_transfers_active{kind=\"" + kind + "\",phase=\"preparing\"} 0\n";
    const std::size_t at = text.find(series);
    ASSERT_NE(at, std::string::npos) << kind;
    text.erase(at, series.size());
  }
  EXPECT_THAT(text, Not(HasSubstr("phase=\"preparing\""))) << "a kind outside the schema";
}

TEST(Metrics, TextsThatPrintAlikeAreOneSeries) {
  std::vector<TransferRecord> records = transfers();
  records[0].outcome = "A\x01";
  records[1].outcome = printable(records[0].outcome);
  records[3].kind = "x\n";
  records.push_back(records[3]);
  records.back().kind = printable(records[3].kind);
  const std::string text = metricsText(Variant(), nullptr, &records);
  EXPECT_THAT(text, HasSubstr("{kind=\"x\\\\n\",phase=\"transferring\"} 2\n"));
  expectValid(text);
}

TEST(Metrics, CheckerFindsFaults) {
  const std::string help = "# HELP kova_a Help.\n";
  const std::string good = help + "# TYPE kova_a gauge\nkova_a 1\n# EOF\n";
  int status = 0;
  EXPECT_EQ(checkedBy(KOVACTL_METRICS_CHECK, good, status), "1\n");
  EXPECT_EQ(status, 0);
  for (const std::string& bad :
       {help + "# TYPE kova_a gauge\nkova_a 1\n", help + "kova_a 1\n# EOF\n",
        help + "# TYPE kova_a gauge\nkova_a 1\nkova_a 2\n# EOF\n",
        help + "# TYPE kova_a gauge\nkova_a nan\n# EOF\n",
        help + "# TYPE kova_a gauge\nkova_a{x=\"\"\"} 1\n# EOF\n",
        std::string("# TYPE kova_a gauge\nkova_a 1\n# EOF\n"),
        std::string("# HELP kova_a_ms Help.\n# TYPE kova_a_ms gauge\nkova_a_ms 1\n# EOF\n")}) {
    checkedBy(KOVACTL_METRICS_CHECK, bad, status);
    EXPECT_NE(status, 0) << bad;
  }
}

}  // namespace
}  // namespace kova::ctl
