#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

/// Set-up of a platform beyond the headers under test; implemented by FakeRig.cpp and RealRig.cpp.
namespace kova::suite {

/// Resets the platform to no settings, accounts or history. Ends the process if that would change
/// the machine itself.
void startAfresh();

/// Writes the configuration store; removeStore() removes it, so that it cannot be opened.
void writeStore(const std::map<std::string, std::string>& settings);
void removeStore();

/// Replaces the accounts: name and hash field.
void writeAccounts(const std::map<std::string, std::string>& hashes);

/// Whether the program with this process id, from runDaemon(), is still running.
bool isRunning(int pid);

class PlatformSuite : public testing::Test {
 protected:
  void SetUp() override { startAfresh(); }
};

}  // namespace kova::suite
