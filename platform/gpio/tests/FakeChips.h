#pragma once

#include <map>
#include <string>
#include <vector>

namespace kova::gpio::fakes {

/// A scripted GPIO controller in place of the kernel's.
struct FakeChip {
  std::string label;
  std::vector<std::string> names;  // of the lines
  std::map<unsigned, bool> high = {};
  std::map<unsigned, int> requestErrors = {};  // errno of a failing request, by offset
  int readError = 0;                           // errno of a failing read
};

/// Ordered by number; reset by each test.
extern std::vector<FakeChip> fakeChips;

/// Number of requests for a line.
extern int fakeRequests;

}  // namespace kova::gpio::fakes
