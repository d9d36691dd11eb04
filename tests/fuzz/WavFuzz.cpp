// The reader of WAV headers stays within the file, does a bounded number of reads, and reports only
// sizes that fit in the file.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "../../platform/utils/files/src/WavHeader.h"
#include "Require.h"

namespace {

constexpr int kMostReads = 1026;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  int reads = 0;
  const auto readAt = [&](std::uint64_t offset, unsigned char* buffer, std::uint64_t length) {
    require(offset <= size && length <= size - offset && ++reads <= kMostReads);
    std::copy_n(data + offset, length, buffer);
    return true;
  };
  const auto header = kova::utils::internal::parseWavHeader(readAt, size);
  if (header) {
    require(header->channels != 0 && header->sampleRate != 0 && header->dataSize < size);
  }
  return 0;
}
