#include "Engine.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "CurlFaults.h"

namespace kova::engine {
namespace {

constexpr std::chrono::seconds kPatience{20};
constexpr int kTurnMs = 10;

}  // namespace

unsigned RecordingTask::count(const std::string& event) const {
  return static_cast<unsigned>(std::count(events.begin(), events.end(), event));
}

std::string RecordingTask::outcome() const {
  std::string all;
  for (const std::string& event : events) {
    if (event == "success" || event.starts_with("failure")) {
      all += (all.empty() ? "" : ", ") + event;
    }
  }
  return all;
}

unsigned long MemoryHttp::FillUploadBuffer(const std::string&, unsigned char* buffer,
                                           unsigned long size) {
  if (beforeFilling) {
    beforeFilling();
  }
  if (excess != 0) {
    return size + excess;
  }
  const std::size_t count = std::min<std::size_t>(size, upload.size() - uploaded);
  std::memcpy(buffer, upload.data() + uploaded, count);
  uploaded += count;
  return count;
}

void EngineTest::SetUp() {
  fakes::reset();
  curlFaults() = {};
  service_ = std::make_unique<ctlserver::TransferService>();
  ASSERT_TRUE(service_->init());
}

void EngineTest::TearDown() {
  endService();
}

bool EngineTest::turnUntil(const std::function<bool()>& condition) {
  return eventually([&] { return condition() || (service().service(kTurnMs), false); });
}

std::string EngineTest::run(RecordingTask& task) {
  if (!service().add(&task)) {
    return "refused";
  }
  if (!turnUntil([&] { return !service().existsUri(task.uri()); })) {
    return "unfinished";
  }
  return task.outcome();
}

std::string EngineTest::write(const std::string& name, const std::string& content) const {
  tests::writeText(path(name), content);
  return path(name);
}

std::string curlErrorLine(int curlCode) {
  return "4 basehttp.Service: Unexpected curl error: CURLcode = " + std::to_string(curlCode);
}

std::string failureLine(const std::string& uri, const std::string& reason, int httpCode) {
  return "4 TransferService.cancel: Transfer task failed, name=task, uri=" + uri +
         ", reason=" + reason + ", httpCode=" + std::to_string(httpCode);
}

bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

bool serviceUntil(ctlserver::BaseHTTP& http, const std::function<bool()>& condition) {
  return eventually([&] { return condition() || (http.Service(kTurnMs), false); });
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) {
    return "";
  }
  std::string content(static_cast<std::size_t>(file.tellg()), '\0');
  file.seekg(0).read(content.data(), static_cast<std::streamsize>(content.size()));
  return content;
}

std::string noise(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  std::uint64_t state = 0x9e3779b97f4a7c15ULL * (seed + 1ULL);
  for (std::size_t at = 0; at < size; at += sizeof state) {
    state ^= state << 13U;  // xorshift64
    state ^= state >> 7U;
    state ^= state << 17U;
    std::memcpy(bytes.data() + at, &state, std::min(sizeof state, size - at));
  }
  return bytes;
}

}  // namespace kova::engine
