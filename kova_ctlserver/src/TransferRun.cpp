#include "TransferRun.h"

#include "BaseTransferTask.h"
#include "TransferRecords.h"
#include "kova/utils/Strings.h"

namespace kova::ctlserver {
namespace {

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
    text +=
        utils::format(registered ? "transfer %llu was still running when this request took over "
                                   "its task: "
                                 : "transfer %llu was still running and kept this one from "
                                   "starting; send the request again: ",
                      asNumber(tookOver));
  }
  if (httpStatus >= kFirstHttpError) {
    text += utils::format("the server answered with HTTP status %d: ", httpStatus);
  }
  return text + clause;
}

std::string uriInUse(std::uint64_t record) {
  return utils::format(
      "transfer %llu is already using this URI; wait for it or cancel it (kovactl cancel %llu)",
      asNumber(record), asNumber(record));
}

}  // namespace kova::ctlserver
