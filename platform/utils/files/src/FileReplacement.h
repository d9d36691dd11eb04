#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace kova::utils::internal {

/// The folder of the file `path`.
std::string folderOf(const std::string& path);

/// Makes a rename in the folder durable.
bool syncFolder(const std::string& folder);

/// Creates a new file for writing, with an unpredictable name.
/// @param path receives its path
/// @return its descriptor, or -1
int createTemporary(const std::string& folder, mode_t mode, std::string& path);

/// Gives the open file the owner and the mode of another.
bool takeOverAttributes(int fd, const struct stat& from);

}  // namespace kova::utils::internal
