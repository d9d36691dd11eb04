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

/// readWavHeader() for any source that can be read at any offset. Reads at most 1024 chunk headers
/// and one "fmt " chunk, whatever their content.
/// @param size size of the source in bytes
std::optional<WavHeader> parseWavHeader(const ReadAt& readAt, std::uint64_t size);

}  // namespace kova::utils::internal
