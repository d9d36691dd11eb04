#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace kova::utils::internal {

struct WavHeader {
  std::uint16_t channels;
  std::uint32_t sampleRate;
  std::uint32_t dataSize;
};

/// Reads exactly `length` bytes at `offset`, or returns false.
using ReadAt =
    std::function<bool(std::uint64_t offset, unsigned char* buffer, std::uint64_t length)>;

/// What readWavHeader does, on anything that can be read at any offset. It reads at most 1024 chunk
/// headers and one "fmt " chunk, whatever stands in them.
/// @param size bytes that `readAt` can give
std::optional<WavHeader> parseWavHeader(const ReadAt& readAt, std::uint64_t size);

}  // namespace kova::utils::internal
