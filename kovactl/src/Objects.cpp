#include "Objects.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "BusDiagnosis.h"
#include "Terminal.h"

namespace kova::ctl {
namespace {

// Whether the bus library may have made up the answer, in the name of the bus: after a time-out, or
// because the connection ended.
bool isMadeUp(const Objects::Answer& answer) {
  return !answer.error.empty() &&
         (answer.sender.empty() || answer.sender == "org.freedesktop.DBus");
}

}  // namespace

ExitStatus Objects::open() {
  std::string error;
  if (bus_.open(error)) {
    return ExitStatus::Ok;
  }
  return stopRequested() ? stopStatus()
                         : fail(ExitStatus::Unreachable, explainJoin(options_.host, "", error));
}

ExitStatus Objects::await(const Start& start, Answer& answer, bool patient) {
  constexpr unsigned kSliceMs = 100;  // upper bound of the delay of a stop signal
  // Shared: the callback may run after a stop signal has ended this wait.
  const auto received = std::make_shared<std::optional<Answer>>();
  if (!start([received](const Answer& arrived) { *received = arrived; })) {
    return fail(ExitStatus::Unreachable, "cannot ask the camera");
  }
  bool connected = true;
  while (!received->has_value() && connected) {
    if (!patient && stopRequested()) {
      return stopStatus();
    }
    connected = bus_.Service(kSliceMs);
  }
  // A made-up answer on a dead connection means that the connection was lost.
  if (!received->has_value() || (isMadeUp(**received) && !bus_.Service(0))) {
    return !patient && stopRequested()
               ? stopStatus()
               : fail(ExitStatus::Unreachable, "the connection to the bus was lost");
  }
  answer = received->value();
  return ExitStatus::Ok;
}

ExitStatus Objects::readTransfers(std::vector<TransferRecord>& records, Answer& answer) {
  const ExitStatus asked = await(
      [this](auto receive) { return bus_.readAll(options_.answerTimeoutMs(), std::move(receive)); },
      answer, false);
  records = transferRecords(answer.value);
  return asked;
}

ExitStatus Objects::read(const std::string& path, const std::string& interface, Answer& answer) {
  return await(
      [&](auto receive) {
        return bus_.read(path, interface, options_.answerTimeoutMs(), std::move(receive));
      },
      answer, false);
}

ExitStatus Objects::call(const std::string& path, const std::string& interface,
                         const std::string& method, Answer& answer, bool patient) {
  return await(
      [&](auto receive) {
        return bus_.call(path, interface, method, options_.answerTimeoutMs(), std::move(receive));
      },
      answer, patient);
}

bool isUnknown(const Objects::Answer& answer) {
  constexpr std::string_view kUnknown[] = {
      "org.freedesktop.DBus.Error.UnknownMethod",
      "org.freedesktop.DBus.Error.UnknownObject",
      "org.freedesktop.DBus.Error.UnknownInterface",
  };
  return std::ranges::find(kUnknown, answer.error) != std::end(kUnknown);
}

ExitStatus reportFailure(const Objects::Answer& answer, const std::string& what,
                         const std::string& host) {
  const ExitStatus status = exitForError(answer.error);
  const bool denied = answer.error == "org.freedesktop.DBus.Error.AccessDenied";
  const std::string advice = denied ? explainDenial(host) : "";
  if (!advice.empty()) {
    return fail(status, advice);
  }
  if (status == ExitStatus::Unreachable && !denied) {
    return fail(status, absence(kServer));
  }
  return fail(status, isUnknown(answer)
                          ? "the control server of this camera is too old to give " + what
                          : "cannot get " + what + ": " + answer.text + " (" + answer.error + ")");
}

}  // namespace kova::ctl
