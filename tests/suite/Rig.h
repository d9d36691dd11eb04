#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

/// What the suite needs of a platform beyond the headers under test; FakeRig.cpp and RealRig.cpp
/// each provide it.
namespace kova::suite {

/// A platform without settings, accounts or history. Ends the process where that would be the
/// machine's own.
void startAfresh();

/// The configuration store then holds these settings; removeStore() leaves none to open.
void writeStore(const std::map<std::string, std::string>& settings);
void removeStore();

/// The accounts there are then: name and hash field.
void writeAccounts(const std::map<std::string, std::string>& hashes);

/// Whether a program of that process id, which runDaemon() gave, runs still.
bool isRunning(int pid);

class PlatformSuite : public testing::Test {
 protected:
  void SetUp() override { startAfresh(); }
};

}  // namespace kova::suite
