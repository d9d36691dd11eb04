#include "kova/messages/BaseMessage.h"

#include <strings.h>
#include <unistd.h>

#include <ctime>

#include "kova/utils/Clock.h"

namespace kova::ipc::messages {

using variant::Variant;
using variant::VariantClass;

std::uint64_t freshMessageId() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  const std::uint64_t nanoseconds = static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000U +
                                    static_cast<std::uint64_t>(time.tv_nsec);
  const std::uint64_t process = static_cast<std::uint64_t>(getpid()) & 0xFFFFU;
  return (nanoseconds & 0xFFFFFFFFFFFFU) | (process << 48U);
}

const Variant* BaseMessage::Valid(std::string_view key, VariantClass mask) {
  EnsureMap();
  const Variant* value = Find(key);
  return value != nullptr && value->Is(mask) ? value : nullptr;
}

void BaseMessage::Store(std::string_view key, Variant value) {
  EnsureMap();
  (*this)[key] = std::move(value);
}

bool BaseMessage::Read(const Flag& field) {
  const Variant* value = Valid(field.key, VariantClass::Boolean);
  const bool flag = value != nullptr ? value->ToBool() : field.fallback;
  Store(field.key, flag);
  return flag;
}

std::uint64_t BaseMessage::Read(const MessageId& field) {
  const Variant* value = Valid(field.key, VariantClass::Number);
  const std::uint64_t id = value != nullptr ? value->ToNumber<std::uint64_t>() : freshMessageId();
  Store(field.key, id);
  return id;
}

std::string BaseMessage::Read(const Text& field) {
  if (const Variant* value = Valid(field.key, VariantClass::String)) {
    return value->ToText();
  }
  Store(field.key, field.fallback);
  return std::string(field.fallback);
}

std::string BaseMessage::Read(const Forced& field) {  // kept: 26
  return ReadChoice(field.key, field.value, {&field.value, 1});
}

timeval BaseMessage::Read(const Timestamp& field) {
  if (const Variant* value = Valid(field.key, VariantClass::Time)) {
    return value->ToTime();
  }
  const timeval time = utils::now();
  Store(field.key, time);
  return time;
}

Variant BaseMessage::Read(const Container& field) {
  if (const Variant* value = Valid(field.key, VariantClass::Container)) {
    return *value;
  }
  Store(field.key, Variant());
  return {};
}

Variant BaseMessage::Read(const Anything& field) {
  EnsureMap();
  return (*this)[field.key];
}

std::string BaseMessage::ReadChoice(std::string_view key, std::string_view fallback,
                                    Allowed allowed) {
  const Variant* value = Valid(key, VariantClass::String);
  std::string text(value != nullptr ? Canonical(value->ToText(), allowed)
                                    : Canonical(std::string(fallback), allowed));
  Store(key, text);
  return text;
}

std::string_view BaseMessage::Canonical(const std::string& value, Allowed allowed) {
  for (std::size_t i = 0; i < allowed.count; ++i) {
    const std::string_view entry = allowed.first[i];
    if (entry.size() == value.size() &&
        strncasecmp(entry.data(), value.data(), entry.size()) == 0) {
      return entry;
    }
  }
  return allowed.first[0];  // kept: 21
}

void BaseMessage::NormalizeFields() {
  NormalizeSchema(kSchema);
  BaseVariantContainer::NormalizeFields();
}

void BaseRequestMessage::NormalizeFields() {
  NormalizeSchema(kSchema);
  BaseMessage::NormalizeFields();
}

void BaseResponseMessage::NormalizeFields() {
  NormalizeSchema(kSchema);
  BaseMessage::NormalizeFields();
}

}  // namespace kova::ipc::messages
