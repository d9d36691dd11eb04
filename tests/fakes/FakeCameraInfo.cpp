#include "Platform.h"
#include "kova/variant/CameraInfo.h"

namespace kova::variant {

bool CameraInfo::Init() {
  fakes::platform().note("CameraInfo::Init");
  static_cast<Variant&>(*this) = fakes::platform().cameraInfo;
  return fakes::platform().cameraInfoResult;
}

}  // namespace kova::variant
