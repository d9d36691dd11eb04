#include "ObjectServer.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "BusText.h"
#include "Outgoing.h"
#include "Protocol.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Parsing.h"
#include "kova/utils/Utf8.h"

namespace kova::ipc {
namespace {

constexpr char kLogIdentity[] = "kova_ipc";
constexpr char kLogUnit[] = "ObjectServer";

// Marshalled size of a property besides its text: name, type, padding and a share of the object's
// path and interfaces. An estimate.
constexpr std::size_t kPropertyBytes = 64;
// Estimated size of the send queue beyond which signals are refused.
constexpr std::size_t kMaxQueuedBytes = std::size_t{8} * 1024 * 1024;

int refuseTooMany(sd_bus_error* error) {
  return sd_bus_error_set_const(error, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                "too many objects for one answer");
}

/// Runs a callback of sd-bus; a failure that sets no error, and an exception, become
/// org.freedesktop.DBus.Error.Failed.
template <typename Function>
int answering(const char* where, sd_bus_error* error, Function&& function) noexcept {
  const int result = guarded(where, -EIO, std::forward<Function>(function));
  return result >= 0 || sd_bus_error_is_set(error) != 0 ? result : failed(error);
}

const char* typeOf(const PropertyValue& value) {
  static constexpr const char* kTypes[] = {"b", "q", "t", "s", "(ts)"};
  static_assert(std::size(kTypes) == std::variant_size_v<PropertyValue>);
  return kTypes[value.index()];
}

struct Appender {
  sd_bus_message* reply;

