#include "Objects.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "BusDiagnosis.h"
#include "Terminal.h"

namespace kova::ctl {

ExitStatus Objects::Open() {
  std::string error;
  if (bus_.Open(error)) {
    return ExitStatus::Ok;
  }
  return stopRequested() ? stopStatus()
                         : fail(ExitStatus::Unreachable, explainJoin(options_.host, "", error));
}

ExitStatus Objects::Await(const Start& start, Answer& answer, bool patient) {
  constexpr unsigned kSliceMs = 100;  // the delay until a stop signal is noticed
  // Shared, since a stop signal ends the wait before the answer.
  const auto received = std::make_shared<std::optional<Answer>>();
  if (!start([received](const Answer& arrived) { *received = arrived; })) {
    return fail(ExitStatus::Unreachable, "cannot ask the camera");
  }
  // A time-out arrives as an answer.
  while (!received->has_value()) {
    if (!patient && stopRequested()) {
      return stopStatus();
    }
    if (!bus_.Service(kSliceMs)) {
      return fail(ExitStatus::Unreachable, "the connection to the bus was lost");
    }
  }
  answer = received->value();
  return ExitStatus::Ok;
}

ExitStatus Objects::ReadAll(Answer& answer) {
  return Await(
      [this](auto receive) { return bus_.ReadAll(options_.answerTimeoutMs(), std::move(receive)); },
      answer, false);
}

ExitStatus Objects::ListTransfers(std::vector<std::string>& numbers, Answer& answer) {
  const ExitStatus asked =
      Call(kTransfersPath, "org.freedesktop.DBus.Introspectable", "Introspect", answer);
  if (asked == ExitStatus::Ok && answer.error.empty()) {
    numbers = transferNumbers(answer.value.ToText());
  }
  return asked;
}

ExitStatus Objects::ReadTransfers(const std::function<bool(const TransferRecord&)>& take,
                                  Answer& answer) {
  ExitStatus asked = ReadAll(answer);
  if (asked == ExitStatus::Ok && answer.error.empty()) {
    const auto records = transferRecords(answer.value);
    static_cast<void>(std::all_of(records.rbegin(), records.rend(), take));
  }
  if (asked != ExitStatus::Ok || answer.error != "org.freedesktop.DBus.Error.LimitsExceeded") {
    return asked;
  }
  std::vector<std::string> numbers;
  asked = ListTransfers(numbers, answer);
  for (auto number = numbers.rbegin(); asked == ExitStatus::Ok && number != numbers.rend();
       ++number) {
    Answer one;
    asked = Read(pathOfTransfer(*number), kTransferInterface, one);
    // Those that have gone since are left out.
    const bool there = asked == ExitStatus::Ok && one.error.empty();
    if (there && !take(transferRecord(*number, one.value))) {
      break;
    }
  }
  return asked;
}

ExitStatus Objects::Read(const std::string& path, const std::string& interface, Answer& answer) {
  return Await(
      [&](auto receive) {
        return bus_.Read(path, interface, options_.answerTimeoutMs(), std::move(receive));
      },
      answer, false);
}

ExitStatus Objects::Call(const std::string& path, const std::string& interface,
                         const std::string& method, Answer& answer, bool patient) {
  return Await(
      [&](auto receive) {
        return bus_.Call(path, interface, method, options_.answerTimeoutMs(), std::move(receive));
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

ExitStatus failOn(const Objects::Answer& answer, const std::string& what) {
  const ExitStatus status = exitForError(answer.error);
  if (answer.error == "org.freedesktop.DBus.Error.AccessDenied" && !explainDenial().empty()) {
    return fail(ExitStatus::Unreachable, explainDenial());
  }
  if (status == ExitStatus::Unreachable) {
    return fail(status, absence(kServer));
  }
  return fail(status, isUnknown(answer)
                          ? "the control server of this camera is too old to tell " + what
                          : "cannot get " + what + ": " + answer.text + " (" + answer.error + ")");
}

}  // namespace kova::ctl
