#pragma once

#include <string.h>

#include <string>

namespace kova::utils {

/// A secret text. Each object wipes its own copy from memory on destruction.
struct Secret {
  std::string text;
  ~Secret() { explicit_bzero(text.data(), text.size()); }
};

}  // namespace kova::utils
