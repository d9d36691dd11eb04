#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "kova/utils/UniqueFd.h"

namespace kova::utils::internal {

/// The folder of the file `path`.
std::string folderOf(const std::string& path);

/// Makes a rename in the folder durable.
bool syncFolder(const std::string& folder);

/// Creates a new file for writing, with an unpredictable name.
/// @param path receives its path on success
UniqueFd createTemporary(const std::string& folder, mode_t mode, std::string& path);

/// Copies owner and mode of another file to an open one.
bool takeOverAttributes(int fd, const struct stat& from);

}  // namespace kova::utils::internal
