#pragma once

#include <cstdint>
#include <string>

#include "Objects.h"
#include "kova/variant/Variant.h"

namespace kova::ctl {

/// The camera's description of itself, see docs/bus.md. Not validated.
struct Device {
  std::string model;
  variant::Variant sysId;  ///< number or text
  std::string name;
  std::string firmwareVersion;
  std::string daemonVersion;
  std::string bootId;
  bool savePending = false;
  bool resetPending = false;
  std::uint64_t lastSave = 0;   ///< microseconds since the epoch; 0: none since it started
  std::string lastSaveOutcome;  ///< "" without a save
  bool buttonReadable = false;
};

/// Reads the description from the camera.
/// @param answer receives the answer, which may be an error
ExitStatus readDevice(Objects& objects, Device& device, Objects::Answer& answer);

}  // namespace kova::ctl
