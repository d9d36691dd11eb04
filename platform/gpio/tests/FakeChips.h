#pragma once

#include <map>
#include <string>
#include <vector>

namespace kova::gpio::fakes {

/// A scripted GPIO controller in place of the kernel's.
struct FakeChip {
  std::string label;
  std::vector<std::string> names;  // of its lines
  std::map<unsigned, bool> high = {};
  std::map<unsigned, int> requestErrors = {};  // the errno of taking a line
  int readError = 0;                           // the errno of reading one that was taken
};

/// In the order of their numbers. Cleared by each test.
extern std::vector<FakeChip> fakeChips;

/// How many times a line was taken.
extern int fakeRequests;

}  // namespace kova::gpio::fakes
