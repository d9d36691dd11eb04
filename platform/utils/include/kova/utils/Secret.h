#pragma once

#include <string.h>

#include <string>

namespace kova::utils {

/// A secret text. Every object wipes its own bytes from memory when it is destroyed.
struct Secret {
  std::string text;
  ~Secret() { explicit_bzero(text.data(), text.size()); }
};

}  // namespace kova::utils
