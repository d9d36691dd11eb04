#pragma once

namespace kova::utils {

/// InstallCrashDumpHandler() with a given socket of the system log.
bool installCrashDumpHandler(const char* folder, const char* logSocket);

}  // namespace kova::utils
