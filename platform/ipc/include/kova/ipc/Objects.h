#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace kova::ipc {

/// A time, in microseconds of CLOCK_REALTIME, and what happened then; 0 and "" for never.
struct Moment {
  std::uint64_t timeUs = 0;
  std::string what = {};

  bool operator==(const Moment&) const = default;
};

/// The value of a property: "b", "q", "t", "s" or "(ts)" on the bus.
using PropertyValue = std::variant<bool, std::uint16_t, std::uint64_t, std::string, Moment>;

struct Property {
  const char* name;
  /// D-Bus type, one of those above. A value of another type fails the read.
  const char* type;
  /// Whether it may change while the object exists. If not, it is marked as constant.
  bool changes;
};

/// A D-Bus interface: read-only properties, and methods without arguments and result. Names are not
/// copied; they must outlive the connection.
struct Interface {
  const char* name;
  std::vector<Property> properties;
  std::vector<const char*> methods;
};

/// The error of a method that failed.
struct MethodError {
  std::string name;  ///< D-Bus error name, for example "kova.Error.Ended"; "" on success
  std::string text;  ///< message for a human reader
};

/// Implements an interface of the object "/kova". Called by Ipc::Service() and by
/// Objects::changed(); an exception becomes org.freedesktop.DBus.Error.Failed.
class PublishedObject {
 public:
  PublishedObject() = default;
  virtual ~PublishedObject() = default;
  PublishedObject(const PublishedObject&) = delete;
  PublishedObject& operator=(const PublishedObject&) = delete;

  /// The value of a property, by its index in Interface::properties.
  virtual PropertyValue read(std::size_t property) const = 0;
  /// Performs a method, by its index in Interface::methods.
  virtual MethodError call(std::size_t method) = 0;
};

/// Numbered objects that come and go, "/kova/FOLDER/1" and so on. Called like PublishedObject.
class PublishedFolder {
 public:
  PublishedFolder() = default;
  virtual ~PublishedFolder() = default;
  PublishedFolder(const PublishedFolder&) = delete;
  PublishedFolder& operator=(const PublishedFolder&) = delete;

  /// The numbers of all objects.
  virtual std::vector<std::uint64_t> numbers() const = 0;
  virtual bool has(std::uint64_t number) const = 0;
  /// Called only for existing objects.
  virtual PropertyValue read(std::uint64_t number, std::size_t property) const = 0;
  virtual MethodError call(std::uint64_t number, std::size_t method) = 0;
};

/// The objects that an endpoint publishes to any D-Bus client, through the standard interfaces
/// org.freedesktop.DBus.Introspectable, Properties and, on "/kova", ObjectManager (D-Bus
/// specification, "Standard Interfaces"). The bus policy controls access to them.
///
/// Texts are published as UTF-8: invalid bytes become "?", and texts are truncated to
/// kMaxTextBytes. An answer of more than kMaxAnswerBytes, such as to GetManagedObjects with very
/// many objects, is refused with org.freedesktop.DBus.Error.LimitsExceeded; single objects remain
/// readable.
class Objects {
 public:
  static constexpr std::size_t kMaxTextBytes = 4096;
  /// max_incoming_bytes in packaging/dbus/kova-bus.conf relies on it.
  static constexpr std::size_t kMaxAnswerBytes = std::size_t{512} * 1024;

  Objects() = default;
  virtual ~Objects() = default;
  Objects(const Objects&) = delete;
  Objects& operator=(const Objects&) = delete;

  /// Adds an interface to "/kova", or a folder of objects below it. Allowed only before
  /// Ipc::Init(), so that no client sees the endpoint without them. The object must outlive the
  /// last call of Ipc::Service() and of the functions below, which are its only callers.
  /// @return false after Ipc::Init()
  virtual bool publish(const Interface& interface, PublishedObject* object) = 0;
  virtual bool publish(const std::string& folder, const Interface& interface,
                       PublishedFolder* objects) = 0;

  /// Signals new values of properties (PropertiesChanged), by their indexes in
  /// Interface::properties. Allowed only for properties with `changes`.
  ///
  /// All signal functions return false if not joined, or while the send queue is full because the
  /// bus does not keep up. Nothing is sent then; the caller may retry later.
  virtual bool changed(const PublishedObject& object,
                       const std::vector<std::size_t>& properties) = 0;
  virtual bool changed(const PublishedFolder& objects, std::uint64_t number,
                       const std::vector<std::size_t>& properties) = 0;
  /// Signals a new object (InterfacesAdded, with all properties).
  virtual bool added(const PublishedFolder& objects, std::uint64_t number) = 0;
  /// Signals the removal of an object (InterfacesRemoved).
  virtual bool removed(const PublishedFolder& objects, std::uint64_t number) = 0;
};

}  // namespace kova::ipc
