#include "Spinner.h"

#include <cstdio>

#include "Terminal.h"

namespace kova::ctl {

Spinner::Spinner(std::string text) : text_(std::move(text)), visible_(errorIsTerminal()) {}

Spinner::~Spinner() {
  if (visible_) {
    std::fputs("\r\x1b[K", stderr);
  }
}

void Spinner::Turn() {
  constexpr char kStates[] = {'|', '/', '-', '\\'};
  const auto now = Clock::now();
  if (!visible_ || now - drawn_ < std::chrono::milliseconds(100)) {
    return;
  }
  drawn_ = now;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - start_).count();
  std::fprintf(stderr, "\r%c %s  %lld s\x1b[K", kStates[state_++ % sizeof kStates], text_.c_str(),
               static_cast<long long>(seconds));
}

}  // namespace kova::ctl
