#include <cstdint>
#include <string>
#include <string_view>

#include "../../platform/ipc/src/Wire.h"
#include "../../platform/ipc/tests/OfflineBus.h"
#include "Require.h"

// The input is a message from the bus: the length of the signature in one byte, the signature, the
// body. It is read as an answer of a foreign interface; if it decodes as a message, encoding and
// decoding it again must give the same message.

namespace {

using kova::ipc::MessagePtr;
using kova::ipc::testing::OfflineBus;
using kova::variant::Variant;
namespace wire = kova::ipc::wire;

unsigned depthOf(const Variant& value) {
  unsigned deepest = 0;
  for (const auto& [key, element] : value.elements()) {
    deepest = std::max(deepest, depthOf(element));
  }
  for (const auto& item : value.items()) {
    deepest = std::max(deepest, depthOf(item));
  }
  return value.isContainer() ? deepest + 1 : 0;
}

// Empty if the value cannot be sent: wrapping everything in variants may push its size and nesting
// beyond the limits.
std::string marshal(OfflineBus& bus, const Variant& value) {
  std::string reason;
  std::size_t size = 0;
  const MessagePtr message = bus.newMessage();
  const bool sendable = wire::measure(value, size, reason);
  require(wire::encode(value, message.get(), reason) == sendable);
  require(sendable || !reason.empty());
  const std::string body = sendable ? bus.marshal(message.get()) : "";
  require(!sendable || body.size() == size);
  return body;
}

void checkRoundtrip(OfflineBus& bus, const Variant& value) {
  const std::string body = marshal(bus, value);
  if (body.empty()) {
    return;
  }
  const MessagePtr message = bus.receive("a{sv}", body);
  std::string reason;
  Variant again;
  require(message != nullptr && wire::decode(message.get(), again, reason));
  // Compare bytes, because NaN does not equal itself.
  require(marshal(bus, again) == body);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static OfflineBus bus;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (input.empty() || input.size() - 1 < data[0]) {
    return 0;
  }
  const std::string_view signature = input.substr(1, data[0]);
  const MessagePtr message = bus.receive(signature, input.substr(1 + signature.size()));
  if (message == nullptr) {
    return 0;
  }
  Variant value;
  std::string reason;
  const bool isAnswer = wire::decodeAnswer(message.get(), value, reason);
  require(isAnswer ? depthOf(value) <= wire::kMaxDepth : !reason.empty());
  Variant arguments;
  require(sd_bus_message_rewind(message.get(), 1) >= 0);
  wire::decodeArguments(message.get(), arguments);
  require(isAnswer == (arguments.IsArray() && arguments.items().size() <= 1));
  reason.clear();
  require(sd_bus_message_rewind(message.get(), 1) >= 0);
  if (!wire::decode(message.get(), value, reason)) {
    require(!reason.empty());
    return 0;
  }
  require(value.isMap() && depthOf(value) <= wire::kMaxDepth);
  checkRoundtrip(bus, value);
  return 0;
}
