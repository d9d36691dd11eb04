#include "Campaigns.h"

namespace kova::attack {

using std::chrono::seconds;

constexpr std::size_t kMiB = 1024;  // in KiB

// The bounds allow for: in "requests", queued requests that each hash a password or run a tool, and
// messages of 1 MiB with many small values; in "pictures", the decoder's processor time; in all,
// 16 MiB of freed memory that the sanitizers retain (keepLittleOfFreedMemory).
const std::vector<CampaignKind>& campaigns() {
  static const std::vector<CampaignKind> all = {
      {"requests", 3, seconds(15), 128 * kMiB, makeRequests},
      {"servers", 6, seconds(2), 64 * kMiB, makeServers},
      {"files", 3, seconds(2), 40 * kMiB, makeFiles},
      {"tools", 7, seconds(5), 40 * kMiB, makeTools},
      {"pictures", 2, seconds(4), 40 * kMiB, makePictures},
  };
  return all;
}

}  // namespace kova::attack
