#pragma once

#include <string>

#include "Attack.h"
#include "Requester.h"

namespace kova::attack {

/// Expects that every kind of transfer still works with well-behaved servers after a campaign.
void expectTransfersWork(Attack& attack, system_test::Requester& requester);

/// A grey picture that the camera accepts as a logo, different for each `mark`.
std::string goodLogo(const std::string& mark);
/// A sound that the camera accepts, likewise.
std::string goodSound(const std::string& mark);

}  // namespace kova::attack
