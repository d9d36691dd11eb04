#pragma once

#include <sys/types.h>

#include <experimental/source_location>
#include <string>
#include <vector>

#include "kova/utils/UniqueFd.h"

namespace kova::ctl::testing {

/// Time-out for events that must happen.
inline constexpr int kPatienceMs = 20'000;

/// The result of a kovactl process.
struct Result {
  int status;  ///< exit status, or the negated number of the signal that killed it
  std::string out;
  std::string err;
};

/// A running kovactl on pipes or on a pseudo-terminal. Killed on destruction if it is still
/// running.
class Child {
 public:
  enum class On { Pipes, Terminal };

  /// On a terminal `out` receives both output streams.
  explicit Child(const std::vector<std::string>& arguments, On on = On::Pipes);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void write(const std::string& text);
  void closeInput() { input_.reset(); }
  void closeOutput() { output_.reset(); }
  void signal(int signal) const;
  /// Waits until the output contains `text`.
  bool awaitOutput(const std::string& text, int milliseconds = kPatienceMs);
  /// Waits until the error stream contains `text`.
  bool awaitError(const std::string& text);
  /// Waits for the exit. A child that does not exit is killed and fails the test.
  Result wait();

  /// Whether the pseudo-terminal echoes input.
  bool echoes() const;
  const std::string& out() const { return out_; }
  pid_t pid() const { return pid_; }
  /// The descriptors of its standard input and output.
  int input() const { return input_.get(); }
  int output() const { return output_.get(); }

 private:
  bool read(int timeoutMs);
  bool await(const std::string& stream, const std::string& text, int milliseconds);

  pid_t pid_ = -1;
  utils::UniqueFd input_;
  utils::UniqueFd output_;
  utils::UniqueFd error_;
  std::string out_;
  std::string err_;
};

/// Runs kovactl until it exits.
Result run(const std::vector<std::string>& arguments, const std::string& input = "");

/// Sends PlayState with these fields to an endpoint, repeatedly until it has joined the bus.
void sendUntilTaken(const std::string& endpoint, const std::vector<std::string>& fields = {});

// The standard one requires clang 16.
using Place = std::experimental::source_location;

/// Expects this status and this output. A failure names the caller's line, as in the next two.
void expectOutput(const Result& result, int status, const std::string& out,
                  const Place& place = Place::current());
/// Expects this status, no output, and this on the error stream.
void expectError(const Result& result, int status, const std::string& err,
                 const Place& place = Place::current());
/// Expects this status, and this on the error stream among other things.
void expectFailure(const Result& result, int status, const std::string& said,
                   const Place& place = Place::current());

/// The shell command that execs "kovactl bridge", for programs that carry connections. It disables
/// the leak check at exit: sd-bus ends such a program with SIGTERM immediately followed by SIGCONT,
/// which discards the SIGSTOP that the check sends, and the two would wait for each other forever.
std::string bridgeCommand(const std::string& bus);

}  // namespace kova::ctl::testing
