#include <cstdint>
#include <cstring>
#include <string>

#include "Require.h"
#include "kova/messages/Catalog.h"

using kova::variant::Variant;

namespace {

/// Decodes values from the fuzzer's bytes: a type, then its content.
class Source {
 public:
  Source(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}

  std::uint8_t byte() {
    if (left_ == 0) {
      return 0;
    }
    --left_;
    return *data_++;
  }

  template <typename T>
  T number() {
    T value{};
    auto* bytes = reinterpret_cast<unsigned char*>(&value);
    for (std::size_t i = 0; i < sizeof value; ++i) {
      bytes[i] = byte();
    }
    return value;
  }

  std::string text() {
    std::string value;
    for (std::size_t length = byte(); length > 0 && left_ > 0; --length) {
      value.push_back(static_cast<char>(byte()));
    }
    return value;
  }

  Variant value(int depth) {
    switch (byte() % 13) {
      case 0:
        return Variant();
      case 1:
        return Variant(byte() % 2 == 0);
      case 2:
        return Variant(number<std::int8_t>());
      case 3:
        return Variant(number<std::uint8_t>());
      case 4:
        return Variant(number<std::int32_t>());
      case 5:
        return Variant(number<std::uint32_t>());
      case 6:
        return Variant(number<std::int64_t>());
      case 7:
        return Variant(number<std::uint64_t>());
      case 8:
        return Variant(number<double>());
      case 9:
        return Variant(text());
      case 10:
        return Variant(timeval{number<std::int32_t>(), number<std::int32_t>()});
      default:
        return container(depth);
    }
  }

 private:
  Variant container(int depth) {
    Variant made(Variant::Array{});
    for (int count = depth > 0 ? byte() % 8 : 0; count > 0; --count) {
      if (byte() % 2 == 0) {
        made[text()] = value(depth - 1);
      } else {
        made.pushToArray(value(depth - 1));
      }
    }
    return made;
  }

  const std::uint8_t* data_;
  std::size_t left_;
};

}  // namespace

// Every message class normalises any value to a map with every key of its schema, and normalising
// is idempotent.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kova::ipc::messages;
  Source source(data, size);
  const auto& classes = catalog();
  const auto& chosen = classes[source.byte() % classes.size()];
  Variant content = source.value(4);
  // Put some values under keys of the schema.
  for (const auto& field : chosen.fields) {
    if (source.byte() % 2 == 0) {
      content[field.key] = source.value(2);
    }
  }
  auto message = chosen.make(content);
  message->NormalizeFields();
  require(message->isMap());
  require(*message->find("functionName") == Variant(chosen.name));
  for (const auto& field : chosen.fields) {
    require(message->find(field.key) != nullptr);
  }
  const std::string once = message->toJson();
  message->NormalizeFields();
  require(message->toJson() == once);
  return 0;
}
