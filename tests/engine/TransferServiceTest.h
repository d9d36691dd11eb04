#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "Engine.h"
#include "RawServer.h"

namespace kova::engine {

class TransferServiceTest : public EngineTest {
 protected:
  bool gone(const RecordingTask& task) {
    return turnUntil([&] { return !service().existsUri(task.uri()); });
  }
  static void passDeadline(const RecordingTask& task) {
    fakes::platform().nowMs += task.timeout() + 1;
  }
  static std::string timeout(const std::string& phase, const RecordingTask& task) {
    return "4 TransferService.service: Timeout " + phase + ", task=task, uri=" + task.uri();
  }
};

}  // namespace kova::engine
