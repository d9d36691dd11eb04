#include "kova/utils/Wav.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "WavHeader.h"
#include "kova/utils/File.h"

namespace kova::utils {
namespace internal {
namespace {

using namespace std::string_view_literals;

constexpr std::uint64_t kRiffHeader = 12;
constexpr std::uint64_t kChunkHeader = 8;
constexpr std::uint64_t kFormatBasic = 16;
constexpr std::uint64_t kFormatExtensible = 40;
constexpr int kMaxChunks = 1024;
constexpr std::uint16_t kFormatPcm = 0x0001;
constexpr std::uint16_t kFormatIsExtensible = 0xfffe;
// 00000001-0000-0010-8000-00AA00389B71
constexpr std::string_view kSubtypePcm = "\x01\0\0\0\0\0\x10\0\x80\0\0\xaa\0\x38\x9b\x71"sv;

std::uint16_t u16(const unsigned char* at) {
  return static_cast<std::uint16_t>(at[0] | at[1] << 8);
}

std::uint32_t u32(const unsigned char* at) {
  return u16(at) | static_cast<std::uint32_t>(u16(at + 2)) << 16;
}

bool isTag(const unsigned char* at, std::string_view tag) {
  return std::memcmp(at, tag.data(), tag.size()) == 0;
}

struct Format {
  std::uint16_t channels;
  std::uint32_t sampleRate;
};

std::optional<Format> parseFormat(const ReadAt& readAt, std::uint64_t offset, std::uint64_t size) {
  std::array<unsigned char, kFormatExtensible> body{};
  const std::uint64_t length = std::min<std::uint64_t>(size, body.size());
  if (length < kFormatBasic || !readAt(offset, body.data(), length)) {
    return std::nullopt;
  }
  const std::uint16_t tag = u16(body.data());
  const bool extensiblePcm =
      tag == kFormatIsExtensible && length == kFormatExtensible && isTag(&body[24], kSubtypePcm);
  const Format format{u16(&body[2]), u32(&body[4])};
  if ((tag != kFormatPcm && !extensiblePcm) || format.channels == 0 || format.sampleRate == 0) {
    return std::nullopt;
  }
  return format;
}

// The end of the RIFF chunk; anything beyond is ignored.
std::optional<std::uint64_t> parseRiff(const ReadAt& readAt, std::uint64_t size) {
  std::array<unsigned char, kRiffHeader> header;
  if (size < kRiffHeader || !readAt(0, header.data(), header.size()) ||
      !isTag(header.data(), "RIFF") || !isTag(&header[8], "WAVE")) {
    return std::nullopt;
  }
  const std::uint64_t end = kChunkHeader + u32(&header[4]);
  return end <= size ? std::optional(end) : std::nullopt;
}

}  // namespace

std::optional<WavHeader> parseWavHeader(const ReadAt& readAt, std::uint64_t size) {
  const std::optional<std::uint64_t> end = parseRiff(readAt, size);
  std::optional<Format> format;
  std::optional<std::uint32_t> dataSize;
  std::uint64_t at = kRiffHeader;
  for (int chunks = 0; end && at < *end; ++chunks) {
    std::array<unsigned char, kChunkHeader> header;
    if (chunks == kMaxChunks || *end - at < kChunkHeader ||
        !readAt(at, header.data(), header.size())) {
      return std::nullopt;
    }
    at += kChunkHeader;
    const std::uint64_t length = u32(&header[4]);
    const bool isFormat = isTag(header.data(), "fmt ");
    const bool isData = isTag(header.data(), "data");
    if (length > *end - at || (isFormat && format) || (isData && dataSize)) {
      return std::nullopt;
    }
    if (isFormat && !(format = parseFormat(readAt, at, length))) {
      return std::nullopt;
    }
    if (isData) {
      dataSize = u32(&header[4]);
    }
    at += length + length % 2;  // the pad byte after the last chunk may be missing
  }
  if (!format || !dataSize) {
    return std::nullopt;
  }
  return WavHeader{format->channels, format->sampleRate, *dataSize};
}

}  // namespace internal

bool readWavHeader(const std::string& path, unsigned short& channels, unsigned int& sampleRate,
                   unsigned int& dataSize) {
  File file;
  if (!file.Initialize(path, FILE_OPEN_MODE_READ, 0)) {
    return false;
  }
  const auto readAt = [&file](std::uint64_t offset, unsigned char* buffer, std::uint64_t length) {
    return file.seek(offset) && file.ReadBuffer(buffer, length);
  };
  const auto header = internal::parseWavHeader(readAt, file.Size());
  if (!header) {
    return false;
  }
  channels = header->channels;
  sampleRate = header->sampleRate;
  dataSize = header->dataSize;
  return true;
}

}  // namespace kova::utils
