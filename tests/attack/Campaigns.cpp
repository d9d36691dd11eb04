#include "Campaigns.h"

namespace kova::attack {

using std::chrono::seconds;

constexpr std::size_t kMiB = 1024;  // in KiB

// What the bounds allow for. Requests: some of those queued before one hash a password or run a
// tool each, and many small values in a message of 1 MiB. Pictures: the decoder is held to its
// processor time. All: of what was freed, the sanitizers keep 16 MiB (kSanitizerOptions in
// main.cpp).
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
