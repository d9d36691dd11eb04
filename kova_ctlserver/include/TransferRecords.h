#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace kova::ctlserver {

/// Phases of a transfer, in order. A phase may be skipped; none is entered twice.
enum class TransferPhase : std::uint8_t {
  Preparing,     ///< accepted; the file to send may still be generated
  Transferring,  ///< registered with the engine: connecting, sending or receiving
  Finalising,    ///< the bytes have arrived; the file is being checked, installed or flashed
  Ended,
};

/// "preparing", "transferring", "finalising" or "ended".
const char* phaseName(TransferPhase phase);

/// One transfer request. All strings are UTF-8 (RFC 3629) without control characters, contain no
/// user information of a URI, and are bounded in length.
struct TransferRecord {
  std::uint64_t number = 0;     ///< from 1, unique while the daemon runs
  std::uint64_t requestId = 0;  ///< id of the request
  std::string requester;        ///< endpoint that sent it, at most kMaxNameBytes
  /// "firmware", "logo", "sound", "snapshot", "eventSnapshot", "eventHeatmap" or "supportInfo"; ""
  /// if the request does not say
  std::string kind;
  std::string direction;  ///< "down": to the camera, "up": from it
  std::string uri;        ///< at most kMaxUriBytes; "" if not given
  std::string file;       ///< on the camera, at most kMaxFileBytes; "" until it is known
  TransferPhase phase = TransferPhase::Preparing;
  std::uint64_t transferred = 0;  ///< bytes of the file that were received or sent
  std::uint64_t size = 0;         ///< bytes of the file; 0: not known
  std::uint64_t started = 0;      ///< microseconds of CLOCK_REALTIME
  std::uint64_t ended = 0;        ///< likewise; 0 until it has ended
  std::uint16_t httpStatus = 0;   ///< of the last response; 0: none arrived. 0 until the end
  /// "" until the transfer has ended, then "OK", "ALREADY_INSTALLED", "REFUSED", "CANCELLED" or a
  /// status of the events, see docs/transfers.md
  std::string outcome;
  /// One human-readable sentence with the cause; at most kMaxReasonBytes. "" until it has ended.
  std::string reason;

  static constexpr std::size_t kMaxNameBytes = 255;
  static constexpr std::size_t kMaxUriBytes = 4096;
  static constexpr std::size_t kMaxFileBytes = 512;
  static constexpr std::size_t kMaxReasonBytes = 512;
};

// Outcomes besides the statuses of the events.
inline constexpr char kOutcomeOk[] = "OK";
inline constexpr char kOutcomeAlreadyInstalled[] = "ALREADY_INSTALLED";
inline constexpr char kOutcomeRefused[] = "REFUSED";
inline constexpr char kOutcomeCancelled[] = "CANCELLED";

/// Fields that a change may affect besides `transferred` and `size`.
enum class TransferChange : std::uint8_t {
  Progress,  ///< none
  Phase,     ///< phase and file
  End,       ///< phase, file, ended, httpStatus, outcome and reason
};

/// Notified of each change, on the daemon's one thread. Callbacks may read records, but must not
/// change or cancel one.
class TransferObserver {
 public:
  TransferObserver() = default;
  virtual ~TransferObserver() = default;
  TransferObserver(const TransferObserver&) = delete;
  TransferObserver& operator=(const TransferObserver&) = delete;

  /// A request has arrived. A refused one ends before its handler returns.
  virtual void transferAdded(const TransferRecord& record) = 0;
  /// Phases are reported at once, progress at most every kProgressMs per transfer, so observers
  /// need no rate limit. The last progress before a pause is not lost.
  virtual void transferChanged(const TransferRecord& record, TransferChange change) = 0;
  /// A later record has evicted an ended one, which find() no longer returns.
  virtual void transferRemoved(std::uint64_t number) = 0;
};

/// Ends a running transfer on behalf of the records.
class TransferCanceller {
 public:
  TransferCanceller() = default;
  virtual ~TransferCanceller() = default;
  TransferCanceller(const TransferCanceller&) = delete;
  TransferCanceller& operator=(const TransferCanceller&) = delete;

  /// Ends the transfer and its record. Returns false if it is not running.
  virtual bool cancelTransfer(std::uint64_t number) = 0;
};

/// The records of all running transfers and of the last kMaxEnded ended ones.
///
/// There are no more running records than running transfers: a refused request ends before its
/// handler returns. All operations ignore unknown numbers, such as 0. While no transfer runs,
/// nothing reads the clock or allocates.
class TransferRecords {
 public:
  static constexpr std::size_t kMaxEnded = 32;
  static constexpr std::uint64_t kProgressMs = 200;

  TransferRecords() = default;
  TransferRecords(const TransferRecords&) = delete;
  TransferRecords& operator=(const TransferRecords&) = delete;

  /// @param observer notified of every change from now on; nullptr: none. Not owned.
  void observe(TransferObserver* observer) { observer_ = observer; }

  /// The record, or nullptr. Valid until the next call of an operation that is not const.
  const TransferRecord* find(std::uint64_t number) const;
  /// The numbers of all records, ascending.
  std::vector<std::uint64_t> numbers() const;

  enum class Cancel : std::uint8_t {
    Done,        ///< it has ended with outcome "CANCELLED"
    Unknown,     ///< no such record
    Ended,       ///< it had ended before
    Finalising,  ///< it is being checked, installed or flashed, which is not interrupted
  };
  /// Cancels a transfer that is not being finalised yet. Its requester receives the event of a
  /// failed transfer, "TRANSFER_FAILED", unless it has disabled events; its files are removed as
  /// after any failure. Must not be called while transfers are serviced or from an observer.
  Cancel cancel(std::uint64_t number);

  // For CtlServer and TransferService, which run transfers.

  /// Adds a record for a request that has arrived.
  /// @param facts requestId, requester, kind, direction, uri (which may hold user information) and
  ///              file; the rest is filled in
  /// @return its number
  std::uint64_t begin(const TransferRecord& facts);
  /// Sets the file once it is known.
  void setFile(std::uint64_t number, const std::string& file);
  /// Enters a later phase other than Ended. An earlier or equal phase is ignored.
  void enter(std::uint64_t number, TransferPhase phase);
  /// @param transferred bytes so far
  /// @param size        bytes of the file, or 0 when that is not known
  void progress(std::uint64_t number, std::uint64_t transferred, std::uint64_t size);
  /// Ends the record, unless it has ended.
  /// @param reason a sentence, or a clause that becomes one; anything in it that looks like user
  ///               information of a URI is removed
  void end(std::uint64_t number, const std::string& outcome, const std::string& reason,
           int httpStatus = 0);

  /// Reports rate-limited progress that is due. Called on every pass.
  void flush();

  /// @param canceller ends running transfers; nullptr: none can be cancelled. Not owned.
  void setCanceller(TransferCanceller* canceller) { canceller_ = canceller; }

 private:
  struct Running {
    TransferRecord record;
    std::string userInfo;          // of the URI, to be removed from the reason
    std::uint64_t reportedMs = 0;  // utils::nowMs() of the last notification
    bool hasUnreported = false;    // progress not reported yet
  };

  Running* running(std::uint64_t number);
  void report(Running& running, TransferChange change);
  void keepEnded(TransferRecord record);

  TransferObserver* observer_ = nullptr;
  TransferCanceller* canceller_ = nullptr;
  std::uint64_t lastNumber_ = 0;
  std::map<std::uint64_t, Running> running_;
  std::deque<TransferRecord> ended_;  // in the order of their ends
};

}  // namespace kova::ctlserver
