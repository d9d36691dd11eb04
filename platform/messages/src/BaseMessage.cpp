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

const Variant* BaseMessage::valid(std::string_view key, VariantClass mask) const {
  const Variant* value = find(key);
  return value != nullptr && value->is(mask) ? value : nullptr;
}

void BaseMessage::store(std::string_view key, Variant value) {
  (*this)[key] = std::move(value);  // kept: 27
}

bool BaseMessage::read(const Flag& field) {
  const Variant* value = valid(field.key, VariantClass::Boolean);
  const bool flag = value != nullptr ? value->toBool() : field.fallback;
  store(field.key, flag);
  return flag;
}

std::uint64_t BaseMessage::read(const MessageId& field) {
  const Variant* value = valid(field.key, VariantClass::Number);
  const std::uint64_t id = value != nullptr ? value->toNumber<std::uint64_t>() : freshMessageId();
  store(field.key, id);
  return id;
}

std::string BaseMessage::read(const Text& field) {
  if (const Variant* value = valid(field.key, VariantClass::String)) {
    return value->toText();
  }
  store(field.key, field.fallback);
  return std::string(field.fallback);
}

std::string BaseMessage::read(const Forced& field) {  // kept: 26
  store(field.key, field.value);
  return std::string(field.value);
}

timeval BaseMessage::read(const Timestamp& field) {
  if (const Variant* value = valid(field.key, VariantClass::Time)) {
    return value->toTime();
  }
  const timeval time = utils::now();
  store(field.key, time);
  return time;
}

Variant BaseMessage::read(const Container& field) {
  if (const Variant* value = valid(field.key, VariantClass::Container)) {
    return *value;
  }
  store(field.key, Variant());
  return {};
}

Variant BaseMessage::read(const Anything& field) {
  return (*this)[field.key];
}

std::string BaseMessage::readChoice(std::string_view key, std::string_view fallback,
                                    Allowed allowed) {
  const Variant* value = valid(key, VariantClass::String);
  std::string text(value != nullptr ? canonical(value->toText(), allowed)
                                    : canonical(std::string(fallback), allowed));
  store(key, text);
  return text;
}

std::string_view BaseMessage::canonical(const std::string& value, Allowed allowed) {
  for (const std::string_view entry : allowed) {
    if (entry.size() == value.size() &&
        strncasecmp(entry.data(), value.data(), entry.size()) == 0) {
      return entry;
    }
  }
  return allowed.front();  // kept: 21
}

void BaseMessage::NormalizeFields() {
  normalizeSchema(kSchema);
  BaseVariantContainer::NormalizeFields();
}

void BaseRequestMessage::NormalizeFields() {
  normalizeSchema(kSchema);
  BaseMessage::NormalizeFields();
}

void BaseResponseMessage::NormalizeFields() {
  normalizeSchema(kSchema);
  BaseMessage::NormalizeFields();
}

}  // namespace kova::ipc::messages
