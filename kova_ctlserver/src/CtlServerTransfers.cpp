#include "CtlServer.h"

#include <exception>

#include "kova/logger/Logger.h"
#include "kova/utils/File.h"

namespace kova::ctlserver {
namespace {

using ipc::messages::GetRequest;
using ipc::messages::kUninitialized;
using ipc::messages::PutRequest;
using ipc::messages::UpdateFirmwareRequest;

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "CtlServer";

// kept: 15
void logDuplicate(const char* operation, const char* property, const std::string& what,
                  const std::string& uri, int line = __builtin_LINE()) {
  KOVA_LOG_LINE(line, operation, LOG_ERR, 0,
                "Transfer with such %s already exists, what=%s, uri=%s", property, what.c_str(),
                uri.c_str());
}

/// Copies the fields that all transfer requests have.
template <typename Request>
void copyRequest(BaseTransferTask& task, Request& request, std::uint64_t record) {
  task.setRecord(record)
      .setIpcOrigin(request.from())
      .setIpcRequestId(request.id())
      .setUri(request.uri())
      .setTimeout(request.timeoutMs());  // kept: 55
}

constexpr char kFirmware[] = "firmware";
constexpr char kNoKindGiven[] = "the request does not say what to transfer (what)";
constexpr char kUp[] = "up";
constexpr char kDown[] = "down";

/// Begins the record of a request.
template <typename Request>
std::uint64_t beginRecord(TransferRecords& records, Request& request, const std::string& kind,
                          const char* direction) {
  TransferRecord facts;
  facts.requestId = request.id();
  facts.requester = request.from();
  facts.kind = ipc::messages::isGiven(kind) ? kind : "";
  facts.direction = direction;
  facts.uri = ipc::messages::isGiven(request.uri()) ? request.uri() : "";
  return records.begin(facts);
}

/// Ends the record of a request if an exception leaves its handler; it would run forever otherwise.
class RecordGuard {
 public:
  RecordGuard(TransferRecords& records, std::uint64_t record)
      : records_(records), record_(record) {}
  ~RecordGuard() {
    if (std::uncaught_exceptions() == before_) {
      return;
    }
    try {
      records_.end(record_, kOutcomeRefused, "an internal error occurred");
    } catch (...) {
      return;  // best effort: ending the record allocates, too
    }
  }
  RecordGuard(const RecordGuard&) = delete;
  RecordGuard& operator=(const RecordGuard&) = delete;

 private:
  TransferRecords& records_;
  std::uint64_t record_;
  int before_ = std::uncaught_exceptions();
};

std::string runningOfKind(const std::string& kind, std::uint64_t number) {
  return "another " + kind + " transfer, number " + std::to_string(number) + ", is running";
}

}  // namespace

bool CtlServer::refuse(std::uint64_t record, const std::string& reason) {
  transferRecords().end(record, kOutcomeRefused, reason);
  return false;
}

/// The device description may name one user besides root whose files in /tmp may be uploaded.
void CtlServer::trustUploadOwner() {
  if (const auto owner = cameraInfo_.optionalText("upload_owner")) {
    utils::trustFilesOf(*owner);
  }
}

// "supportInfo", "logo" and "sound" are not the names of their tasks, so they never match here:
// such a request re-arms the running task under its new URI.
bool CtlServer::refuseDuplicate(const char* operation, const std::string& what,
                                const std::string& uri, std::uint64_t record) {
  if (transferService_.existsUri(uri)) {
    logDuplicate(operation, "uri", what, uri);
    refuse(record, uriInUse(transferService_.recordOfUri(uri)));
    return true;
  }
  if (transferService_.existsName(what)) {  // kept: 56
    logDuplicate(operation, "name", what, uri);
    refuse(record, runningOfKind(what, transferService_.recordOfName(what)));
    return true;
  }
  return false;
}

bool CtlServer::getRequest(GetRequest& request) {
  const struct {
    const char* what;
    BaseTransferTask& task;
    bool namesFile;
  } kinds[] = {
      {"snapshot", snapshotTask_, false},
      {"supportInfo", supportTask_, false},
      {"eventSnapshot", eventSnapshotTask_, true},
      {"eventHeatmap", eventHeatmapTask_, true},
  };
  const std::string what = request.what();
  const std::uint64_t record = beginRecord(transferRecords(), request, what, kUp);
  const RecordGuard guard(transferRecords(), record);
  if (refuseDuplicate("getRequest", what, request.uri(), record)) {  // kept: 58
    return false;
  }
  for (const auto& kind : kinds) {
    if (what != kind.what) {
      continue;
    }
    kind.task.setSendNoEvents(request.disableEvents());  // kept: 61
    copyRequest(kind.task, request, record);
    kind.task.setFormFields(request.formFields());
    if (kind.namesFile) {
      kind.task.setPath("/tmp/" + request.filename());
    }
    return transferService_.add(&kind.task);
  }
  KOVA_LOG(LOG_ERR, 0, "Unrecognized GetRequest: %s", request.ToString().c_str());
  return refuse(record, kNoKindGiven);
}

bool CtlServer::putRequest(PutRequest& request) {
  const struct {
    const char* what;
    TransferTaskInstall& task;
    bool (*isInstalled)(const std::string& hash);
  } kinds[] = {
      {"logo", userLogoTask_, TransferTaskUserLogo::checkNoTransferNeeded},
      {"sound", soundTask_, TransferTaskSound::checkNoTransferNeeded},
  };
  const std::string what = request.what();
  const std::uint64_t record = beginRecord(transferRecords(), request, what, kDown);
  const RecordGuard guard(transferRecords(), record);
  if (refuseDuplicate("putRequest", what, request.uri(), record)) {  // kept: 58
    return false;
  }
  for (const auto& kind : kinds) {
    if (what != kind.what) {
      continue;
    }
    const std::string hash = request.hash();
    if (hash != kUninitialized && kind.isInstalled(hash)) {  // kept: 59
      transferRecords().end(
          record, kOutcomeAlreadyInstalled,
          "the installed " + what + " has this MD5 digest already, so nothing was transferred");
      return true;
    }
    kind.task.setHash(hash);  // kept: 60
    copyRequest(kind.task, request, record);
    return transferService_.add(&kind.task);
  }
  KOVA_LOG(LOG_ERR, 0, "Unrecognized PutRequest: %s", request.ToString().c_str());
  return refuse(record, kNoKindGiven);
}

bool CtlServer::updateFirmware(UpdateFirmwareRequest& request) {  // kept: 57
  const std::uint64_t record = beginRecord(transferRecords(), request, kFirmware, kDown);
  const RecordGuard guard(transferRecords(), record);
  if (transferService_.existsName(firmwareTask_.name())) {
    logDuplicate("updateFirmware", "name", firmwareTask_.name(), request.uri());
    return refuse(record,
                  runningOfKind(kFirmware, transferService_.recordOfName(firmwareTask_.name())));
  }
  copyRequest(firmwareTask_, request, record);
  return transferService_.add(&firmwareTask_);
}

}  // namespace kova::ctlserver
