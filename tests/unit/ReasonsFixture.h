#pragma once

#include "InstallFixture.h"
#include "RoutingFixture.h"
#include "UnitTest.h"

namespace kova::ctlserver {

inline constexpr char kAnyDigest[] = "0123456789abcdef0123456789abcdef";

class TransferReasonsTest : public TransferRoutingTest {
 protected:
  TransferRecords& records() { return server_->transferRecords(); }
  const TransferRecord& record(std::uint64_t number) {
    const TransferRecord* found = records().find(number);
    EXPECT_NE(found, nullptr) << number;
    static const TransferRecord kNone;
    return found != nullptr ? *found : kNone;
  }
  const TransferRecord& last() { return record(records().numbers().back()); }
  bool serviceUntilEnd(std::uint64_t number = 1) {
    return serviceUntil([&] { return record(number).phase == TransferPhase::Ended; });
  }
  /// "OUTCOME: REASON" of a record.
  std::string told(std::uint64_t number) {
    return record(number).outcome + ": " + record(number).reason;
  }
  /// Sends a request and returns told() once its record has ended.
  std::string outcome(const std::string& kind, const std::string& to, Fields more = {}) {
    ask(kind, to, std::move(more));
    const std::uint64_t number = records().numbers().back();
    EXPECT_TRUE(serviceUntilEnd(number));
    return told(number);
  }
  void programsAnswer(const std::string& program, const fakes::ProcessResult& result) {
    platform().onRun = [program, result](const std::string& command) {
      return command.starts_with(program) ? result : fakes::ProcessResult{};
    };
  }
};

}  // namespace kova::ctlserver
