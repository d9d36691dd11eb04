#pragma once

#include <string>
#include <vector>

#include "kova/messages/Catalog.h"

namespace kova::ctl::testing {

/// The kinds of transfer that the schema of a request allows.
inline std::vector<std::string> kindsOf(const std::string& request) {
  std::vector<std::string> kinds;
  for (const auto& message : ipc::messages::catalog()) {
    for (const auto& field : message.fields) {
      if (message.name == request && field.key == "what") {
        kinds = field.allowed;
      }
    }
  }
  std::erase(kinds, "_UNINITIALIZED_");
  return kinds;
}

}  // namespace kova::ctl::testing
