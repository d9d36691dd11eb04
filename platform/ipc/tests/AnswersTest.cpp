#include <stdexcept>

#include "BusTest.h"
#include "Nesting.h"
#include "SyslogRecorder.h"

namespace kova::ipc::testing {
namespace {

class AnswersTest : public BusTest {
 protected:
  void SetUp() override { join(); }

  Recorder::Action respond(const Variant& payload) {
    return [this, payload](BaseRequestMessage& request, bool&) {
      BaseResponseMessage response;
      response.statusCode(7);
      response.payload(payload);
      return ipc_.SendResponse(request, response);
    };
  }
};

TEST_F(AnswersTest, ResponseCarriesRequestIdAndBothNames) {
  Recorder handler(&ipc_, "Ask", respond("text"));
  BaseRequestMessage request;
  request.functionName("Ask");
  request.id(42);
  request.from("client.me");
  Answer answer = call(request);
  EXPECT_EQ(answer.error, "");
  EXPECT_EQ(answer.body["functionName"], Variant("__response__"));
  EXPECT_EQ(answer.body["requestId"], Variant(std::uint64_t{42}));
  EXPECT_EQ(answer.body["statusCode"], Variant(std::uint64_t{7}));
  EXPECT_EQ(answer.body["payload"], Variant("text"));
  EXPECT_EQ(answer.body["to"], Variant("client.me"));
  EXPECT_EQ(answer.body["from"], Variant("test"));
}

TEST_F(AnswersTest, MissingIdIsSameForHandlerAndResponse) {
  Recorder handler(&ipc_, "Ask", respond({}));
  Answer answer = call("Ask");
  EXPECT_EQ(answer.body["requestId"], Variant(handler.requests.at(0).id()));
}

TEST_F(AnswersTest, RequestWithoutResponseGetsEmptyMap) {
  Recorder handler(&ipc_, "Tell");
  tests::records.clear();
  const Answer answer = call("Tell");
  EXPECT_EQ(answer.error, "");
  EXPECT_EQ(answer.body, Variant(Variant::Map{}));
  EXPECT_TRUE(tests::records.empty());
}

TEST_F(AnswersTest, FailingHandlerGivesErrorUnlessAnswered) {
  Recorder handler(&ipc_, "", [&](BaseRequestMessage& request, bool& rejected) {
    if (request.functionName() == "Ask") {
      respond("text")(request, rejected);
    }
    return false;
  });
  EXPECT_EQ(call("Tell").error, "org.freedesktop.DBus.Error.Failed");
  EXPECT_EQ(call("Ask").error, "");
}

TEST_F(AnswersTest, RequestReachesHandlerUnchanged) {
  Recorder handler(&ipc_, "Tell");
  Variant body;
  body["functionName"] = "Tell";
  body["responseExpected"] = "mistyped";
  body["unknown"] = 1;
  body["id"] = std::uint64_t{9};
  call(body);
  EXPECT_EQ(handler.requests.at(0), body);
}

TEST_F(AnswersTest, EmptyNameHandlesFunctionsWithoutExactMatch) {
  Recorder handler(&ipc_, "Tell");
  Recorder rest(&ipc_, "");
  call("tell");
  call("Tell ");
  call(Variant(Variant::Map{}));
  call(Variant(Variant::Map{{"functionName", 5}}));
  EXPECT_EQ(rest.requests.size(), 4U);
  EXPECT_TRUE(handler.requests.empty());
}

TEST_F(AnswersTest, RejectedAndUnclaimedFunctionsAreUnknown) {
  EXPECT_EQ(call("Any").error, "kova.Error.UnknownFunction");
  CatchAllHandlerRejector rejector(&ipc_);
  ipc_.AddHandler("", &rejector);
  tests::records.clear();
  EXPECT_EQ(call("Any").error, "kova.Error.UnknownFunction");
  EXPECT_EQ(tests::records.size(), 1U);
}

TEST_F(AnswersTest, LogHandlerHandlesEverything) {
  LogHandler log(&ipc_);
  ipc_.AddHandler("", &log);
  EXPECT_EQ(call("Any").error, "");
  BaseRequestMessage request;
  BaseResponseMessage response;
  bool reserved = false;
  EXPECT_TRUE(log.HandleResponse(request, response, reserved));
  EXPECT_TRUE(log.BaseHandler::HandleResponse(request, response, reserved));
}

TEST_F(AnswersTest, TransactionsHandlerRejectsSilently) {
  Ledger ledger(&ipc_);
  ipc_.AddHandler("", &ledger);
  tests::records.clear();
  EXPECT_EQ(call("Any").error, "kova.Error.UnknownFunction");
  EXPECT_TRUE(tests::records.empty());
}

TEST_F(AnswersTest, OtherMethodsAndObjectsAreUnknown) {
  const auto error = [&](const char* path, const char* interface, const char* member) {
    return call(stranger_.newCall("test", path, interface, member).get()).error;
  };
  EXPECT_EQ(error("/kova", "kova.Ipc1", "Other"), "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(error("/kova", "kova.Ipc2", "Send"), "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(error("/other", "kova.Ipc1", "Send"), "org.freedesktop.DBus.Error.UnknownObject");
  EXPECT_EQ(error("/kova", nullptr, "Send"), "kova.Error.InvalidMessage");
}

TEST_F(AnswersTest, NonMapBodiesAreInvalid) {
  Recorder handler(&ipc_, "");
  const MessagePtr text = stranger_.newCall("test");
  sd_bus_message_append(text.get(), "s", "text");
  EXPECT_EQ(call(text.get()).error, "kova.Error.InvalidMessage");
  EXPECT_EQ(call(stranger_.newCall("test").get()).error, "kova.Error.InvalidMessage");
  EXPECT_TRUE(handler.requests.empty());
}

TEST_F(AnswersTest, BodyOverOneMebibyteIsInvalid) {
  Recorder handler(&ipc_, "");
  const std::string text(wire::kMaxBodySize - 64, 'x');
  EXPECT_EQ(call(Variant(Variant::Map{{"text", text}})).error, "");
  const MessagePtr large = stranger_.newCall("test");
  sd_bus_message_append(large.get(), "a{ss}", 1, "text", (text + std::string(64, 'x')).c_str());
  EXPECT_EQ(call(large.get()).error, "kova.Error.InvalidMessage");
  EXPECT_EQ(handler.requests.size(), 1U);
}

TEST_F(AnswersTest, DeepestWritableMessagePassesBus) {
  Recorder handler(&ipc_, "");
  EXPECT_EQ(call(inMaps(21, "leaf")).error, "");
  EXPECT_EQ(call(inMaps(1, inArrays(30, timeval{1, 2}))).error, "");
  EXPECT_EQ(call(inMaps(2, inArrays(29, "leaf"))).error, "");
  EXPECT_EQ(handler.requests.size(), 3U);
}

TEST_F(AnswersTest, ThrowingHandlerGivesErrorAndServiceGoesOn) {
  Recorder handler(&ipc_, "", [](BaseRequestMessage& request, bool&) -> bool {
    if (request.functionName() == "Throw") {
      throw std::bad_alloc();
    }
    return true;
  });
  EXPECT_EQ(call("Throw").error, "org.freedesktop.DBus.Error.Failed");
  EXPECT_EQ(call("Other").error, "");
}

TEST(GuardedTest, ExceptionIsLoggedAndMeansFailure) {
  const auto fail = []() -> bool { throw std::runtime_error("broken"); };
  tests::records.clear();
  EXPECT_FALSE(guarded("Operation", fail));
  ASSERT_EQ(tests::records.size(), 1U);
  EXPECT_TRUE(tests::records[0].text.starts_with("kova_ipc SdBus.Operation:"));
  EXPECT_TRUE(tests::records[0].text.ends_with(": Stopped an exception: broken"));
  EXPECT_TRUE(guarded("Operation", [] { return true; }));
  EXPECT_EQ(guarded("Operation", 7, [&] { return fail() ? 1 : 0; }), 7);
}

TEST_F(AnswersTest, HandlerThatThrowsAfterResponseHasAnswered) {
  Recorder handler(&ipc_, "", [&](BaseRequestMessage& request, bool& rejected) -> bool {
    respond("text")(request, rejected);
    throw std::runtime_error("too late");
  });
  Eavesdropper eavesdropper;
  Answer answer = call("Ask");
  EXPECT_EQ(answer.error, "");
  EXPECT_EQ(answer.body["payload"], Variant("text"));
  call("Ask");
  ASSERT_TRUE(until([&] { return eavesdropper.answers() > 1; }));
  EXPECT_EQ(eavesdropper.answers(), 2);
}

TEST_F(AnswersTest, ResponseIsSentOnceAndOnlyInHandler) {
  std::vector<bool> results;
  BaseResponseMessage response;
  Recorder handler(&ipc_, "", [&](BaseRequestMessage& request, bool&) {
    BaseRequestMessage other;
    other.id(request.id() + 1);
    results.push_back(ipc_.SendResponse(other, response));
    BaseRequestMessage typedCopy(request);
    results.push_back(ipc_.SendResponse(typedCopy, response));
    results.push_back(ipc_.SendResponse(request, response));
    return true;
  });
  EXPECT_EQ(call("Ask").error, "");
  EXPECT_EQ(results, (std::vector<bool>{false, true, false}));
  EXPECT_FALSE(ipc_.SendResponse(handler.requests.at(0), response));
}

TEST_F(AnswersTest, UnsendableResponseBecomesError) {
  bool sent = true;
  Recorder handler(&ipc_, "", [&](BaseRequestMessage& request, bool&) {
    BaseResponseMessage response;
    response.payload(Variant(std::string(wire::kMaxBodySize, 'x')));
    sent = ipc_.SendResponse(request, response);
    return true;
  });
  EXPECT_EQ(call("Ask").error, "org.freedesktop.DBus.Error.Failed");
  EXPECT_FALSE(sent);
}

TEST_F(AnswersTest, NoReplyCallIsHandledWithoutAnswer) {
  bool sent = false;
  Recorder handler(&ipc_, "Ask", [&](BaseRequestMessage& request, bool& rejected) {
    return sent = respond("text")(request, rejected);
  });
  Eavesdropper eavesdropper;
  for (const char* function : {"Ask", "Unknown"}) {
    const MessagePtr call = stranger_.newCall("test");
    std::string reason;
    wire::encode(Variant(Variant::Map{{"functionName", function}}), call.get(), reason);
    sd_bus_message_set_expect_reply(call.get(), 0);
    sd_bus_send(stranger_.bus(), call.get(), nullptr);
  }
  call("Ask");
  EXPECT_EQ(handler.requests.size(), 2U);
  EXPECT_TRUE(sent);
  ASSERT_TRUE(until([&] { return eavesdropper.answers() > 0; }));
  EXPECT_EQ(eavesdropper.answers(), 1);
}

TEST_F(AnswersTest, SecondHandlerOfSameNameIsRefused) {
  Recorder handler(&ipc_, "Tell");
  Recorder second(&ipc_, "Else");
  tests::records.clear();
  EXPECT_FALSE(ipc_.AddHandler("Tell", &second));
  EXPECT_FALSE(ipc_.AddHandler("Other", nullptr));
  EXPECT_EQ(tests::records.size(), 2U);
  call("Tell");
  EXPECT_EQ(handler.requests.size(), 1U);
  EXPECT_TRUE(second.requests.empty());
}

TEST_F(AnswersTest, NestedServiceDoesNothing) {
  bool result = false;
  Recorder handler(&ipc_, "", [&](BaseRequestMessage&, bool&) { return result = ipc_.Service(0); });
  EXPECT_EQ(call("Tell").error, "");
  EXPECT_TRUE(result);
}

}  // namespace
}  // namespace kova::ipc::testing
