#include "TransferRun.h"

#include "BaseTransferTask.h"
#include "TransferRecords.h"
#include "kova/utils/Strings.h"

namespace kova::ctlserver {
namespace {

constexpr int kFirstHttpError = 400;
constexpr char kFailed[] = "TRANSFER_FAILED";

unsigned long long asNumber(std::uint64_t number) {
  return number;
}

}  // namespace

std::string TransferRun::tooLarge(const char* what, std::uint64_t size) const {
  return utils::format("%s %llu bytes, but at most %u are allowed", what, asNumber(size),
                       task->maxSz());
}

std::string TransferRun::tooLate() const {
  std::string phase = "before the file to send was ready";
  if (task->finalizing()) {
    phase = "while the file was being checked";
  } else if (registered) {
    phase = utils::format("when %llu bytes were transferred", asNumber(transferred));
  }
  return utils::format("the deadline of %u ms passed ", task->timeout()) + phase;
}

TransferRun::End TransferRun::success() const {
  const std::string& outcome = task->outcomeOfRun();
  if (!outcome.empty() && outcome != kOutcomeOk) {
    return {outcome, task->reasonOfRun()};
  }
  if (!registered) {
    return {kFailed, "nothing was transferred"};
  }
  if (!completed) {
    return {kFailed, "the transfer was stopped before its end"};
  }
  if (!task->download() && httpStatus >= kFirstHttpError) {
    return {kFailed, "the server did not take the file"};
  }
  if (!outcome.empty()) {
    return {outcome, task->reasonOfRun()};
  }
  return {kOutcomeOk, task->download() ? "the file has arrived" : "the server has the file"};
}

std::string TransferRun::explain(const std::string& clause) const {
  std::string text;
  if (takenOverBy != 0) {
    text += utils::format(
        "request %llu took over the task, with a digest, deadline and requester "
        "of its own: ",
        asNumber(takenOverBy));
  }
  if (tookOver != 0) {
    text += utils::format("transfer %llu, whose task was taken over, had not ended%s: ",
                          asNumber(tookOver), registered ? "" : " and kept this one from starting");
  }
  if (httpStatus >= kFirstHttpError) {
    text += utils::format("the server answered with HTTP status %d: ", httpStatus);
  }
  return text + clause;
}

}  // namespace kova::ctlserver
