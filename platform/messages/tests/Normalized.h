#pragma once

#include <utility>

#include "kova/variant/Variant.h"

namespace kova::ipc::messages {

inline constexpr char kNotGiven[] = "_UNINITIALIZED_";

template <typename Message>
Message normalized(variant::Variant::Map content = {}) {
  Message message{variant::Variant(std::move(content))};
  message.NormalizeFields();
  return message;
}

}  // namespace kova::ipc::messages
