#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <cmath>

#include "kova/messages/BaseMessage.h"
#include "kova/messages/Requests.h"

namespace kova::ipc::messages {
namespace {

using variant::Variant;
using variant::VariantType;

std::uint64_t monotonicNanoseconds() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000U +
         static_cast<std::uint64_t>(time.tv_nsec);
}

TEST(Envelope, EmptyRequestReceivesEveryDefault) {
  BaseRequestMessage message;
  message.NormalizeFields();
  EXPECT_EQ(message.Size(), 9U);
  EXPECT_EQ(message["id"].type(), VariantType::UInt64);
  EXPECT_EQ(message["timeStamp"].type(), VariantType::Time);
  EXPECT_EQ(message["from"], Variant(""));
  EXPECT_EQ(message["to"], Variant(""));
  EXPECT_EQ(message["functionName"], Variant(""));
  EXPECT_EQ(message["queueIfDestUnavailable"], Variant(true));
  EXPECT_EQ(message["responseExpected"], Variant(false));
  EXPECT_EQ(message["transactionId"], Variant(std::int64_t{-1}));
  EXPECT_EQ(message["isBroadcast"], Variant(false));
}

TEST(Envelope, EmptyResponseReceivesEveryDefault) {
  BaseResponseMessage message;
  message.NormalizeFields();
  EXPECT_EQ(message.Size(), 9U);
  EXPECT_EQ(message["functionName"], Variant("__response__"));
  EXPECT_EQ(message["requestId"], Variant(std::uint64_t{0}));
  EXPECT_EQ(message["statusCode"], Variant(std::uint64_t{0}));
  EXPECT_TRUE(message["payload"].isEmpty());
}

TEST(Envelope, NonContainerAtTopLevelIsDiscarded) {
  for (const Variant& content : {Variant(), Variant(7), Variant("text"), Variant(true)}) {
    BaseRequestMessage message(content);
    message.NormalizeFields();
    EXPECT_TRUE(message.isMap());
    EXPECT_EQ(message.Size(), 9U);
  }
}

TEST(Envelope, ArrayAtTopLevelKeepsItsElements) {
  BaseRequestMessage message(Variant(Variant::Array{"first"}));
  message.NormalizeFields();
  EXPECT_TRUE(message.isMap());
  EXPECT_EQ(message.Size(), 10U);
  EXPECT_EQ(message["0"], Variant("first"));
}

TEST(Envelope, UnknownKeysAreKept) {
  BaseRequestMessage message(Variant(Variant::Map{{"soundOnBoot", true}}));
  message.NormalizeFields();
  EXPECT_EQ(message["soundOnBoot"], Variant(true));
}

TEST(Envelope, KeysAreCaseSensitive) {
  BaseRequestMessage message(Variant(Variant::Map{{"FROM", "peer"}}));
  EXPECT_EQ(message.from(), "");
  EXPECT_EQ(message["FROM"], Variant("peer"));
}

TEST(Envelope, AnyNumberIsStoredInFieldWidth) {
  for (const Variant& number :
       {Variant(std::int8_t{5}), Variant(std::uint8_t{5}), Variant(5), Variant(5U),
        Variant(std::int64_t{5}), Variant(std::uint64_t{5}), Variant(5.7)}) {
    BaseResponseMessage response(
        Variant(Variant::Map{{"id", number}, {"requestId", number}, {"statusCode", number}}));
    response.NormalizeFields();
    EXPECT_EQ(response["id"], Variant(std::uint64_t{5}));
    EXPECT_EQ(response["requestId"], Variant(std::uint64_t{5}));
    EXPECT_EQ(response["statusCode"], Variant(std::uint64_t{5}));
    BaseRequestMessage request(Variant(Variant::Map{{"transactionId", number}}));
    EXPECT_EQ(request.transactionId(), 5);
    EXPECT_EQ(request["transactionId"], Variant(std::int64_t{5}));
  }
}

TEST(Envelope, NumericTimeStampBecomesNow) {
  BaseRequestMessage message(Variant(Variant::Map{{"timeStamp", 12345}}));
  const time_t before = time(nullptr);
  EXPECT_GE(message.timeStamp().tv_sec, before);
  EXPECT_LE(message.timeStamp().tv_sec, time(nullptr) + 1) << "time(2) lags by up to a tick";
}

TEST(Envelope, ValidTimeStampIsKept) {
  BaseRequestMessage message(Variant(Variant::Map{{"timeStamp", timeval{77, 88}}}));
  message.NormalizeFields();
  EXPECT_EQ(message.timeStamp().tv_sec, 77);
  EXPECT_EQ(message.timeStamp().tv_usec, 88);
}

TEST(Envelope, FreshIdHoldsClockBelowProcessId) {
  const std::uint64_t before = monotonicNanoseconds();
  BaseRequestMessage message;
  const std::uint64_t id = message.id();
  const std::uint64_t after = monotonicNanoseconds();
  EXPECT_EQ(id >> 48U, static_cast<std::uint64_t>(getpid()) & 0xFFFFU);
  EXPECT_GE(id & 0xFFFFFFFFFFFFU, before & 0xFFFFFFFFFFFFU);
  EXPECT_LE(id & 0xFFFFFFFFFFFFU, after & 0xFFFFFFFFFFFFU);
  EXPECT_EQ(message.id(), id) << "an existing id is kept";
}

TEST(Envelope, NonNumericIdIsReplacedByFreshOne) {
  BaseResponseMessage message(Variant(Variant::Map{{"id", "12"}}));
  message.NormalizeFields();
  EXPECT_EQ(message.id() >> 48U, static_cast<std::uint64_t>(getpid()) & 0xFFFFU);
  EXPECT_EQ(message["id"].type(), VariantType::UInt64);
}

TEST(Envelope, IdsOfOneProcessDiffer) {
  const std::uint64_t first = freshMessageId();
  const std::uint64_t then = monotonicNanoseconds();
  while (monotonicNanoseconds() == then) {
  }
  EXPECT_NE(freshMessageId(), first);
}

TEST(Envelope, AccessorTurnsNonContainerIntoMap) {
  for (const Variant& content : {Variant(7), Variant("text"), Variant()}) {
    GetRequest message(content);
    EXPECT_EQ(message.timeoutMs(), 0U);
    EXPECT_EQ(static_cast<const Variant&>(message), Variant(Variant::Map{{"timeoutMs", 0U}}));
    EXPECT_TRUE(BaseResponseMessage(content).payload().isEmpty());
  }
}

TEST(Envelope, NormalizingTwiceChangesNothing) {
  GetRequest message(Variant(Variant::Map{{"what", "SNAPSHOT"}, {"timeoutMs", std::nan("")}}));
  message.NormalizeFields();
  const Variant once = message;
  message.NormalizeFields();
  EXPECT_EQ(static_cast<const Variant&>(message), once);
}

TEST(Envelope, PayloadOfAnyTypePassesUnchanged) {
  for (const Variant& payload : {Variant("text"), Variant(1.5), Variant(Variant::Map{{"a", 1}}),
                                 Variant(Variant::Array{1, 2}), Variant(true)}) {
    BaseResponseMessage response(Variant(Variant::Map{{"payload", payload}}));
    response.NormalizeFields();
    EXPECT_EQ(response["payload"], payload);
    EXPECT_EQ(response.payload(), payload);
  }
}

TEST(Envelope, SettersStoreUnderTheirKeyAndMakeMap) {
  BaseRequestMessage message(Variant("no map"));
  message.to("kova_sounds_leds");
  message.from("kova_ctlserver");
  message.isBroadcast(true);
  message.transactionId(12);
  EXPECT_EQ(static_cast<const Variant&>(message),
            Variant(Variant::Map{{"to", "kova_sounds_leds"},
                                 {"from", "kova_ctlserver"},
                                 {"isBroadcast", true},
                                 {"transactionId", std::int64_t{12}}}));
}

}  // namespace
}  // namespace kova::ipc::messages
