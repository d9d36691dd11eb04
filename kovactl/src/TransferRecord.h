#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kova/variant/Variant.h"

namespace kova::ctl {

inline constexpr const char* kTransferInterface = "kova.Transfer1";
/// The parent of the objects of all transfers.
inline constexpr const char* kTransfersPath = "/kova/transfers";

/// A transfer as the camera publishes it, see docs/bus.md. Not validated: texts may contain
/// anything, and `transferred` may exceed `size`.
struct TransferRecord {
  std::string number;  ///< the last part of its path
  std::uint64_t requestId = 0;
  std::string requester;
  std::string kind;
  std::string direction;
  std::string uri;
  std::string file;
  std::string phase;
  std::uint64_t transferred = 0;
  std::uint64_t size = 0;     ///< 0: unknown
  std::uint64_t started = 0;  ///< microseconds since the epoch
  std::uint64_t ended = 0;    ///< likewise; 0 until then
  std::uint32_t httpStatus = 0;
  std::string outcome;  ///< "" until it ended
  std::string reason;

  bool hasEnded() const { return !outcome.empty(); }
  /// Whether the file was transferred or was already installed.
  bool succeeded() const { return outcome == "OK" || outcome == "ALREADY_INSTALLED"; }

  bool operator==(const TransferRecord&) const = default;
};

/// Whether `text` has the form of a transfer number.
bool isTransferNumber(std::string_view text);
std::string pathOfTransfer(const std::string& number);

/// Replaces the members that `properties` of kova.Transfer1 name.
void update(TransferRecord& record, const variant::Variant& properties);
/// The record with these properties of kova.Transfer1.
TransferRecord transferRecord(const std::string& number, const variant::Variant& properties);
/// The transfers among all objects of a camera, in the order of their numbers.
std::vector<TransferRecord> transferRecords(const variant::Variant& objects);

/// A record as the result of a command.
variant::Variant transferResult(const TransferRecord& record);
/// A record as one line of text.
std::string transferLine(const TransferRecord& record);
/// The records as a table, or a sentence if there are none.
std::string transferTable(const std::vector<TransferRecord>& records);

/// A time in microseconds since the epoch, as a Variant and as local date and time. Empty and "-"
/// for 0 and for times after the year 9999.
variant::Variant timeResult(std::uint64_t microseconds);
std::string timeText(std::uint64_t microseconds);

}  // namespace kova::ctl
