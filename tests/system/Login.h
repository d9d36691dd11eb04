#pragma once

#include <string>

#include "Camera.h"

namespace kova::system_test {

/// Whether the camera's login accepts the user with this password.
bool canLogIn(const Camera& camera, const std::string& user, const std::string& password);

}  // namespace kova::system_test
