#include <gtest/gtest.h>

#include <type_traits>

#include "TransferTaskSupport.h"
#include "TransferTaskWhitelist.h"
#include "curlcontext.h"

namespace kova::ctlserver {
namespace {

TEST(DeclarationsTest, CurlContextHasVirtualDestructor) {
  EXPECT_TRUE(std::has_virtual_destructor_v<CurlContext>);
}

/// Whether the class itself declares the hooks: the type of an inherited one names the base class.
template <typename Task>
constexpr bool overridesHooks() {
  return std::is_same_v<decltype(&Task::onCheck), bool (Task::*)()> &&
         std::is_same_v<decltype(&Task::onStart), bool (Task::*)()>;
}

TEST(DeclarationsTest, UploadTasksOverrideEveryHook) {
  EXPECT_TRUE(overridesHooks<TransferTaskSupport>());
  EXPECT_TRUE(overridesHooks<TransferTaskWhitelist>());
}

}  // namespace
}  // namespace kova::ctlserver
