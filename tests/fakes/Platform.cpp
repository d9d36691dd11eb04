#include "Platform.h"

#include <algorithm>

namespace kova::fakes {

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << line.identity << " " << line.unit << "." << line.function << " <" << line.level
             << "> (" << line.error << ") " << line.text;
}

std::ostream& operator<<(std::ostream& out, const CaptureTerms& terms) {
  return out << "input \"" << terms.input << "\", " << terms.timeoutMs << " ms, " << terms.graceMs
             << " ms, " << terms.captureKiB << " KiB";
}

Platform& platform() {
  static Platform instance;
  return instance;
}

void reset() {
  platform() = Platform();
}

bool Platform::logged(int level, const std::string& text) const {
  return std::any_of(log.begin(), log.end(),
                     [&](const LogLine& line) { return line.level == level && line.text == text; });
}

std::vector<std::string> Platform::logTexts() const {
  std::vector<std::string> texts;
  for (const auto& line : log) {
    texts.push_back(line.text);
  }
  return texts;
}

std::vector<std::string> Platform::logLines() const {
  std::vector<std::string> lines;
  for (const auto& line : log) {
    lines.push_back(std::to_string(line.level) + " " + line.unit + "." + line.function + ": " +
                    line.text);
  }
  return lines;
}

}  // namespace kova::fakes
