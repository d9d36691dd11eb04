#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ExitStatus.h"
#include "Options.h"
#include "TransferRecord.h"
#include "kova/ipc/BusObjects.h"

namespace kova::ctl {

/// The objects of the control server: its transfers and its description of the camera. Each call
/// waits for its answer, at most for the time-out of the options. If none arrives, that is reported
/// as by Client.
class Objects {
 public:
  using Answer = ipc::BusObjects::Answer;

  explicit Objects(const Options& options) : options_(options) {}

  ExitStatus open();
  /// Reads the transfers, in the order of their numbers.
  /// @return Ok if an answer arrived, which may be an error
  ExitStatus readTransfers(std::vector<TransferRecord>& records, Answer& answer);
  ExitStatus read(const std::string& path, const std::string& interface, Answer& answer);
  /// @param patient whether to keep waiting after a stop signal
  ExitStatus call(const std::string& path, const std::string& interface, const std::string& method,
                  Answer& answer, bool patient = false);

  ipc::BusObjects& bus() { return bus_; }
  /// The remote camera, "" for the local machine.
  const std::string& host() const { return options_.host; }

 private:
  using Start = std::function<bool(ipc::BusObjects::Receiver)>;
  ExitStatus await(const Start& start, Answer& answer, bool patient);

  const Options& options_;
  ipc::BusObjects bus_{kServer};
};

/// Whether the error says that there is no such object, interface or method.
bool isUnknown(const Objects::Answer& answer);

/// Reports an error in an answer.
/// @param what names what could not be read, for example "the list of transfers"
/// @param host that of the options; "" for this machine
ExitStatus reportFailure(const Objects::Answer& answer, const std::string& what,
                         const std::string& host = "");

}  // namespace kova::ctl
