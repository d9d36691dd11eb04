#include "BusNames.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "Protocol.h"
#include "kova/utils/Handle.h"

namespace kova::ipc {
namespace {

// Limited to the system's namespace, so that clients without a name cause no wake-ups.
constexpr char kMatch[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0namespace='kova'";

}  // namespace

std::string endpointOf(const char* busName) {
  constexpr std::string_view kPrefix(kNamePrefix);
  const std::string_view name(busName != nullptr ? busName : "");
  return name.starts_with(kPrefix) ? std::string(name.substr(kPrefix.size())) : std::string();
}

bool listEndpoints(sd_bus* bus, std::set<std::string>& endpoints, std::string& error) {
  char** listed = nullptr;
  const int result = sd_bus_list_names(bus, &listed, nullptr);
  using Text = utils::Handle<char, std::free>;
  const utils::Handle<char*, std::free> list(listed);
  std::vector<Text> owned;
  for (char** name = listed; name != nullptr && *name != nullptr; ++name) {
    owned.emplace_back(*name);
  }
  for (const auto& name : owned) {
    if (std::string endpoint = endpointOf(name.get()); !endpoint.empty()) {
      endpoints.insert(std::move(endpoint));
    }
  }
  return succeeded(result, "Unable to list the names on the bus", error);
}

bool readOwnerChange(sd_bus_message* signal, const char*& name, const char*& owner) {
  const char* before = nullptr;
  return sd_bus_message_read(signal, "sss", &name, &before, &owner) > 0;
}

bool PresentEndpoints::watch(sd_bus* bus, std::string& error) {
  // Subscribe before listing: a name that appears in between is seen twice rather than missed.
  bus_ = bus;
  const int result =
      sd_bus_add_match(bus, nullptr, kMatch, callback<&PresentEndpoints::onOwnerChanged>, this);
  return succeeded(result, "Unable to follow the names on the bus", error) &&
         listEndpoints(bus, present_, error);
}

int PresentEndpoints::onOwnerChanged(sd_bus_message* signal, sd_bus_error*) {
  const char* name = nullptr;
  const char* owner = nullptr;
  if (!readOwnerChange(signal, name, owner)) {
    return 0;
  }
  if (*owner == '\0') {
    present_.erase(endpointOf(name));
  } else {
    add(endpointOf(name));
  }
  return 0;
}

void PresentEndpoints::add(const std::string& endpoint) {
  if (present_.insert(endpoint).second) {
    appeared_(endpoint);
  }
}

void PresentEndpoints::verify(const std::string& endpoint) {
  const bool isAsked =
      std::ranges::find(questions_, endpoint, &Question::endpoint) != questions_.end();
  if (isAsked || questions_.size() >= kMaxQuestions) {
    return;
  }
  const auto question = questions_.insert(questions_.end(), Question{*this, endpoint});
  question->self = question;
  const int result = sd_bus_call_method_async(bus_, nullptr, "org.freedesktop.DBus",
                                              "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                              "NameHasOwner", callback<&Question::onAnswer>,
                                              &*question, "s", (kNamePrefix + endpoint).c_str());
  if (result < 0) {
    questions_.erase(question);
  }
}

int PresentEndpoints::Question::onAnswer(sd_bus_message* answer, sd_bus_error*) {
  // Unlink the question first: verify() may ask again, and add() runs callbacks that change the
  // list. `done` destroys it on return.
  std::list<Question> done;
  done.splice(done.begin(), owner.questions_, self);
  int isPresent{};
  if (sd_bus_message_is_method_error(answer, SD_BUS_ERROR_NO_REPLY) > 0) {
    owner.verify(endpoint);  // dropped: our queue on the bus was full
  } else if (sd_bus_message_is_method_error(answer, nullptr) == 0 &&
             sd_bus_message_read(answer, "b", &isPresent) >= 0 && isPresent != 0) {
    owner.add(endpoint);
  }
  return 1;
}

}  // namespace kova::ipc
