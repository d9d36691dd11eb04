#include <gtest/gtest.h>

#include "PrivateRoot.h"

namespace kova::tests {
namespace {

/// Linked into every program that changes system files: started by hand, without
/// tests/private-root, it ends before its first test.
class PrivateRootGuard : public testing::Environment {
 public:
  void SetUp() override { requirePrivateRoot(); }
};

const testing::Environment* const kGuard =
    testing::AddGlobalTestEnvironment(new PrivateRootGuard);  // owned by GoogleTest

}  // namespace
}  // namespace kova::tests
