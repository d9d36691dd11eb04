// The part of TransferService that keeps the records of its runs.

#include <algorithm>
#include <cstring>

#include "BaseTransferTask.h"
#include "TransferService.h"

namespace kova::ctlserver {

/// Creates the run of the request that has armed the task. Earlier runs of the task that have not
/// ended lose it: it now has the parameters of this request, even if the request is refused.
TransferRun TransferService::takeOver(BaseTransferTask& task) {
  TransferRun run;
  run.task = &task;
  run.record = task.record();
  records_.setFile(run.record, task.path());
  for (auto& [uri, other] : tasks_) {
    if (other.task == &task) {
      other.takenOverBy = run.record;
      run.tookOver = std::max(run.tookOver, other.record);
    }
  }
  return run;
}

bool TransferService::refuse(const TransferRun& run, const std::string& reason) {
  records_.end(run.record, kOutcomeRefused, reason);
  return false;
}

void TransferService::end(const TransferRun& run, const TransferRun::End& end) {
  records_.end(run.record, end.outcome, run.explain(end.reason), run.httpStatus);
}

void TransferService::endFailed(const std::string& uri, TransferRun& run, TransferStatus status) {
  if (run.httpStatus == 0) {
    run.httpStatus = httpStatusOf(uri);
  }
  const bool cancelled = status == TRANSFER_CANCELLED;
  end(run,
      {cancelled ? kOutcomeCancelled : BaseTransferTask::decodeTransferStatus(status), run.cause});
}

std::uint64_t TransferService::recordOfUri(const std::string& uri) const {
  const auto entry = tasks_.find(uri);
  return entry != tasks_.end() ? entry->second.record : 0;
}

std::uint64_t TransferService::recordOfName(const std::string& name) const {
  const auto entry = std::ranges::find_if(tasks_, [&](const auto& candidate) {
    const BaseTransferTask& task = *candidate.second.task;
    return task.name() == name && !task.finalizing();
  });
  return entry != tasks_.end() ? entry->second.record : 0;
}

/// A cause set locally takes precedence: it is more precise than libcurl's.
void TransferService::noteCompletion(TransferRun& run, TransferStatus status, int httpCode) {
  run.httpStatus = httpCode;
  run.completed = status == TRANSFER_OK;
  if (status != TRANSFER_OK && run.cause.empty()) {
    run.cause = cause();
  }
}

void TransferService::noteReceived(TransferRun& run, std::uint64_t received, long total) {
  if (run.task->download()) {
    run.transferred = received;
    records_.progress(run.record, received, static_cast<std::uint64_t>(std::max(total, 0L)));
  }
}

void TransferService::noteRead(const std::string& uri, const utils::File& file, int error) {
  const auto entry = tasks_.find(uri);
  if (entry == tasks_.end()) {
    return;
  }
  TransferRun& run = entry->second;
  run.transferred = file.Cursor();
  records_.progress(run.record, file.Cursor(), file.Size());
  if (error != 0) {
    run.cause = std::string("the file could not be read: ") + std::strerror(error);
  }
}

}  // namespace kova::ctlserver
