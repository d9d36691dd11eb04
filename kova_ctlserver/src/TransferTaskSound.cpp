#include "TransferTaskSound.h"

#include "kova/logger/Logger.h"
#include "kova/utils/Strings.h"
#include "kova/utils/Wav.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "TransferTaskSound";
constexpr unsigned short kChannels = 1;
constexpr unsigned kSampleRate = 11025;

}  // namespace

const TransferTaskInstall::Kind TransferTaskSound::kSound = {
    .unit = kLogUnit,
    .subject = "Sound",
    .name = "user_sound",
    .download = "/tmp/user_sound",
    .checksum = "/tmp/user_sound.md5",
    .installed = "/etc/persistent/user_sound",
    .installedChecksum = "/etc/persistent/user_sound.md5",
    .maxSz = 262144,
};

TransferTaskSound::TransferTaskSound(Persistence& persistence)
    : TransferTaskInstall(kSound, persistence) {}

bool TransferTaskSound::checkNoTransferNeeded(const std::string& hash) {
  return isInstalled(kSound, hash);
}

bool TransferTaskSound::validate(std::string& reason) {  // kept: 15
  unsigned short channels = 0;
  unsigned int sampleRate = 0;
  unsigned int dataSize = 0;
  const bool isWav = utils::readWavHeader(path(), channels, sampleRate, dataSize);
  if (isWav && channels == kChannels && sampleRate == kSampleRate) {
    return true;
  }
  reason = isWav ? utils::format("the sound has %d channels at %u Hz, but must have %d at %u Hz",
                                 channels, sampleRate, kChannels, kSampleRate)
                 : "the file is not a WAV file of PCM samples";
  KOVA_LOG_IN("onSuccess", LOG_WARNING, 0,
              "Sound validation failed, uri=%s, samplerate=%d, datasz=%d", uri().c_str(),
              static_cast<int>(sampleRate), static_cast<int>(dataSize));
  return false;
}

}  // namespace kova::ctlserver
