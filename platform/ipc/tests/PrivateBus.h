#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace kova::ipc::testing {

/// A bus of one's own for the life of this object: a dbus-daemon in a folder of its own, under the
/// policy and limits that a camera ships, with the user of the test in root's place. While the
/// object lives KOVA_BUS_ADDRESS points there.
class PrivateBus {
 public:
  /// Texts to replace in the shipped configuration, all occurrences.
  using Changes = std::vector<std::pair<std::string, std::string>>;

  /// Returns when the bus accepts connections; throws std::runtime_error when it does not come up.
  explicit PrivateBus(const Changes& changes = {});
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  /// Ends the bus at once, and with it every connection.
  void Kill();

  const std::string& address() const { return address_; }
  pid_t pid() const { return pid_; }

 private:
  void WriteConfig(const Changes& changes) const;
  void Start();

  /// Removed with all that is in it, also when the bus does not come up.
  struct Folder {
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string path;
  };

  Folder folder_;
  std::string address_;
  std::string addressBefore_;
  pid_t pid_ = -1;
};

}  // namespace kova::ipc::testing
