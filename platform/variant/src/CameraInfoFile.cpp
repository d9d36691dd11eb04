#include <cerrno>

#include "kova/logger/Logger.h"
#include "kova/utils/File.h"
#include "kova/variant/CameraInfo.h"

namespace kova::variant {
namespace {

constexpr char kLogIdentity[] = "kova_variant";
constexpr char kLogUnit[] = "CameraInfo";
constexpr char kDescription[] = "/usr/share/kova/camera_info.json";

}  // namespace

bool CameraInfo::Init() {
  std::string text;
  if (!utils::File::ReadStringAll(kDescription, text)) {
    KOVA_LOG(LOG_ERR, errno, "Cannot read %s", kDescription);
    return false;
  }
  Variant description;
  FromJSON(text, description);  // leaves it empty on failure
  if (!description.isMap()) {
    KOVA_LOG(LOG_ERR, 0, "%s does not hold a JSON object", kDescription);
    return false;
  }
  static_cast<Variant&>(*this) = std::move(description);
  return true;
}

}  // namespace kova::variant
