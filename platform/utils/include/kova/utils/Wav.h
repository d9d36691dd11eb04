#pragma once

#include <string>

namespace kova::utils {

/// Reads the header of a RIFF/WAVE file with PCM samples (WAVE_FORMAT_PCM, or
/// WAVE_FORMAT_EXTENSIBLE with the sub-format KSDATAFORMAT_SUBTYPE_PCM). The file must contain
/// exactly one "fmt " and one "data" chunk, in any order, among at most 1024 chunks; all sizes are
/// checked against that of the file.
///
/// @param channels   receives the channel count (1: mono)
/// @param sampleRate receives samples per second
/// @param dataSize   receives the bytes of sample data
/// @return false, with the outputs unchanged, for any other file or one that cannot be read
bool readWavHeader(const std::string& path, unsigned short& channels, unsigned int& sampleRate,
                   unsigned int& dataSize);

}  // namespace kova::utils