  int operator()(bool flag) const {
    const int value = flag ? 1 : 0;
    return sd_bus_message_append_basic(reply, 'b', &value);
  }
  int operator()(std::uint16_t number) const {
    return sd_bus_message_append_basic(reply, 'q', &number);
  }
  int operator()(std::uint64_t number) const {
    return sd_bus_message_append_basic(reply, 't', &number);
  }
  int operator()(const std::string& text) const {
    return sd_bus_message_append_basic(reply, 's', text.c_str());
  }
  int operator()(const Moment& moment) const {
    return sd_bus_message_append(reply, "(ts)", moment.timeUs, moment.what.c_str());
  }
};

/// Repairs the text of a value, if it has one; returns the length of the text.
std::size_t repairText(PropertyValue& value) {
  std::string* text = std::get_if<std::string>(&value);
  if (Moment* moment = std::get_if<Moment>(&value)) {
    text = &moment->what;
  }
  if (text == nullptr) {
    return 0;
  }
  *text = shownText(*text, Objects::kMaxTextBytes);
  return text->size();
}

template <typename Row, typename NameOf>
std::size_t placeOf(const std::vector<Row>& rows, std::string_view name, NameOf nameOf) {
  const auto found =
      std::find_if(rows.begin(), rows.end(), [&](const Row& row) { return name == nameOf(row); });
  return static_cast<std::size_t>(found - rows.begin());
}

}  // namespace

std::uint64_t objectNumber(const std::string& folder, const char* path) {
  std::string_view rest(path);
  if (!rest.starts_with(folder)) {
    return 0;
  }
  rest.remove_prefix(folder.size());
  std::uint64_t number = 0;
  if (rest.starts_with('/') && !rest.starts_with("/0")) {
    utils::parseNumber(rest.substr(1), number);
  }
  return number;
}

std::string shownText(const std::string& text, std::size_t most) {
  if (text.size() <= most && isBusText(text)) {
    return text;
  }
  std::string shown;
  std::string_view rest(text);
  while (!rest.empty()) {
    char32_t code{};
    const std::size_t length = utils::decodeUtf8(rest, code);
    const bool valid = length != 0 && isBusCharacter(code);
    const std::string_view taken = valid ? rest.substr(0, length) : "?";
    if (shown.size() + taken.size() > most) {
      break;
    }
    shown.append(taken);
    rest.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return shown;
}

bool ObjectServer::publish(const Interface& interface, PublishedObject* object) {
  return add({*this, interface, kObjectPath, object, nullptr});
}

bool ObjectServer::publish(const std::string& folder, const Interface& interface,
                           PublishedFolder* objects) {
  return add({*this, interface, std::string(kObjectPath) + "/" + folder, nullptr, objects});
}

bool ObjectServer::add(Publication publication) {
  if (bus_ != nullptr) {
    KOVA_LOG(LOG_ERR, 0, "Unable to publish \"%s\": already joined", publication.interface.name);
    return false;
  }
  publication.table = tableOf(publication.interface);
  publications_.push_back(std::move(publication));
  return true;
}

std::vector<sd_bus_vtable> ObjectServer::tableOf(const Interface& interface) {
  const sd_bus_vtable start = SD_BUS_VTABLE_START(0);
  const sd_bus_vtable end = SD_BUS_VTABLE_END;
  std::vector<sd_bus_vtable> table{start};
  for (const char* method : interface.methods) {
    const sd_bus_vtable row = SD_BUS_METHOD(method, "", "", onCall, SD_BUS_VTABLE_UNPRIVILEGED);
    table.push_back(row);
  }
  for (const Property& property : interface.properties) {
    const sd_bus_vtable row = SD_BUS_PROPERTY(
        property.name, property.type, onRead, 0,
        property.changes ? SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE : SD_BUS_VTABLE_PROPERTY_CONST);
    table.push_back(row);
  }
  table.push_back(end);
  return table;
}

int ObjectServer::registerAt(Publication& publication) {
  const char* path = publication.path.c_str();
  const char* name = publication.interface.name;
  const sd_bus_vtable* table = publication.table.data();
  if (publication.object != nullptr) {
    return sd_bus_add_object_vtable(bus_, nullptr, path, name, table, &publication);
  }
  // A single fallback vtable serves all objects of a folder, so objects cost no memory here.
  const int result =
      sd_bus_add_fallback_vtable(bus_, nullptr, path, name, table, onFind, &publication);
  return result >= 0 ? sd_bus_add_node_enumerator(bus_, nullptr, path, onList, &publication)
                     : result;
}

bool ObjectServer::serve(sd_bus* bus, std::string& error) {
  bus_ = bus;
  if (publications_.empty()) {
    return true;
  }
  int result = sd_bus_add_object_manager(bus, nullptr, kObjectPath);
  for (auto one = publications_.begin(); one != publications_.end() && result >= 0; ++one) {
    result = registerAt(*one);
  }
  return succeeded(result, "Unable to publish objects", error);
}

// --- callbacks from sd-bus -----------------------------------------------------------------------

int ObjectServer::onFind(sd_bus*, const char* path, const char*, void* publication, void** found,
                         sd_bus_error* error) noexcept {
  return answering(__func__, error, [&] {
    const auto& self = *static_cast<Publication*>(publication);
    *found = publication;
    return self.folder->has(objectNumber(self.path, path)) ? 1 : 0;
  });
}

int ObjectServer::onList(sd_bus*, const char*, void* publication, char*** paths,
                         sd_bus_error* error) noexcept {
  return answering(__func__, error, [&] {
    const auto& self = *static_cast<Publication*>(publication);
    return self.server.list(self, paths, error);
  });
}

int ObjectServer::onRead(sd_bus*, const char* path, const char*, const char* property,
                         sd_bus_message* reply, void* publication, sd_bus_error* error) noexcept {
  return answering(__func__, error, [&] {
    const auto& self = *static_cast<Publication*>(publication);
    return self.server.read(self, path, property, reply, error);
  });
}

int ObjectServer::onCall(sd_bus_message* call, void* publication, sd_bus_error* error) noexcept {
  return answering(__func__, error,
                   [&] { return handle(*static_cast<Publication*>(publication), call, error); });
}

// Counts bytes that are about to be marshalled. False if the answer exceeds its limit.
bool ObjectServer::charge(std::size_t bytes) {
  answerBytes_ += bytes;
  unsentBytes_ += bytes;
  return answerBytes_ <= kMaxAnswerBytes;
}

std::size_t ObjectServer::unsentBytes() {
  if (unsentMessages(bus_) == 0) {
    unsentBytes_ = 0;
  }
  return unsentBytes_;
}

// sd-bus frees the list and its texts.
int ObjectServer::list(const Publication& publication, char*** paths, sd_bus_error* error) {
  const std::vector<std::uint64_t> numbers = publication.folder->numbers();
  if (!charge(numbers.size() * kPropertyBytes)) {
    return refuseTooMany(error);
  }
  auto** list = static_cast<char**>(std::calloc(numbers.size() + 1, sizeof(char*)));
  if (list == nullptr) {
    return -ENOMEM;
  }
  std::size_t count = 0;
  for (const std::uint64_t number : numbers) {
    const std::string path = publication.path + "/" + std::to_string(number);
    list[count] = strdup(path.c_str());
    if (list[count++] == nullptr) {
      break;
    }
  }
  *paths = list;
  return 0;
}

int ObjectServer::read(const Publication& publication, const char* path, const char* property,
                       sd_bus_message* reply, sd_bus_error* error) {
  const auto& rows = publication.interface.properties;
  const std::size_t place = placeOf(rows, property, [](const Property& row) { return row.name; });
  PropertyValue value = publication.folder != nullptr
                            ? publication.folder->read(objectNumber(publication.path, path), place)
                            : publication.object->read(place);
  if (!charge(kPropertyBytes + repairText(value))) {
    return refuseTooMany(error);
  }
  if (std::string_view(rows[place].type) != typeOf(value)) {
    KOVA_LOG(LOG_ERR, 0, "Property \"%s\" has a different type than declared", property);
    return -EINVAL;
  }
  return std::visit(Appender{reply}, value);
}

int ObjectServer::handle(const Publication& publication, sd_bus_message* call,
                         sd_bus_error* error) {
  const std::size_t place = placeOf(publication.interface.methods, sd_bus_message_get_member(call),
                                    [](const char* name) { return name; });
  const MethodError failure =
      publication.folder == nullptr
          ? publication.object->call(place)
          : publication.folder->call(objectNumber(publication.path, sd_bus_message_get_path(call)),
                                     place);
  if (!failure.name.empty()) {
    return sd_bus_error_set(error, failure.name.c_str(),
                            shownText(failure.text, kMaxTextBytes).c_str());
  }
  return sd_bus_reply_method_return(call, "");
}

// --- signals -------------------------------------------------------------------------------------

template <typename Published>
const ObjectServer::Publication* ObjectServer::find(const Published& published) const {
  const auto found = std::find_if(publications_.begin(), publications_.end(), [&](auto& one) {
    if constexpr (std::is_same_v<Published, PublishedObject>) {
      return one.object == &published;
    } else {
      return one.folder == &published;
    }
  });
  return found != publications_.end() ? &*found : nullptr;
}

bool ObjectServer::canSignal() {
  return bus_ != nullptr && unsentMessages(bus_) < Outgoing::kMaxUnsentSignals &&
         unsentBytes() <= kMaxQueuedBytes;
}

// Returns true even on failure: errors that canSignal() does not cover would recur on retry.
bool ObjectServer::signalled(const char* what, const std::string& path, int result) const {
  if (result < 0) {
    KOVA_LOG(LOG_WARNING, -result, "Unable to signal %s of %s", what, path.c_str());
  }
  return true;
}

bool ObjectServer::emitChanged(const Publication& publication, const std::string& path,
                               const std::vector<std::size_t>& properties) {
  if (!canSignal()) {
    return false;
  }
  const auto nameOf = [&](std::size_t place) {
    return const_cast<char*>(publication.interface.properties.at(place).name);
  };
  std::vector<char*> names(properties.size() + 1);  // the last is null
  std::transform(properties.begin(), properties.end(), names.begin(), nameOf);
  beginMessage();
  return signalled("a change", path,
                   sd_bus_emit_properties_changed_strv(bus_, path.c_str(),
                                                       publication.interface.name, names.data()));
}

bool ObjectServer::changed(const PublishedObject& object,
                           const std::vector<std::size_t>& properties) {
  return guarded(__func__, [&] {
    const Publication* found = find(object);
    return found != nullptr && emitChanged(*found, found->path, properties);
  });
}

bool ObjectServer::changed(const PublishedFolder& objects, std::uint64_t number,
                           const std::vector<std::size_t>& properties) {
  return guarded(__func__, [&] {
    const Publication* found = find(objects);
    return found != nullptr &&
           emitChanged(*found, found->path + "/" + std::to_string(number), properties);
  });
}

bool ObjectServer::added(const PublishedFolder& objects, std::uint64_t number) {
  return guarded(__func__, [&] {
    const Publication* found = find(objects);
    if (found == nullptr || !canSignal()) {
      return false;
    }
    const std::string path = found->path + "/" + std::to_string(number);
    beginMessage();
    return signalled("the arrival", path, sd_bus_emit_object_added(bus_, path.c_str()));
  });
}

bool ObjectServer::removed(const PublishedFolder& objects, std::uint64_t number) {
  return guarded(__func__, [&] {
    const Publication* found = find(objects);
    if (found == nullptr || !canSignal()) {
      return false;
    }
    // Lists the interfaces that sd_bus_emit_object_added() announces. sd-bus could not find them
    // itself, since the object is gone already.
    const std::string path = found->path + "/" + std::to_string(number);
    return signalled("the removal", path,
                     sd_bus_emit_interfaces_removed(bus_, path.c_str(), "org.freedesktop.DBus.Peer",
                                                    "org.freedesktop.DBus.Introspectable",
                                                    "org.freedesktop.DBus.Properties",
                                                    found->interface.name, nullptr));
  });
}

}  // namespace kova::ipc
