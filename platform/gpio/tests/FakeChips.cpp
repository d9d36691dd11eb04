#include "FakeChips.h"

#include <fcntl.h>

#include <cerrno>

#include "../src/Chips.h"

namespace kova::gpio {
namespace fakes {

std::vector<FakeChip> fakeChips;
int fakeRequests = 0;

namespace {

struct Taken {
  std::size_t chip;
  std::uint32_t offset;
};
std::map<int, Taken> takenLines;

std::size_t numberOf(const Chip& chip) {
  return static_cast<std::size_t>(std::stoul(chip.path));
}

}  // namespace
}  // namespace fakes

using fakes::fakeChips;

std::vector<Chip> listChips() {
  std::vector<Chip> chips;
  for (const fakes::FakeChip& chip : fakeChips) {
    chips.push_back(
        {std::to_string(chips.size()), chip.label, static_cast<std::uint32_t>(chip.names.size())});
  }
  return chips;
}

std::vector<std::string> lineNames(const Chip& chip) {
  return fakeChips[fakes::numberOf(chip)].names;
}

utils::UniqueFd requestInput(const Chip& chip, std::uint32_t offset) {
  ++fakes::fakeRequests;
  const fakes::FakeChip& fake = fakeChips[fakes::numberOf(chip)];
  const auto error = fake.requestErrors.find(offset);
  if (error != fake.requestErrors.end() || offset >= chip.lines) {
    errno = offset >= chip.lines ? EINVAL : error->second;
    return {};
  }
  utils::UniqueFd line(open("/dev/null", O_RDONLY | O_CLOEXEC));
  fakes::takenLines[line.get()] = {fakes::numberOf(chip), offset};
  return line;
}

bool readLevel(const utils::UniqueFd& line, bool& high) {
  const fakes::Taken taken = fakes::takenLines.at(line.get());
  fakes::FakeChip& fake = fakeChips[taken.chip];
  if (fake.readError != 0) {
    errno = fake.readError;
    return false;
  }
  high = fake.high[taken.offset];
  return true;
}

}  // namespace kova::gpio
