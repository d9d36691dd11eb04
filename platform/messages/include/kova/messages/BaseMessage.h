#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <tuple>

#include "kova/messages/Fields.h"
#include "kova/variant/BaseVariantContainer.h"
#include "kova/variant/Variant.h"

namespace kova::ipc::messages {

/// The id of a new message: the low 16 bits of the process id above the low 48 bits of the
/// monotonic clock in nanoseconds, so that ids differ within a process and between processes.
std::uint64_t freshMessageId();

/// The envelope of every message.
///
/// Each field has an accessor and a setter of the same name. The accessor repairs the field in
/// place before it returns it, so it is safe on messages that were never normalised.
class BaseMessage : public variant::BaseVariantContainer {
 public:
  KOVA_FIELD(MessageId, id)
  KOVA_FIELD(Timestamp, timeStamp)
  KOVA_FIELD(Text, from, "")
  KOVA_FIELD(Text, to, "")
  KOVA_FIELD(Text, functionName, "")
  KOVA_FIELD(Flag, queueIfDestUnavailable, true)
  static constexpr auto kSchema = std::tuple(idField, timeStampField, fromField, toField,
                                             functionNameField, queueIfDestUnavailableField);

  using BaseVariantContainer::BaseVariantContainer;
  void NormalizeFields() override;

 protected:
  // Reading repairs the stored value: a missing or mistyped value becomes the default, a number is
  // converted to the field's width and range, a Choice to its table's spelling.
  bool read(const Flag& field);
  template <typename T>
  T read(const Number<T>& field) {
    const variant::Variant* value = valid(field.key, variant::VariantClass::Number);
    const T number = value != nullptr ? held(*value, field) : field.fallback;
    store(field.key, number);
    return number;
  }
  std::uint64_t read(const MessageId& field);
  std::string read(const Text& field);
  template <std::size_t kCount>
  std::string read(const Choice<kCount>& field) {
    return readChoice(field.key, field.fallback, field.allowed);
  }
  std::string read(const Forced& field);
  timeval read(const Timestamp& field);
  variant::Variant read(const Container& field);
  variant::Variant read(const Anything& field);

  // Writing stores the value unchanged, except a Choice, which is stored in its table's spelling.
  template <typename Field>
  void write(const Field& field, const typename Field::Value& value) {
    store(field.key, value);
  }
  template <std::size_t kCount>
  void write(const Choice<kCount>& field, const std::string& value) {
    store(field.key, canonical(value, field.allowed));
  }
  void write(const Forced& field, const std::string&) { store(field.key, field.value); }

  /// Repairs every field of a schema, in order.
  template <typename... Field>
  void normalizeSchema(const std::tuple<Field...>& schema) {
    std::apply([this](const auto&... field) { (static_cast<void>(this->read(field)), ...); },
               schema);
  }

 private:
  // With a range, values beyond the field's width are clamped; without, they are reduced modulo the
  // width.
  template <typename T>
  static T held(const variant::Variant& value, const Number<T>& field) {
    const bool ranged = field.min != Number<T>::kLeast || field.max != Number<T>::kGreatest;
    const double wide = value.toNumber<double>();
    if (ranged && (wide < field.min || wide > field.max)) {
      return wide < field.min ? field.min : field.max;
    }
    return value.toNumber<T>();
  }

  using Allowed = std::span<const std::string_view>;

  /// The value under `key` if its type belongs to `mask`, else null.
  const variant::Variant* valid(std::string_view key, variant::VariantClass mask) const;
  void store(std::string_view key, variant::Variant value);
  std::string readChoice(std::string_view key, std::string_view fallback, Allowed allowed);
  static std::string_view canonical(const std::string& value, Allowed allowed);
};

/// The envelope of requests and events.
class BaseRequestMessage : public BaseMessage {
 public:
  KOVA_FIELD(Flag, responseExpected, false)
  KOVA_FIELD(Number<std::int64_t>, transactionId, -1)
  KOVA_FIELD(Flag, isBroadcast, false)
  static constexpr auto kSchema =
      std::tuple(responseExpectedField, transactionIdField, isBroadcastField);

  using BaseMessage::BaseMessage;
  void NormalizeFields() override;
};

/// The reply to a request.
class BaseResponseMessage : public BaseMessage {
 public:
  static constexpr std::string_view kName = "__response__";
  KOVA_FIELD(Forced, functionName, kName)
  KOVA_FIELD(Number<std::uint64_t>, requestId, 0)
  KOVA_FIELD(Number<std::uint64_t>, statusCode, 0)
  KOVA_FIELD(Anything, payload)
  static constexpr auto kSchema =
      std::tuple(functionNameField, requestIdField, statusCodeField, payloadField);

  using BaseMessage::BaseMessage;
  void NormalizeFields() override;
};

/// Base of the concrete requests and events. `Self` declares its name as `kName` and the
/// descriptors of its own fields, in the order of normalisation, as the tuple `kSchema`.
template <typename Self>
class Request : public BaseRequestMessage {
 public:
  using BaseRequestMessage::BaseRequestMessage;

  /// Always the class's own name.
  std::string functionName() { return read(functionNameOf()); }
  void functionName(const std::string& value) { write(functionNameOf(), value); }

  void NormalizeFields() override {
    read(functionNameOf());
    normalizeSchema(Self::kSchema);
    BaseRequestMessage::NormalizeFields();  // kept: 24
  }

 private:
  static constexpr Forced functionNameOf() { return {functionNameField.key, Self::kName}; }
};

}  // namespace kova::ipc::messages
