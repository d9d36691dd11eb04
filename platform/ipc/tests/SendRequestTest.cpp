#include <malloc.h>

#include "BusTest.h"
#include "SyslogRecorder.h"

namespace kova::ipc::testing {
namespace {

class SendRequestTest : public BusTest {
 protected:
  void joinOther(bool receiveBroadcasts = false) {
    ASSERT_TRUE(other_.Init("other", receiveBroadcasts, nullptr));
    serviced_.push_back(&other_);
  }
  void joinBoth(bool receiveBroadcasts = false) {
    join(receiveBroadcasts, &ledger_);
    joinOther(receiveBroadcasts);
    ASSERT_TRUE(until([&] { return ipc_.isPresent("other"); }));
  }

  static BaseRequestMessage asking(const std::string& endpoint, std::uint64_t id = 1) {
    BaseRequestMessage request = to(endpoint, id);
    request.responseExpected(true);
    return request;
  }
  bool send(BaseRequestMessage request) { return ipc_.SendRequest(request); }

  bool untilReceived(std::size_t count) {
    return until([&] { return received_.requests.size() >= count; });
  }

  Ledger ledger_{&ipc_};
  Ipc other_;
  Recorder received_{&other_, ""};
};

TEST_F(SendRequestTest, MessageArrivesNormalisedWithSender) {
  joinBoth();
  BaseRequestMessage request = to("other");
  EXPECT_TRUE(ipc_.SendRequest(request));
  ASSERT_TRUE(untilReceived(1));
  EXPECT_EQ(request.from(), "test");
  EXPECT_EQ(received_.requests[0], request);
  EXPECT_NE(received_.requests[0].find("timeStamp"), nullptr);
  EXPECT_EQ(ledger_.sent, std::vector<std::uint64_t>{1});
}

TEST_F(SendRequestTest, GivenSenderIsKept) {
  joinBoth();
  BaseRequestMessage request = to("other");
  request.from("someone");
  EXPECT_TRUE(ipc_.SendRequest(request));
  ASSERT_TRUE(untilReceived(1));
  EXPECT_EQ(received_.requests[0].from(), "someone");
}

TEST_F(SendRequestTest, InvalidDestinationsAreRefused) {
  join();
  for (const char* name : {"", ".", "a..b", "a b", "1a", ":1.2", "a/b", "\xff"}) {
    EXPECT_FALSE(send(to(name))) << name;
  }
}

TEST_F(SendRequestTest, NothingIsSentBeforeJoining) {
  EXPECT_FALSE(send(to("other")));
  EXPECT_FALSE(ipc_.isPresent("other"));
  EXPECT_FALSE(ipc_.Service(0));
}

TEST_F(SendRequestTest, UnwritableMessageIsRefusedForAnyDestination) {
  join();
  BaseRequestMessage request = to("other");
  request["large"] = std::string(wire::kMaxBodySize, 'x');
  EXPECT_FALSE(ipc_.SendRequest(request));
  joinOther();
  ASSERT_TRUE(until([&] { return ipc_.isPresent("other"); }));
  EXPECT_FALSE(ipc_.SendRequest(request));
}

TEST_F(SendRequestTest, EarlierEndpointsAreKnown) {
  joinOther();
  join();
  EXPECT_TRUE(ipc_.isPresent("other"));
  EXPECT_FALSE(ipc_.isPresent("oth"));
  EXPECT_FALSE(ipc_.isPresent(""));
}

TEST_F(SendRequestTest, AbsentDestinationIsRefusedWithoutQueueing) {
  join(false, &ledger_);
  BaseRequestMessage request = to("other");
  request.queueIfDestUnavailable(false);
  EXPECT_FALSE(ipc_.SendRequest(request));
  joinOther();
  ASSERT_TRUE(send(to("other", 2)));
  ASSERT_TRUE(untilReceived(1));
  EXPECT_EQ(received_.requests[0].id(), 2U);
}

TEST_F(SendRequestTest, Newest256WaitInOrderForAbsentDestination) {
  join(false, &ledger_);
  for (std::uint64_t id = 1; id <= 300; ++id) {
    ASSERT_TRUE(send(to("other", id)));
  }
  EXPECT_TRUE(ledger_.sent.empty());
  joinOther();
  ASSERT_TRUE(untilReceived(256));
  for (std::uint64_t i = 0; i < 256; ++i) {
    ASSERT_EQ(received_.requests[i].id(), 45 + i);
  }
  EXPECT_EQ(ledger_.sent.size(), 256U);
}

TEST_F(SendRequestTest, MessagesWaitForDepartedDestination) {
  join();
  {
    Ipc brief;
    ASSERT_TRUE(brief.Init("brief", false, nullptr));
    ASSERT_TRUE(until([&] { return ipc_.isPresent("brief"); }));
  }
  ASSERT_TRUE(until([&] { return !ipc_.isPresent("brief"); }));
  EXPECT_TRUE(send(to("brief")));
  Ipc again;
  Recorder recorder(&again, "Tell");
  ASSERT_TRUE(again.Init("brief", false, nullptr));
  serviced_.push_back(&again);
  EXPECT_TRUE(until([&] { return !recorder.requests.empty(); }));
}

TEST_F(SendRequestTest, BusIsAskedOnceFor64EndpointsAtMost) {
  join();
  Eavesdropper eavesdropper;
  const auto sendTo = [&](int endpoints) {
    for (int i = 0; i < 2 * endpoints; ++i) {
      EXPECT_TRUE(send(to("absent" + std::to_string(i / 2))));
    }
    const int before = eavesdropper.answers();
    ASSERT_TRUE(ipc_.flush());
    call("Unknown");
    ASSERT_TRUE(until([&] { return eavesdropper.answers() > before; }));
  };
  sendTo(66);
  EXPECT_EQ(eavesdropper.questions(), 64);
  sendTo(1);
  EXPECT_EQ(eavesdropper.questions(), 65);
}

// The bus drops signals and answers to a process whose queue is full.
TEST_F(SendRequestTest, DestinationThatJoinedUnnoticedIsFound) {
  join();
  const Variant large(Variant::Map{{"functionName", std::string(1'000'000, 'x')}});
  for (int i = 0; i < 6; ++i) {
    stranger_.start("test", large);
  }
  ASSERT_GE(sd_bus_flush(stranger_.bus()), 0);
  joinOther();
  BaseRequestMessage request = to("other");
  request.queueIfDestUnavailable(true);
  EXPECT_TRUE(ipc_.SendRequest(request));
  Answer last;
  do {  // the bus answers itself until there is room
    last = call(Variant(Variant::Map{{"functionName", "Unknown"}}));
  } while (last.error == SD_BUS_ERROR_LIMITS_EXCEEDED);
  ASSERT_FALSE(ipc_.isPresent("other"));
  EXPECT_TRUE(untilReceived(1));
  EXPECT_TRUE(ipc_.isPresent("other"));
}

TEST_F(SendRequestTest, AnswerReachesTransactionHandler) {
  Recorder answering(&other_, "Tell", [&](BaseRequestMessage& request, bool&) {
    BaseResponseMessage response;
    response.statusCode(3);
    return other_.SendResponse(request, response);
  });
  joinBoth();
  ASSERT_TRUE(send(asking("other", 5)));
  ASSERT_TRUE(until([&] { return !ledger_.responses.empty(); }));
  EXPECT_EQ(ledger_.responses[0].first, 5U);
  EXPECT_EQ(ledger_.responses[0].second.statusCode(), 3U);
  EXPECT_EQ(ledger_.responses[0].second.requestId(), 5U);
  EXPECT_TRUE(ledger_.errors.empty());
}

TEST_F(SendRequestTest, AcceptedMessageIsAnsweredIfExpected) {
  joinBoth();
  Eavesdropper eavesdropper;
  ASSERT_TRUE(send(to("other", 5)));
  ASSERT_TRUE(send(asking("other", 5)));
  ASSERT_TRUE(until([&] { return !ledger_.responses.empty(); }));
  EXPECT_EQ(ledger_.responses[0].second.Size(), 0U);
  ASSERT_TRUE(until([&] { return eavesdropper.answers() > 0; }));
  EXPECT_EQ(eavesdropper.answers(), 1);
}

TEST_F(SendRequestTest, AnsweredRequestsTakeNoMemory) {
  joinBoth();
  BaseRequestMessage request = asking("other");
  request["large"] = std::string(900'000, 'x');
  std::size_t before = 0;
  std::size_t after = 0;
  for (std::size_t sent = 1; sent <= 20; ++sent) {
    ASSERT_TRUE(ipc_.SendRequest(request));
    ASSERT_TRUE(until([&] { return ledger_.responses.size() == sent; }));
    received_.requests.clear();
    const auto memory = mallinfo2();
    after = memory.uordblks + memory.hblkhd;
    before = before != 0 ? before : after;
  }
  EXPECT_LT(after, before + 5'000'000);
}

TEST_F(SendRequestTest, AnswerOtherThanMapIsError) {
  join(false, &ledger_);
  const auto answer = [](sd_bus_message* call, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(call, "s", "text");
  };
  ASSERT_GE(sd_bus_add_object(stranger_.bus(), nullptr, kObjectPath, answer, nullptr), 0);
  ASSERT_GE(sd_bus_request_name(stranger_.bus(), "kova.other", 0), 0);
  ASSERT_TRUE(until([&] { return ipc_.isPresent("other"); }));
  ASSERT_TRUE(send(asking("other", 8)));
  ASSERT_TRUE(until([&] { return !ledger_.errors.empty(); }));
  EXPECT_EQ(ledger_.errors[0], std::pair(std::uint64_t{8}, std::string(kInvalidMessage)));
  EXPECT_NE(ledger_.lastText, "");
}

TEST_F(SendRequestTest, ErrorReachesTransactionHandler) {
  CatchAllHandlerRejector rejector(&other_);
  other_.AddHandler("Tell", &rejector);
  joinBoth();
  ASSERT_TRUE(send(asking("other", 6)));
  ASSERT_TRUE(until([&] { return !ledger_.errors.empty(); }));
  EXPECT_EQ(ledger_.errors[0], std::pair(std::uint64_t{6}, std::string(kUnknownFunction)));
  EXPECT_EQ(ledger_.lastText, "no such function");
  EXPECT_TRUE(ledger_.responses.empty());
}

TEST_F(SendRequestTest, ErrorIsLoggedWithoutTransactionHandler) {
  joinBoth();
  BaseRequestMessage request = asking("test");
  ASSERT_TRUE(until([&] { return other_.isPresent("test"); }));
  tests::records.clear();
  ASSERT_TRUE(other_.SendRequest(request));
  ASSERT_TRUE(until([&] { return !tests::records.empty(); }));
  EXPECT_TRUE(tests::records[0].text.ends_with(
      "Unable to send \"Tell\" to \"test\": kova.Error.UnknownFunction: no such function"))
      << tests::records[0].text;
}

TEST_F(SendRequestTest, LostBusFailsOpenTransactions) {
  joinBoth();
  ASSERT_TRUE(send(asking("other", 7)));
  privateBus_.kill();
  ASSERT_TRUE(until([&] { return !ipc_.Service(0); }));
  ASSERT_EQ(ledger_.errors.size(), 1U);
  EXPECT_EQ(ledger_.errors[0].first, 7U);
}

TEST_F(SendRequestTest, BroadcastsReachListenersOtherThanSender) {
  Recorder own(&ipc_, "Tell");
  Ipc deaf;
  Recorder unheard(&deaf, "Tell");
  ASSERT_TRUE(deaf.Init("deaf", false, nullptr));
  serviced_.push_back(&deaf);
  joinBoth(true);
  BaseRequestMessage event = to("");
  event.isBroadcast(true);
  ASSERT_TRUE(ipc_.SendRequest(event));
  ASSERT_TRUE(send(to("deaf", 2)));
  ASSERT_TRUE(until([&] { return ipc_.isPresent("test"); }));
  ASSERT_TRUE(send(to("test", 3)));
  ASSERT_TRUE(untilReceived(1));
  ASSERT_TRUE(until([&] { return !unheard.requests.empty() && !own.requests.empty(); }));
  EXPECT_EQ(received_.requests[0], event);
  EXPECT_EQ(unheard.requests[0].id(), 2U);
  EXPECT_EQ(own.requests[0].id(), 3U);
}

TEST_F(SendRequestTest, UnreadableBroadcastsAreIgnored) {
  joinBoth(true);
  sd_bus_emit_signal(stranger_.bus(), kObjectPath, kInterface, kBroadcast, "s", "text");
  sd_bus_emit_signal(stranger_.bus(), kObjectPath, kInterface, kBroadcast, "a{sv}", 0);
  ASSERT_TRUE(untilReceived(1));
  EXPECT_EQ(received_.requests.size(), 1U);
  EXPECT_NE(received_.requests[0].find("id"), nullptr);
}

}  // namespace
}  // namespace kova::ipc::testing
