#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "../../platform/ipc/src/SdBus.h"
#include "kova/variant/Variant.h"

namespace kova::ctl::testing {

/// A control server that publishes its transfers and its description, on a separate thread. It
/// accepts every request and answers GetSystemStats.
class FakeCamera {
 public:
  /// The values of properties; numbers are sent with the types of the interface.
  using Properties = std::map<std::string, std::variant<std::string, std::uint64_t>>;
  /// Called with each request on the camera's thread; may publish and change transfers.
  using Script = std::function<void(FakeCamera& camera, const variant::Variant& request)>;

  explicit FakeCamera(Script script = {});
  ~FakeCamera();
  FakeCamera(const FakeCamera&) = delete;
  FakeCamera& operator=(const FakeCamera&) = delete;

  /// Publishes a transfer, replacing one with this number; properties not given are "" or 0.
  void publish(const std::string& number, const Properties& properties);
  /// Changes properties and signals that.
  void change(const std::string& number, const Properties& properties);
  /// Signals "finalising", blocks for this long as if a tool ran, and ends with OK.
  void finalise(const std::string& number, int milliseconds);
  /// Removes a transfer and signals that.
  void forget(const std::string& number);
  /// Sets a property of the camera; "LastSave" is the time, and its outcome is "ok".
  void tell(const std::string& name, const Properties::mapped_type& value);

  struct Manner {
    /// The text of the error that answers cancellations, if not empty.
    std::string cancelRefusal = {};
    /// The error that answers reads of the transfers' properties or, without transfers, of its own.
    std::string readError = {};
    /// Called once, on the camera's thread, before the next property of a transfer is read.
    std::function<void()> beforeRead = {};
    /// Answers every request, if not empty.
    variant::Variant answer = {};
    std::uint64_t statisticsStatus = 0;
  };
  /// Behaves like this from now on.
  void behave(const Manner& manner);

  /// The numbers of the transfers that were cancelled.
  std::vector<std::string> cancelled() const;
  variant::Variant lastRequest() const;

 private:
  struct Transfer {
    FakeCamera* camera = nullptr;
    std::string number;
    Properties properties;
    ipc::SlotPtr slot;
    int onCancel(sd_bus_message* call, sd_bus_error* error);
  };

  void serve();
  int onSend(sd_bus_message* call, sd_bus_error* error);
  std::unique_lock<std::recursive_mutex> lock() const { return std::unique_lock(mutex_); }
  static int readTransfer(sd_bus* bus, const char* path, const char* interface, const char* name,
                          sd_bus_message* reply, void* transfer, sd_bus_error* error);
  static int readDevice(sd_bus* bus, const char* path, const char* interface, const char* name,
                        sd_bus_message* reply, void* camera, sd_bus_error* error);
  static const sd_bus_vtable* ipcTable();
  static const sd_bus_vtable* transferTable();
  static const sd_bus_vtable* deviceTable();

  Script script_;
  mutable std::recursive_mutex mutex_;  // of the connection and of all below
  ipc::BusPtr bus_;
  std::vector<ipc::SlotPtr> slots_;
  std::map<std::string, std::unique_ptr<Transfer>> transfers_;
  Properties device_;
  Manner manner_;
  std::vector<std::string> cancelled_;
  variant::Variant request_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace kova::ctl::testing
