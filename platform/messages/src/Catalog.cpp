#include "kova/messages/Catalog.h"

#include <type_traits>

#include "kova/messages/Events.h"
#include "kova/messages/Requests.h"

namespace kova::ipc::messages {
namespace {

template <typename T>
std::string numberType() {
  return (std::is_signed_v<T> ? "int" : "uint") + std::to_string(8 * sizeof(T));
}

std::string quoted(std::string_view text) {
  return '"' + std::string(text) + '"';
}

FieldDescription describe(const Flag& field) {
  return {std::string(field.key), "bool", field.fallback ? "true" : "false", {}, ""};
}

template <typename T>
FieldDescription describe(const Number<T>& field) {
  using Limits = std::numeric_limits<T>;
  const bool held = field.min != Limits::min() || field.max != Limits::max();
  return {std::string(field.key),
          numberType<T>(),
          std::to_string(field.fallback),
          {},
          held ? std::to_string(field.min) + ".." + std::to_string(field.max) : ""};
}

FieldDescription describe(const MessageId& field) {
  return {std::string(field.key), "uint64", "a fresh id", {}, ""};
}

FieldDescription describe(const Text& field) {
  return {std::string(field.key), "string", quoted(field.fallback), {}, ""};
}

template <std::size_t kCount>
FieldDescription describe(const Choice<kCount>& field) {
  return {std::string(field.key), "string", quoted(field.fallback),
          std::vector<std::string>(field.allowed.begin(), field.allowed.end()), ""};
}

FieldDescription describe(const Forced& field) {
  return {std::string(field.key), "string", quoted(field.value), {std::string(field.value)}, ""};
}

FieldDescription describe(const Timestamp& field) {
  return {std::string(field.key), "time", "now", {}, ""};
}

FieldDescription describe(const Container& field) {
  return {std::string(field.key), "container", "empty", {}, ""};
}

FieldDescription describe(const Anything& field) {
  return {std::string(field.key), "any", "empty", {}, ""};
}

template <typename Schema>
std::vector<FieldDescription> describeSchema(const Schema& schema) {
  return std::apply(
      [](const auto&... field) { return std::vector<FieldDescription>{describe(field)...}; },
      schema);
}

template <typename Message>
MessageDescription describeMessage(bool event) {
  return {std::string(Message::kName), event, describeSchema(Message::kSchema),
          [](const variant::Variant& content) -> std::unique_ptr<BaseMessage> {
            return std::make_unique<Message>(content);
          }};
}

template <typename... Message>
std::vector<MessageDescription> describeAll(bool event) {
  return {describeMessage<Message>(event)...};
}

std::vector<MessageDescription> build() {
  auto all =
      describeAll<GetSystemStats, Reboot, ChangeDeviceSettings, UpdateFirmwareRequest, GetRequest,
                  PutRequest, SaveToFlash, ChangeUsernamePassword, EnableUsernamePassword,
                  DisableUsernamePassword, StartService, StopService>(false);
  for (auto& event : describeAll<EventTransferRequestStatus, EventUpdateFirmwareFailure, PlayState,
                                 BaseResponseMessage>(true)) {
    all.push_back(std::move(event));
  }
  return all;
}

}  // namespace

const std::vector<MessageDescription>& catalog() {
  static const std::vector<MessageDescription> all = build();
  return all;
}

std::vector<FieldDescription> requestEnvelope() {
  return describeSchema(BaseRequestMessage::kSchema);
}

std::vector<FieldDescription> messageEnvelope() {
  return describeSchema(BaseMessage::kSchema);
}

}  // namespace kova::ipc::messages
