#pragma once

#include <sys/resource.h>

namespace kova::tests {

/// Limits the numbers of new descriptors to less than `end` during its lifetime.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t end = 0) {
    getrlimit(RLIMIT_NOFILE, &saved_);
    const rlimit limit{end, saved_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &saved_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit saved_{};
};

}  // namespace kova::tests
