#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "SdBus.h"
#include "kova/ipc/Objects.h"

namespace kova::ipc {

/// Implements Objects with sd-bus vtables, which do the introspection and the marshalling.
class ObjectServer : public Objects {
 public:
  bool publish(const Interface& interface, PublishedObject* object) override;
  bool publish(const std::string& folder, const Interface& interface,
               PublishedFolder* objects) override;
  bool changed(const PublishedObject& object, const std::vector<std::size_t>& properties) override;
  bool changed(const PublishedFolder& objects, std::uint64_t number,
               const std::vector<std::size_t>& properties) override;
  bool added(const PublishedFolder& objects, std::uint64_t number) override;
  bool removed(const PublishedFolder& objects, std::uint64_t number) override;

  /// Starts serving the published objects; call it once, before the name is owned. `bus` must not
  /// be processed after leave() or the destruction of this object. Registers nothing if nothing was
  /// published.
  bool serve(sd_bus* bus, std::string& error);
  void leave() { bus_ = nullptr; }

  /// Resets the count of answer bytes. Call it before each message is processed.
  void beginMessage() { answerBytes_ = 0; }
  /// Estimate of the bytes marshalled since the send queue was last empty.
  std::size_t unsentBytes();

 private:
  /// An interface, the object or folder that implements it, and its vtable.
  struct Publication {
    ObjectServer& server;
    Interface interface;
    std::string path;  ///< of the object, or of the folder
    PublishedObject* object = nullptr;
    PublishedFolder* folder = nullptr;
    std::vector<sd_bus_vtable> table{};
  };

  static std::vector<sd_bus_vtable> tableOf(const Interface& interface);
  static int onFind(sd_bus* bus, const char* path, const char* interface, void* publication,
                    void** found, sd_bus_error* error) noexcept;
  static int onList(sd_bus* bus, const char* prefix, void* publication, char*** paths,
                    sd_bus_error* error) noexcept;
  static int onRead(sd_bus* bus, const char* path, const char* interface, const char* property,
                    sd_bus_message* reply, void* publication, sd_bus_error* error) noexcept;
  static int onCall(sd_bus_message* call, void* publication, sd_bus_error* error) noexcept;

  bool add(Publication publication);
  int registerAt(Publication& publication);
  int list(const Publication& publication, char*** paths, sd_bus_error* error);
  int read(const Publication& publication, const char* path, const char* property,
           sd_bus_message* reply, sd_bus_error* error);
  static int handle(const Publication& publication, sd_bus_message* call, sd_bus_error* error);
  bool charge(std::size_t bytes);

  template <typename Published>
  const Publication* find(const Published& published) const;
  bool canSignal();
  bool signalled(const char* what, const std::string& path, int result) const;
  bool emitChanged(const Publication& publication, const std::string& path,
                   const std::vector<std::size_t>& properties);

  std::list<Publication> publications_;  ///< a list, since sd-bus keeps pointers to its elements
  sd_bus* bus_ = nullptr;
  std::size_t answerBytes_ = 0;
  std::size_t unsentBytes_ = 0;
};

/// The number of an object "FOLDER/NUMBER": decimal, from 1, without leading zeros.
/// @return 0 for any other path
std::uint64_t objectNumber(const std::string& folder, const char* path);

/// `text` as a D-Bus string of at most `most` bytes, see Objects.
std::string shownText(const std::string& text, std::size_t most);

}  // namespace kova::ipc
