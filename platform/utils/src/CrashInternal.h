#pragma once

namespace kova::utils {

/// InstallCrashDumpHandler with the system log's socket to choose.
bool installCrashDumpHandler(const char* folder, const char* logSocket);

}  // namespace kova::utils
