#include "TransferRecord.h"

#include <algorithm>
#include <ctime>

#include "Text.h"
#include "kova/utils/Strings.h"

namespace kova::ctl {
namespace {

using variant::Variant;

// Digits of the largest number.
constexpr std::size_t kMaxDigits = 20;
// The end of the year 9999.
constexpr std::uint64_t kLastTime = 253402300799999999;

void take(const Variant& properties, std::string_view name, std::string& text) {
  if (const Variant* value = properties.find(name); value != nullptr) {
    text = value->toText();
  }
}

template <typename Number>
void take(const Variant& properties, std::string_view name, Number& number) {
  if (const Variant* value = properties.find(name); value != nullptr) {
    number = value->toNumber<Number>();
  }
}

bool isBefore(const std::string& a, const std::string& b) {
  return a.size() != b.size() ? a.size() < b.size() : a < b;
}

std::string state(const TransferRecord& record) {
  if (record.hasEnded()) {
    return printable(record.outcome);
  }
  const bool measured = record.size > 0 && record.transferred <= record.size;
  return printable(record.phase) +
         (measured ? utils::format(" %.0f %%", 100.0 * static_cast<double>(record.transferred) /
                                                   static_cast<double>(record.size))
                   : "");
}

std::string bytes(const TransferRecord& record) {
  const std::string done = humanBytes(static_cast<double>(record.transferred));
  return record.hasEnded() || record.size == 0
             ? done
             : done + " of " + humanBytes(static_cast<double>(record.size));
}

// The kind as typed on the command line.
std::string kindOf(const TransferRecord& record) {
  return record.kind == "supportInfo"     ? "support"
         : record.kind == "eventSnapshot" ? "event-snapshot"
         : record.kind == "eventHeatmap"  ? "event-heatmap"
                                          : printable(record.kind);
}

Cells cellsOf(const TransferRecord& record) {
  return {record.number, kindOf(record),           state(record),
          bytes(record), timeText(record.started), printable(record.uri)};
}

}  // namespace

bool isTransferNumber(std::string_view text) {
  return !text.empty() && text.size() <= kMaxDigits && text.front() != '0' &&
         text.find_first_not_of("0123456789") == text.npos;
}

std::string pathOfTransfer(const std::string& number) {
  return std::string(kTransfersPath) + "/" + number;
}

void update(TransferRecord& record, const Variant& properties) {
  take(properties, "RequestId", record.requestId);
  take(properties, "Requester", record.requester);
  take(properties, "Kind", record.kind);
  take(properties, "Direction", record.direction);
  take(properties, "Uri", record.uri);
  take(properties, "File", record.file);
  take(properties, "Phase", record.phase);
  take(properties, "Transferred", record.transferred);
  take(properties, "Size", record.size);
  take(properties, "Started", record.started);
  take(properties, "Ended", record.ended);
  take(properties, "HttpStatus", record.httpStatus);
  take(properties, "Outcome", record.outcome);
  take(properties, "Reason", record.reason);
}

TransferRecord transferRecord(const std::string& number, const Variant& properties) {
  TransferRecord record;
  record.number = number;
  update(record, properties);
  return record;
}

std::vector<TransferRecord> transferRecords(const Variant& objects) {
  std::vector<TransferRecord> records;
  const std::string parent = std::string(kTransfersPath) + "/";
  for (const auto& [path, interfaces] : objects.elements()) {
    const Variant* properties = interfaces.find(kTransferInterface);
    const std::string number = path.starts_with(parent) ? path.substr(parent.size()) : "";
    if (properties != nullptr && isTransferNumber(number)) {
      records.push_back(transferRecord(number, *properties));
    }
  }
  std::ranges::sort(records, isBefore, &TransferRecord::number);
  return records;
}

Variant transferResult(const TransferRecord& record) {
  return Variant::Map{{"id", record.number},
                      {"requestId", std::to_string(record.requestId)},
                      {"requester", record.requester},
                      {"kind", record.kind},
                      {"direction", record.direction},
                      {"uri", record.uri},
                      {"file", record.file},
                      {"phase", record.phase},
                      {"transferred", record.transferred},
                      {"size", record.size},
                      {"started", timeResult(record.started)},
                      {"ended", timeResult(record.ended)},
                      {"httpStatus", record.httpStatus},
                      {"outcome", record.outcome},
                      {"reason", record.reason}};
}

std::string transferTable(const std::vector<TransferRecord>& records) {
  std::vector<Cells> lines{{"No.", "Kind", "State", "Bytes", "Started", "URI"}};
  for (const TransferRecord& record : records) {
    lines.push_back(cellsOf(record));
    if (!record.reason.empty()) {
      lines.push_back({"", printable(record.reason)});
    }
  }
  return records.empty() ? "No transfers since the control server started.\n" : grid(lines);
}

std::string transferLine(const TransferRecord& record) {
  std::string line;
  for (const std::string& cell : cellsOf(record)) {
    line += (line.empty() ? "" : "  ") + cell;
  }
  return line + (record.reason.empty() ? "" : "  " + printable(record.reason));
}

Variant timeResult(std::uint64_t microseconds) {
  constexpr std::uint64_t kSecond = 1000000;
  if (microseconds == 0 || microseconds > kLastTime) {
    return {};
  }
  return timeval{static_cast<time_t>(microseconds / kSecond),
                 static_cast<suseconds_t>(microseconds % kSecond)};
}

std::string timeText(std::uint64_t microseconds) {
  const Variant time = timeResult(microseconds);
  if (time.isEmpty()) {
    return "-";
  }
  const std::time_t seconds = time.toTime().tv_sec;
  tm local{};
  char text[32] = "-";
  if (localtime_r(&seconds, &local) != nullptr) {
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  }
  return text;
}

}  // namespace kova::ctl
