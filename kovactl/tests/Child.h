#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kova::ctl::testing {

/// How a run of kovactl ended.
struct Result {
  int status;  ///< exit status; minus the signal's number when it was killed by one
  std::string out;
  std::string err;
};

/// A kovactl under way, on pipes or on a pseudo-terminal. Killed when the object is destroyed
/// before it has ended.
class Child {
 public:
  enum class On { Pipes, Terminal };

  /// On a terminal everything it writes is `out`.
  explicit Child(const std::vector<std::string>& arguments, On on = On::Pipes);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void Write(const std::string& text);
  void CloseInput();
  void Signal(int signal) const;
  /// Waits until its output holds `text`.
  bool AwaitOutput(const std::string& text);
  /// The same for so long at most.
  bool AwaitOutputFor(const std::string& text, int milliseconds);
  /// Waits for its end. A child that does not end is killed and fails the test.
  Result Wait();

  /// Whether the pseudo-terminal echoes what is typed.
  bool Echoes() const;
  const std::string& out() const { return out_; }

 private:
  bool Read(int timeoutMs);

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int error_ = -1;
  std::string out_;
  std::string err_;
};

/// Runs kovactl to its end.
Result run(const std::vector<std::string>& arguments, const std::string& input = "");

}  // namespace kova::ctl::testing
