#pragma once

namespace kova::utils {

/// InstallCrashDumpHandler() with the path of the system log's socket.
bool installCrashDumpHandler(const char* folder, const char* logSocket);

}  // namespace kova::utils
