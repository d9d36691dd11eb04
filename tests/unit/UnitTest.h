#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform.h"

/// What every unit test of the daemon names.
namespace kova::ctlserver {

using fakes::LogLine;
using fakes::platform;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using variant::Variant;

}  // namespace kova::ctlserver
