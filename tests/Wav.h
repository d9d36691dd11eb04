#pragma once

#include <string>

namespace kova::tests {

/// `value` in little-endian order.
inline std::string number(unsigned value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i, value >>= 8U) {
    text.push_back(static_cast<char>(value & 0xFFU));
  }
  return text;
}

/// A WAV file of 16-bit PCM samples.
inline std::string wav(unsigned channels, unsigned sampleRate, unsigned dataSize = 8) {
  return "RIFF" + number(36 + dataSize, 4) + "WAVEfmt " + number(16, 4) + number(1, 2) +
         number(channels, 2) + number(sampleRate, 4) + number(sampleRate * channels * 2, 4) +
         number(channels * 2, 2) + number(16, 2) + "data" + number(dataSize, 4) +
         std::string(dataSize, '\0');
}

}  // namespace kova::tests
