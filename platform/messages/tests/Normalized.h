#pragma once

#include <gtest/gtest.h>

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

/// Checks every key of a class's own schema in a normalised empty message.
template <typename Message>
void expectDefaults(const variant::Variant::Map& defaults) {
  auto message = normalized<Message>();
  EXPECT_EQ(message["functionName"], variant::Variant(Message::kName));
  for (const auto& [key, value] : defaults) {
    ASSERT_NE(message.find(key), nullptr) << Message::kName << "." << key;
    EXPECT_EQ(*message.find(key), value) << Message::kName << "." << key;
  }
  // Six keys of the message envelope and three of the request envelope, of which responseExpected
  // is in `defaults` too.
  EXPECT_EQ(message.Size(), 8U + defaults.size())
      << Message::kName
      << " has a different number of fields than this test lists: " << message.ToString();
}

}  // namespace kova::ipc::messages
