#pragma once

#include <sys/types.h>

#include "Spawn.h"
#include "kova/utils/UniqueFd.h"

namespace kova::utils {

/// A background program and its supervisor: a separate process that kills the program and all its
/// descendants when its time limit expires, letGo() is called or the owner dies, and exits after
/// the last of them. Neither process is a child of this one.
class Leash {
 public:
  /// @return 0, or the errno value that prevented the start
  int start(Spawn& spawn, unsigned limitMs, pid_t* pid);

  /// Whether the program or one of its descendants still runs.
  bool holds() const;
  /// Kills the program and its descendants and waits for their end, at most a few seconds.
  void letGo();
  /// Whether the time limit had expired before letGo(); valid only after that call.
  bool expired() const { return expired_; }

 private:
  UniqueFd socket_;
  bool expired_ = false;
};

}  // namespace kova::utils
