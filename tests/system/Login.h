#pragma once

#include <string>

#include "Camera.h"

namespace kova::system_test {

/// Whether the camera's login lets the administrator in with a password.
bool canLogIn(const Camera& camera, const std::string& user, const std::string& password);

}  // namespace kova::system_test
