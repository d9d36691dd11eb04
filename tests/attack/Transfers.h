#pragma once

#include <string>

#include "Attack.h"
#include "Requester.h"

namespace kova::attack {

/// Whether every kind of transfer still works once, with servers that mean well: whatever a
/// campaign did must not have disabled one.
void expectTransfersWork(Attack& attack, system_test::Requester& requester);

/// A grey picture that the camera takes for a logo, another one for each `mark`.
std::string goodLogo(const std::string& mark);
/// A sound that the camera takes, likewise.
std::string goodSound(const std::string& mark);

}  // namespace kova::attack
