#pragma once

#include <memory>

namespace kova::utils {

/// Deleter that calls a C library's own release function and ignores what it returns.
template <auto kRelease>
struct Release {
  template <typename Type>
  void operator()(Type* handle) const {
    static_cast<void>(kRelease(handle));
  }
};

/// Owner of a C handle, for example `Handle<DIR, closedir>`.
template <typename Type, auto kRelease>
using Handle = std::unique_ptr<Type, Release<kRelease>>;

}  // namespace kova::utils
