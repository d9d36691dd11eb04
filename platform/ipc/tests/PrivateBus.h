#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace kova::ipc::testing {

/// A private bus for the lifetime of this object: a dbus-daemon in its own folder, with the policy
/// and limits of a camera, except that the test's user takes the role of root. Sets
/// KOVA_BUS_ADDRESS meanwhile.
class PrivateBus {
 public:
  /// Replacements for all occurrences of texts in the shipped configuration.
  using Changes = std::vector<std::pair<std::string, std::string>>;

  /// Returns once the bus accepts connections; throws std::runtime_error if it does not start.
  explicit PrivateBus(const Changes& changes = {});
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  /// Kills the bus and thereby every connection.
  void kill();

  const std::string& address() const { return address_; }
  /// The path of its socket.
  std::string socket() const { return folder_.path + "/bus"; }
  pid_t pid() const { return pid_; }

 private:
  void writeConfig(const Changes& changes) const;
  void start();

  /// Removed with its content, even if the bus does not start.
  struct Folder {
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string path;
  };

  Folder folder_;
  std::string address_;
  pid_t pid_ = -1;
};

}  // namespace kova::ipc::testing
