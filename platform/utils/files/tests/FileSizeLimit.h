#pragma once

#include <sys/resource.h>

#include <csignal>

namespace kova::tests {

/// Limits the size of files during its lifetime: a write beyond the limit is short, and the next
/// one fails.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    const rlimit limit{bytes, saved_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, handler_);
  }

 private:
  rlimit saved_{};
  sighandler_t handler_;
};

}  // namespace kova::tests
