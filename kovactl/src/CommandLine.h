#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace kova::ctl {

/// Where a command declares what it takes. Values are written while the command line is parsed, so
/// they must live as long as the action that reads them.
///
/// The parser itself, CLI11, stays behind this: its header takes longer to compile than any
/// command.
class CommandLine {
 public:
  explicit CommandLine(CLI::App& app) : app_(&app) {}

  /// An argument that must be given.
  /// @param choices the only values that it takes; none for any
  void Argument(const char* name, std::string& value, const char* help,
                const std::vector<std::string>& choices = {});
  /// Any number of arguments, also none.
  void Arguments(const char* name, std::vector<std::string>& values, const std::string& help);

  /// An option without a value.
  /// @param names     one or two, such as "-y,--yes"
  /// @param excluding long names of options that must not be given with it, declared before
  void Flag(const char* names, bool& value, const char* help,
            const std::vector<std::string>& excluding = {});
  /// An option with a value; `type` is what the help calls the value.
  void Option(const char* name, std::string& value, const char* type, const char* help);
  void Option(const char* name, std::uint32_t& value, const char* type, const char* help);
  /// An option that may be given more than once, each time with a value.
  void Option(const char* name, std::vector<std::string>& values, const char* type,
              const char* help);
  /// An option that may go without its value, which is "" then.
  void OptionalValue(const char* name, std::optional<std::string>& value, const char* type,
                     const char* help);
  /// An option in seconds, a fraction allowed, see parseSeconds().
  void Seconds(const char* name, std::uint32_t& milliseconds, const std::string& help);

  /// A subcommand. When there are any, one must be given.
  CommandLine Subcommand(const char* name, const char* help);
  /// Whether this subcommand was given.
  bool Given() const;

  /// What the help ends with.
  void Footer(const std::string& text);

 private:
  CLI::App* app_;
};

}  // namespace kova::ctl
