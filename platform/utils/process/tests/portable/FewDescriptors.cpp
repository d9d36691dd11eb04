#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>

namespace kova::utils {
namespace {

/// Limits the descriptors as the daemon's service files do: the portable implementation loops over
/// all possible descriptors, a million without a limit.
class FewDescriptors : public testing::Environment {
 public:
  void SetUp() override {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
};

const testing::Environment* const kFewDescriptors =
    testing::AddGlobalTestEnvironment(new FewDescriptors);

}  // namespace
}  // namespace kova::utils
