#pragma once

namespace kova::utils {

/// Reaps all children that have exited.
/// @return whether any are left
bool reapChildren();

/// Kills and reaps all children, including orphans that are reparented to this process: if it is a
/// subreaper, see prctl(2), all descendants. Returns once none is left. Allocates no memory.
void killChildren();

}  // namespace kova::utils
