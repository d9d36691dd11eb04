#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "CtlServer.h"
#include "RawServer.h"
#include "TransferFixture.h"
#include "UnitTest.h"

namespace kova::ctlserver {

using Fields = Map;

inline constexpr char kContentDigest[] = "9a0364b9e99bb480dd25e1f0284c8555";  // of "content"

inline constexpr const char* kKinds[] = {
    "snapshot", "supportInfo", "eventSnapshot", "eventHeatmap", "logo", "sound", "fw"};
inline constexpr const char* kTransferKinds[] = {"snapshot",     "supportInfo", "eventSnapshot",
                                                 "eventHeatmap", "logo",        "sound"};

/// The task name of a kind in log lines.
inline std::string taskName(const std::string& kind) {
  if (kind == "supportInfo") {
    return "support";
  }
  return kind == "logo" || kind == "sound" ? "user_" + kind : kind;
}

inline std::string operationOf(const std::string& kind) {
  return kind == "fw"                        ? "updateFirmware"
         : kind == "logo" || kind == "sound" ? "putRequest"
                                             : "getRequest";
}

/// A server that receives requests as from the dispatcher, with a peer on the loopback interface.
/// By default requests are from "client.a" with the id 7 and a time-out of 20 s.
class TransferRoutingTest : public TransferTest {
 protected:
  void SetUp() override {
    TransferTest::SetUp();
    startServer();
    peerAnswers("");
  }

  /// Creates a fresh server and platform, whose fake image probe accepts every picture.
  void startServer() {
    server_.reset();
    fakes::reset();
    platform().onRun = [](const std::string& command) {
      return fakes::ProcessResult{0,
                                  command.starts_with("/usr/libexec/")
                                      ? "empty=0 channels=1 depth=0 width=1 height=1\n"
                                      : "",
                                  ""};
    };
    static_cast<Variant&>(info_) = Variant(kPlainCamera);
    server_ = std::make_unique<CtlServer>(info_);
    ASSERT_TRUE(server_->init(nullptr));
    platform().journal.clear();
  }

  void peerAnswers(const std::string& body) {
    peer_.emplace(engine::answering(engine::okResponse(body)));
  }
  void peerScript(engine::RawServer::Script script) { peer_.emplace(std::move(script)); }
  /// Makes the peer read requests and never answer.
  void peerHolds() { peerScript(engine::stalling()); }
  std::string uri(const std::string& path = "/file") const { return peer_->uri(path); }
  /// A URI with a port on which nobody listens.
  static std::string deadUri() {
    return engine::RawServer([](engine::Connection&) {}).uri();
  }

  /// Sends a request of one of `kKinds`: a "what" of get or put, or "fw".
  bool ask(const std::string& kind, const std::string& to, Fields more = {}) {
    more["uri"] = to;
    if (kind == "fw") {
      return firmware(std::move(more));
    }
    more["what"] = kind;
    if (kind == "logo" || kind == "sound") {
      more.emplace("hash", "0123456789abcdef0123456789abcdef");
      return put(std::move(more));
    }
    more.emplace("filename", kind == "eventHeatmap" ? "heatmap_1.png" : "motionsnap_1.jpg");
    return get(std::move(more));
  }

  bool get(Fields fields) {
    auto request = make<ipc::messages::GetRequest>(std::move(fields));
    return server_->getRequest(request);
  }
  bool put(Fields fields) {
    auto request = make<ipc::messages::PutRequest>(std::move(fields));
    return server_->putRequest(request);
  }
  bool firmware(Fields fields) {
    auto request = make<ipc::messages::UpdateFirmwareRequest>(std::move(fields));
    return server_->updateFirmware(request);
  }

  /// The request with the fixture's defaults, normalised as by the dispatcher.
  template <typename Request>
  static Request make(Fields fields) {
    fields.emplace("from", "client.a");
    fields.emplace("id", 7);
    fields.emplace("timeoutMs", 20000);
    Request request{Variant(std::move(fields))};
    request.NormalizeFields();
    return request;
  }

  /// Writes the files that ask() requests.
  static void writeUploads(const std::string& content) {
    for (const char* path : {"/tmp/snap.jpeg", "/tmp/motionsnap_1.jpg", "/tmp/heatmap_1.png"}) {
      write(path, content);
    }
  }

  bool serviceUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) {
        return false;
      }
      server_->service(10);
    }
    return true;
  }
  bool serviceUntilEvent() {
    return serviceUntil([] { return !platform().bus.sent.empty(); });
  }
  /// Services until the peer has received `count` whole requests, and some turns more.
  bool serviceUntilRequests(std::size_t count) {
    const bool arrived = serviceUntil([&] { return peer_->requests().size() >= count; });
    for (int turn = 0; turn < 10; ++turn) {
      server_->service(10);
    }
    return arrived;
  }
  /// Services until the peer has accepted `count` connections.
  bool serviceUntilConnections(unsigned count) {
    return serviceUntil([&] { return peer_->connections() >= count; });
  }

  static std::string duplicate(const std::string& property, const std::string& what,
                               const std::string& uri, const std::string& operation) {
    return "3 CtlServer." + operation + ": Transfer with such " + property +
           " already exists, what=" + what + ", uri=" + uri;
  }
  static std::string status(const std::string& text) {
    return "EventTransferRequestStatus to=client.a id=7 " + text;
  }

  variant::CameraInfo info_;
  std::optional<engine::RawServer> peer_;
  std::unique_ptr<CtlServer> server_;
};

}  // namespace kova::ctlserver
