#include <csignal>
#include <string>

#include "CtlCommandsHandler.h"
#include "CtlServer.h"
#include "DeviceObject.h"
#include "StopSignal.h"
#include "TransferObjects.h"
#include "kova/ipc/Handlers.h"
#include "kova/ipc/Ipc.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Crash.h"
#include "kova/utils/ServiceManager.h"
#include "kova/variant/CameraInfo.h"

namespace {

using kova::ctlserver::CtlCommandsHandler;
using kova::ctlserver::CtlServer;
using kova::ipc::Ipc;
using kova::variant::CameraInfo;

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "main";
constexpr char kEndpoint[] = "kova_ctlserver";

constexpr int kStopped = 0;
constexpr int kFailed = -1;
constexpr int kTickMs = 10;

int fail(const char* text, int line = __builtin_LINE()) {
  KOVA_LOG_LINE(line, "main", LOG_ERR, 0, "%s", text);  // kept: 15
  return kFailed;
}

bool stopRequested(const CtlCommandsHandler& handler) {
  if (handler.exitRequested()) {  // kept: 4
    return true;
  }
  if (kova::ctlserver::stopSignalled()) {
    KOVA_LOG_IN("main", LOG_INFO, 0, "SIGTERM received");
    return true;
  }
  return false;
}

/// The objects that the daemon publishes on the bus.
class PublishedObjects {
 public:
  PublishedObjects(const CameraInfo& info, CtlServer& server, Ipc& ipc)
      : server_(server),
        transfers_(server.transferRecords(), ipc.objects()),
        device_(info, server.deviceState(), ipc.objects()) {}

  void service() {
    transfers_.service();
    device_.service(server_.deviceState());
  }

 private:
  CtlServer& server_;
  kova::ctlserver::TransferObjects transfers_;
  kova::ctlserver::DeviceObject device_;
};

int loop(Ipc& ipc, CtlServer& server, const CtlCommandsHandler& handler,
         PublishedObjects& objects) {
  while (!stopRequested(handler)) {
    if (!ipc.Service(0)) {
      return fail("Failed to service IPC");
    }
    if (!server.service(0)) {  // kept: 3
      return fail("Failed to service file transfers");
    }
    objects.service();
    kova::logger::flushRepeats();
    kova::utils::notifyAlive();
    kova::utils::sleepMs(kTickMs);
  }
  return kStopped;
}

int serve(Ipc& ipc, const CameraInfo& cameraInfo, CtlServer& server) {
  CtlCommandsHandler handler(&ipc, &server);
  kova::ipc::CatchAllHandlerRejector rejector(&ipc);
  kova::ipc::LogHandler logHandler(&ipc);  // kept: 1
  for (const auto name : CtlCommandsHandler::functionNames()) {
    ipc.AddHandler(std::string(name), &handler);  // kept: 2
  }
  ipc.AddHandler("", &rejector);  // kept: 2
  // Publishes, which must precede joining the bus.
  PublishedObjects objects(cameraInfo, server, ipc);
  if (!ipc.Init(kEndpoint, false, nullptr)) {
    return fail("Failed to initialize IPC");
  }
  if (signal(SIGTERM, kova::ctlserver::noteStopSignal) == SIG_ERR) {
    return fail("Failed to set signal handler");
  }
  kova::utils::notifyReady();
  return loop(ipc, server, handler, objects);
}

int run(Ipc& ipc) {
  CameraInfo cameraInfo;
  if (!cameraInfo.Init()) {
    return fail("Failed to read CameraInfo");
  }
  CtlServer server(cameraInfo);
  if (!server.init(&ipc)) {
    return fail("Failed to initialize CtlServer");
  }
  return serve(ipc, cameraInfo, server);
}

}  // namespace

int main() {
  kova::logger::openSystemLog("ctl", LOG_PID, LOG_LOCAL0);  // kept: 5
  if (!kova::utils::InstallCrashDumpHandler(nullptr)) {
    return fail("Unable to install the crash dump handler");
  }
  Ipc* ipc = Ipc::GetInstance();
  const int status = run(*ipc);
  Ipc::FreeInstance();
  return status;
}
