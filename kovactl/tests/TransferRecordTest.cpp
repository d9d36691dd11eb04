#include "TransferRecord.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "Text.h"

namespace kova::ctl {
namespace {

using variant::Variant;

Variant logo() {
  return Variant::Map{{"RequestId", std::uint64_t{9007199254740993}},
                      {"Kind", "logo"},
                      {"Uri", "http://x/\x1b[2J"},
                      {"Phase", "ended"},
                      {"Transferred", std::uint64_t{1024}},
                      {"Started", std::uint64_t{1700000000000000}},
                      {"Outcome", "TRANSFER_FAILED"},
                      {"Reason", "HTTP status\n404"}};
}

Variant with(const std::string& path, const Variant& properties) {
  return Variant::Map{{path, Variant::Map{{"kova.Transfer1", properties}}}};
}

TEST(TransferRecord, NumbersOfMessagesAreText) {
  const Variant result = transferResult(transferRecord("7", logo()));
  EXPECT_EQ(result.find("id")->toText(), "7");
  EXPECT_EQ(result.find("requestId")->toText(), "9007199254740993");
  EXPECT_EQ(result.find("started")->toJson(), "\"2023-11-14T22:13:20.000000Z\"");
  EXPECT_TRUE(result.find("ended")->isEmpty());
}

TEST(TransferRecord, TableIsSafeForTerminals) {
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(transferTable({transferRecord("7", logo())}),
            "No.  Kind  State            Bytes    Started              URI\n"
            "7    logo  TRANSFER_FAILED  1.0 KiB  2023-11-14 22:13:20  http://x/\\x1b[2J\n"
            "     HTTP status\\n404\n");
  EXPECT_EQ(transferTable({}), "No transfers since the control server started.\n");
}

TEST(TransferRecord, KindsAreShownAsTyped) {
  TransferRecord record;
  for (const auto& [kind, typed] : {std::pair{"supportInfo", "support"},
                                    {"eventSnapshot", "event-snapshot"},
                                    {"eventHeatmap", "event-heatmap"},
                                    {"logo", "logo"}}) {
    record.kind = kind;
    EXPECT_NE(transferTable({record}).find(std::string(typed) + "  "), std::string::npos);
    EXPECT_EQ(transferResult(record).find("kind")->toText(), kind);
  }
}

TEST(TransferRecord, ListIsInOrderOfNumbers) {
  Variant objects;
  for (const char* number : {"10", "9", "1"}) {
    objects["/kova/transfers/" + std::string(number)] =
        Variant::Map{{"kova.Transfer1", Variant::Map{}}};
  }
  std::string order;
  for (const TransferRecord& record : transferRecords(objects)) {
    order += record.number + " ";
  }
  EXPECT_EQ(order, "1 9 10 ");
}

TEST(TransferRecord, ForeignObjectsAreIgnored) {
  for (const char* path :
       {"/kova", "/kova/transfers", "/kova/transfers/", "/kova/transfers/x", "/kova/transfers/01",
        "/kova/transfers/7/8", "/kova/transfers/123456789012345678901", "/other/7"}) {
    EXPECT_TRUE(transferRecords(with(path, logo())).empty()) << path;
  }
  EXPECT_EQ(transferRecords(with("/kova/transfers/7", logo())).size(), 1U);
  EXPECT_TRUE(transferRecords(Variant("text")).empty());
  EXPECT_TRUE(transferRecords(Variant::Map{{"/kova/transfers/7", "text"}}).empty());
}

TEST(TransferRecord, ValuesOfOtherTypesReadAsAbsent) {
  const TransferRecord record = transferRecord(
      "7",
      Variant::Map{{"Kind", 5}, {"Size", "large"}, {"Started", UINT64_MAX}, {"Outcome", true}});
  EXPECT_EQ(record.kind, "");
  EXPECT_EQ(record.size, 0U);
  EXPECT_FALSE(record.hasEnded());
  EXPECT_EQ(timeText(record.started), "-");
  EXPECT_TRUE(timeResult(record.started).isEmpty());
}

TEST(TransferRecord, PercentageNeedsPlausibleSize) {
  TransferRecord record;
  record.number = "7";
  record.phase = "transferring";
  record.transferred = 512;
  record.size = 1024;
  EXPECT_NE(transferLine(record).find("transferring 50 %  512 B of 1.0 KiB"), std::string::npos);
  record.transferred = 2048;
  EXPECT_EQ(transferLine(record).find('%'), std::string::npos);
}

TEST(Grid, AlignsAllButLastCell) {
  EXPECT_EQ(grid({{"a", "b", "c"}, {"long", "x", "any text"}, {"", "until here"}, {}}),
            "a     b  c\nlong  x  any text\n      until here\n\n");
}

}  // namespace
}  // namespace kova::ctl
