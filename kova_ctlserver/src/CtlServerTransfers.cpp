#include "CtlServer.h"
#include "kova/logger/Logger.h"

namespace kova::ctlserver {
namespace {

using ipc::messages::GetRequest;
using ipc::messages::kUninitialized;
using ipc::messages::PutRequest;
using ipc::messages::UpdateFirmwareRequest;

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "CtlServer";

void logDuplicate(const char* operation, const char* property, const std::string& what,
                  const std::string& uri) {
  KOVA_LOG_IN(operation, LOG_ERR, 0, "Transfer with such %s already exists, what=%s, uri=%s",
              property, what.c_str(), uri.c_str());
}

/// What every routed request sets on its task, whatever its kind.
template <typename Request>
void address(BaseTransferTask& task, Request& request) {
  task.setIpcOrigin(request.from())
      .setIpcRequestId(request.id())
      .setUri(request.uri())
      .setTimeout(request.timeoutMs());
}

}  // namespace

// The words "supportInfo", "logo" and "sound" are not their tasks' names: such a request re-arms
// the running task under its new URI. Clients rely on it.
bool CtlServer::isDuplicate(const char* operation, const std::string& what,
                            const std::string& uri) const {
  if (transferService_.existsUri(uri)) {
    logDuplicate(operation, "uri", what, uri);
    return true;
  }
  if (transferService_.existsName(what)) {
    logDuplicate(operation, "name", what, uri);
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
  if (isDuplicate("getRequest", what, request.uri())) {
    return false;
  }
  for (const auto& kind : kinds) {
    if (what != kind.what) {
      continue;
    }
    kind.task.setSendNoEvents(request.disableEvents());
    address(kind.task, request);
    kind.task.setFormFields(request.formFields());
    if (kind.namesFile) {
      kind.task.setPath("/tmp/" + request.filename());
    }
    return transferService_.add(&kind.task);
  }
  KOVA_LOG(LOG_ERR, 0, "Unrecognized GetRequest: %s", request.ToString().c_str());
  return false;
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
  if (isDuplicate("putRequest", what, request.uri())) {
    return false;
  }
  for (const auto& kind : kinds) {
    if (what != kind.what) {
      continue;
    }
    const std::string hash = request.hash();
    if (hash != kUninitialized && kind.isInstalled(hash)) {
      return true;
    }
    kind.task.setHash(hash);
    address(kind.task, request);
    return transferService_.add(&kind.task);
  }
  KOVA_LOG(LOG_ERR, 0, "Unrecognized PutRequest: %s", request.ToString().c_str());
  return false;
}

bool CtlServer::updateFirmware(UpdateFirmwareRequest& request) {
  if (transferService_.existsName(firmwareTask_.name())) {
    logDuplicate("updateFirmware", "name", firmwareTask_.name(), request.uri());
    return false;
  }
  address(firmwareTask_, request);
  return transferService_.add(&firmwareTask_);
}

}  // namespace kova::ctlserver
