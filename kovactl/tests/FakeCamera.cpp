#include "FakeCamera.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <string_view>
#include <utility>

#include "../../platform/ipc/src/Wire.h"

namespace kova::ctl::testing {
namespace {

using variant::Variant;

template <typename Value>
Value valueOf(const FakeCamera::Properties& properties, const char* name) {
  const auto found = properties.find(name);
  return found != properties.end() && std::holds_alternative<Value>(found->second)
             ? std::get<Value>(found->second)
             : Value();
}

int append(sd_bus_message* reply, const FakeCamera::Properties& properties, const char* name,
           std::string_view type) {
  const auto number = valueOf<std::uint64_t>(properties, name);
  if (type == "t") {
    return sd_bus_message_append(reply, "t", number);
  }
  if (type == "q" || type == "b") {
    return sd_bus_message_append(reply, type.data(), static_cast<int>(number));
  }
  if (type == "(ts)") {
    return sd_bus_message_append(reply, "(ts)", number, number != 0 ? "ok" : "");
  }
  return sd_bus_message_append(reply, "s", valueOf<std::string>(properties, name).c_str());
}

std::string_view typeOf(std::string_view name) {
  if (name == "RequestId" || name == "Transferred" || name == "Size" || name == "Started" ||
      name == "Ended") {
    return "t";
  }
  if (name.ends_with("Pending") || name == "ButtonReadable") {
    return "b";
  }
  return name == "HttpStatus" ? "q" : name == "LastSave" ? "(ts)" : "s";
}

std::string pathOf(const std::string& number) {
  return "/kova/transfers/" + number;
}

}  // namespace

int FakeCamera::readTransfer(sd_bus*, const char*, const char*, const char* name,
                             sd_bus_message* reply, void* transfer, sd_bus_error* error) {
  FakeCamera& camera = *static_cast<Transfer*>(transfer)->camera;
  if (const auto action = std::exchange(camera.manner_.beforeRead, nullptr)) {
    action();
  }
  const std::string& denial = camera.manner_.readError;
  if (!denial.empty()) {
    return sd_bus_error_set(error, denial.c_str(), "no answer to this");
  }
  return append(reply, static_cast<Transfer*>(transfer)->properties, name, typeOf(name));
}

int FakeCamera::readDevice(sd_bus*, const char*, const char*, const char* name,
                           sd_bus_message* reply, void* camera, sd_bus_error* error) {
  const std::string& denial = static_cast<FakeCamera*>(camera)->manner_.readError;
  if (!denial.empty() && static_cast<FakeCamera*>(camera)->transfers_.empty()) {
    return sd_bus_error_set(error, denial.c_str(), "no answer to this");
  }
  return append(reply, static_cast<FakeCamera*>(camera)->device_, name, typeOf(name));
}

const sd_bus_vtable* FakeCamera::ipcTable() {
  static const sd_bus_vtable table[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("Send", "a{sv}", "a{sv}", ipc::callback<&FakeCamera::onSend>,
                    SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END,
  };
  return table;
}

const sd_bus_vtable* FakeCamera::transferTable() {
  constexpr auto kChanges = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
  static const sd_bus_vtable table[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("Cancel", "", "", ipc::callback<&Transfer::onCancel>,
                    SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_PROPERTY("RequestId", "t", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Requester", "s", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Kind", "s", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Direction", "s", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Uri", "s", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("File", "s", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Phase", "s", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Transferred", "t", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Size", "t", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Started", "t", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Ended", "t", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("HttpStatus", "q", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Outcome", "s", readTransfer, 0, kChanges),
      SD_BUS_PROPERTY("Reason", "s", readTransfer, 0, kChanges),
      SD_BUS_VTABLE_END,
  };
  return table;
}

const sd_bus_vtable* FakeCamera::deviceTable() {
  static const sd_bus_vtable table[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_PROPERTY("Model", "s", readDevice, 0, 0),
      SD_BUS_PROPERTY("SysId", "s", readDevice, 0, 0),
      SD_BUS_PROPERTY("Name", "s", readDevice, 0, 0),
      SD_BUS_PROPERTY("FirmwareVersion", "s", readDevice, 0, 0),
      SD_BUS_PROPERTY("DaemonVersion", "s", readDevice, 0, 0),
      SD_BUS_PROPERTY("BootId", "s", readDevice, 0, 0),
      SD_BUS_PROPERTY("SavePending", "b", readDevice, 0, 0),
      SD_BUS_PROPERTY("ResetPending", "b", readDevice, 0, 0),
      SD_BUS_PROPERTY("LastSave", "(ts)", readDevice, 0, 0),
      SD_BUS_PROPERTY("ButtonReadable", "b", readDevice, 0, 0),
      SD_BUS_VTABLE_END,
  };
  return table;
}

FakeCamera::FakeCamera(Script script) : script_(std::move(script)) {
  std::string error;
  bus_ = ipc::openBus(false, error);
  EXPECT_NE(bus_, nullptr) << error;
  sd_bus_slot* slot = nullptr;
  EXPECT_GE(sd_bus_add_object_manager(bus_.get(), &slot, "/kova"), 0);
  slots_.emplace_back(slot);
  EXPECT_GE(sd_bus_add_object_vtable(bus_.get(), &slot, "/kova", "kova.Ipc1", ipcTable(), this), 0);
  slots_.emplace_back(slot);
  EXPECT_GE(
      sd_bus_add_object_vtable(bus_.get(), &slot, "/kova", "kova.Device1", deviceTable(), this), 0);
  slots_.emplace_back(slot);
  EXPECT_GE(sd_bus_request_name(bus_.get(), "kova.kova_ctlserver", 0), 0);
  thread_ = std::thread([this] { serve(); });
}

FakeCamera::~FakeCamera() {
  stop_ = true;
  thread_.join();
  transfers_.clear();
  slots_.clear();
}

void FakeCamera::serve() {
  while (!stop_) {
    {
      const auto locked = lock();
      while (sd_bus_process(bus_.get(), nullptr) > 0) {
      }
      sd_bus_flush(bus_.get());
    }
    pollfd socket{sd_bus_get_fd(bus_.get()), POLLIN, 0};
    poll(&socket, 1, 5);
  }
}

int FakeCamera::onSend(sd_bus_message* call, sd_bus_error*) {
  std::string reason;
  EXPECT_TRUE(ipc::wire::decode(call, request_, reason)) << reason;
  if (script_) {
    script_(*this, request_);
  }
  Variant answer = manner_.answer.isEmpty() ? Variant::Map{} : manner_.answer;
  if (request_["functionName"] == Variant("GetSystemStats")) {
    answer = Variant::Map{{"functionName", "__response__"},
                          {"requestId", request_["id"]},
                          {"statusCode", manner_.statisticsStatus},
                          {"payload", Variant::Map{{"uptime", Variant::Map{{"sec", 61}}}}}};
  }
  sd_bus_message* created = nullptr;
  EXPECT_GE(sd_bus_message_new_method_return(call, &created), 0);
  const ipc::MessagePtr reply(created);
  EXPECT_TRUE(ipc::wire::encode(answer, created, reason)) << reason;
  return sd_bus_send(nullptr, created, nullptr);
}

int FakeCamera::Transfer::onCancel(sd_bus_message* call, sd_bus_error*) {
  const std::string& refusal = camera->manner_.cancelRefusal;
  if (!refusal.empty()) {
    return sd_bus_reply_method_errorf(call, "kova.Error.NotCancellable", "%s", refusal.c_str());
  }
  camera->cancelled_.push_back(number);
  camera->change(number, {{"Phase", "ended"}, {"Outcome", "CANCELLED"}});
  return sd_bus_reply_method_return(call, "");
}

void FakeCamera::publish(const std::string& number, const Properties& properties) {
  const auto locked = lock();
  if (transfers_.contains(number)) {
    forget(number);
  }
  auto transfer = std::make_unique<Transfer>();
  transfer->camera = this;
  transfer->number = number;
  transfer->properties = properties;
  sd_bus_slot* slot = nullptr;
  EXPECT_GE(sd_bus_add_object_vtable(bus_.get(), &slot, pathOf(number).c_str(), "kova.Transfer1",
                                     transferTable(), transfer.get()),
            0);
  transfer->slot.reset(slot);
  transfers_[number] = std::move(transfer);
  // Fails while reads are refused; the object exists nevertheless.
  const int told = sd_bus_emit_object_added(bus_.get(), pathOf(number).c_str());
  EXPECT_TRUE(told >= 0 || !manner_.readError.empty()) << told;
}

void FakeCamera::change(const std::string& number, const Properties& properties) {
  const auto locked = lock();
  std::vector<std::string> names;
  for (const auto& [name, value] : properties) {
    transfers_.at(number)->properties[name] = value;
    names.push_back(name);
  }
  std::vector<char*> changed;
  for (std::string& name : names) {
    changed.push_back(name.data());
  }
  changed.push_back(nullptr);
  EXPECT_GE(sd_bus_emit_properties_changed_strv(bus_.get(), pathOf(number).c_str(),
                                                "kova.Transfer1", changed.data()),
            0);
}

void FakeCamera::finalise(const std::string& number, int milliseconds) {
  const auto locked = lock();
  change(number, {{"Phase", "finalising"}});
  EXPECT_GE(sd_bus_flush(bus_.get()), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  change(number, {{"Phase", "ended"}, {"Outcome", "OK"}});
}

void FakeCamera::forget(const std::string& number) {
  const auto locked = lock();
  EXPECT_GE(sd_bus_emit_object_removed(bus_.get(), pathOf(number).c_str()), 0);
  transfers_.erase(number);
}

void FakeCamera::tell(const std::string& name, const Properties::mapped_type& value) {
  const auto locked = lock();
  device_[name] = value;
}

void FakeCamera::behave(const Manner& manner) {
  const auto locked = lock();
  manner_ = manner;
}

std::vector<std::string> FakeCamera::cancelled() const {
  const auto locked = lock();
  return cancelled_;
}

Variant FakeCamera::lastRequest() const {
  const auto locked = lock();
  return request_;
}

}  // namespace kova::ctl::testing
