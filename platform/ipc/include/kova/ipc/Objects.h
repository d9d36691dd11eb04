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
  /// Whether it changes while the object exists. Others are marked as constant.
  bool changes;
};

/// An interface of D-Bus: read-only properties, and methods without arguments and result. Names are
/// not copied; they must outlive the connection.
struct Interface {
  const char* name;
  std::vector<Property> properties;
  std::vector<const char*> methods;
};

/// The error of a method that failed.
struct MethodError {
  std::string name;  ///< D-Bus error name, for example "kova.Error.Ended"; "": it succeeded
  std::string text;  ///< a sentence for a person
};

/// What the object "/kova" shows besides its messages. Called by Ipc::Service() and by
/// Objects::changed(); an exception becomes org.freedesktop.DBus.Error.Failed.
class PublishedObject {
 public:
  PublishedObject() = default;
  virtual ~PublishedObject() = default;
  PublishedObject(const PublishedObject&) = delete;
  PublishedObject& operator=(const PublishedObject&) = delete;

  /// The value of a property, by its place in the interface.
  virtual PropertyValue read(std::size_t property) const = 0;
  /// Performs a method, by its place in the interface.
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
  /// Only called for an object that is there.
  virtual PropertyValue read(std::uint64_t number, std::size_t property) const = 0;
  virtual MethodError call(std::uint64_t number, std::size_t method) = 0;
};

/// The objects that an endpoint shows to any D-Bus client, by the standard interfaces
/// org.freedesktop.DBus.Introspectable, Properties and, on "/kova", ObjectManager (D-Bus
/// specification, "Standard Interfaces"). Who may see them is for the bus policy to say.
///
/// A text is shown as UTF-8: what is not valid becomes "?", and what exceeds kMostTextBytes is cut.
/// An answer of more than kMostAnswerBytes, as to GetManagedObjects for very many objects, is
/// refused with org.freedesktop.DBus.Error.LimitsExceeded; each object can still be read.
class Objects {
 public:
  static constexpr std::size_t kMostTextBytes = 4096;
  /// The bus's max_incoming_bytes counts on it, see packaging/dbus/kova-bus.conf.
  static constexpr std::size_t kMostAnswerBytes = std::size_t{512} * 1024;

  Objects() = default;
  virtual ~Objects() = default;
  Objects(const Objects&) = delete;
  Objects& operator=(const Objects&) = delete;

  /// Adds an interface to "/kova", or a folder of objects below it. Only before Ipc::Init(), so
  /// that no client sees the endpoint without them. What is published must outlive the last call of
  /// Ipc::Service() and of the signals below; nothing else calls it.
  /// @return false after Ipc::Init()
  virtual bool publish(const Interface& interface, PublishedObject* object) = 0;
  virtual bool publish(const std::string& folder, const Interface& interface,
                       PublishedFolder* objects) = 0;

  /// Signals new values of properties (PropertiesChanged), by their places in the interface. Only
  /// those that were published as changing may be named.
  ///
  /// All signals return false if not joined, and if the bus does not keep up, so that they would
  /// pile up in this process: nothing was sent then, and the caller may try again later.
  virtual bool changed(const PublishedObject& object,
                       const std::vector<std::size_t>& properties) = 0;
  virtual bool changed(const PublishedFolder& objects, std::uint64_t number,
                       const std::vector<std::size_t>& properties) = 0;
  /// Signals that an object is there (InterfacesAdded, with all properties).
  virtual bool added(const PublishedFolder& objects, std::uint64_t number) = 0;
  /// Signals that an object is gone (InterfacesRemoved).
  virtual bool removed(const PublishedFolder& objects, std::uint64_t number) = 0;
};

}  // namespace kova::ipc
