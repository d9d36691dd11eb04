#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace kova::ctlserver {

/// How far a transfer is. The order is that of time; a phase may be left out, none comes twice.
enum class TransferPhase : std::uint8_t {
  Preparing,     ///< accepted; what is to be sent may still be made
  Transferring,  ///< the engine has it: connecting, sending or receiving
  Finalising,    ///< the bytes have arrived; the file is being checked, installed or flashed
  Ended,
};

/// "preparing", "transferring", "finalising" or "ended".
const char* phaseName(TransferPhase phase);

/// What is known of one request for a transfer. All texts are UTF-8 (RFC 3629) without control
/// characters, hold no user information of a URI, and are bounded in length.
struct TransferRecord {
  std::uint64_t number = 0;     ///< from 1, never repeated while the daemon runs
  std::uint64_t requestId = 0;  ///< id of the request
  std::string requester;        ///< endpoint that sent it, at most kMostNameBytes
  /// "firmware", "logo", "sound", "snapshot", "eventSnapshot", "eventHeatmap" or "supportInfo"; ""
  /// if the request does not say
  std::string kind;
  std::string direction;  ///< "down": to the camera, "up": from it
  std::string uri;        ///< at most kMostUriBytes; "" if not given
  std::string file;       ///< on the camera, at most kMostFileBytes; "" until it is known
  TransferPhase phase = TransferPhase::Preparing;
  std::uint64_t transferred = 0;  ///< bytes of the file that were received or sent
  std::uint64_t size = 0;         ///< bytes of the file; 0: not known
  std::uint64_t started = 0;      ///< microseconds of CLOCK_REALTIME
  std::uint64_t ended = 0;        ///< likewise; 0 until it has ended
  std::uint16_t httpStatus = 0;   ///< of the last response; 0: none arrived. 0 until the end
  /// "" until the transfer has ended, then "OK", "ALREADY_INSTALLED", "REFUSED", "CANCELLED" or a
  /// status of the events, see docs/transfers.md
  std::string outcome;
  /// One sentence for a person, with the cause; at most kMostReasonBytes. "" until it has ended.
  std::string reason;

  static constexpr std::size_t kMostNameBytes = 255;
  static constexpr std::size_t kMostUriBytes = 4096;
  static constexpr std::size_t kMostFileBytes = 512;
  static constexpr std::size_t kMostReasonBytes = 512;
};

// Outcomes besides the statuses of the events.
inline constexpr char kOutcomeOk[] = "OK";
inline constexpr char kOutcomeAlreadyInstalled[] = "ALREADY_INSTALLED";
inline constexpr char kOutcomeRefused[] = "REFUSED";
inline constexpr char kOutcomeCancelled[] = "CANCELLED";

/// What a change may have touched besides `transferred` and `size`.
enum class TransferChange : std::uint8_t {
  Progress,  ///< nothing
  Phase,     ///< phase and file
  End,       ///< phase, file, ended, httpStatus, outcome and reason
};

/// Told of each change, on the one thread of the daemon. It may read the records, but must neither
/// change nor cancel one from within a call.
class TransferObserver {
 public:
  TransferObserver() = default;
  virtual ~TransferObserver() = default;
  TransferObserver(const TransferObserver&) = delete;
  TransferObserver& operator=(const TransferObserver&) = delete;

  /// A request has arrived. A refused one ends before the request has been handled.
  virtual void transferAdded(const TransferRecord& record) = 0;
  /// Each phase is told at once; progress at most every kProgressMs for each transfer, so no
  /// observer needs to limit its rate. The last progress before a pause is not lost.
  virtual void transferChanged(const TransferRecord& record, TransferChange change) = 0;
  /// An ended record has given its place to a later one. It can no longer be found.
  virtual void transferRemoved(std::uint64_t number) = 0;
};

/// Ends a running transfer on behalf of the records.
class TransferCanceller {
 public:
  TransferCanceller() = default;
  virtual ~TransferCanceller() = default;
  TransferCanceller(const TransferCanceller&) = delete;
  TransferCanceller& operator=(const TransferCanceller&) = delete;

  /// Ends the transfer and its record. Returns false if it does not run.
  virtual bool cancelTransfer(std::uint64_t number) = 0;
};

/// The records of all transfers that run and of the last kMostEnded that have ended.
///
/// Records of running transfers are bounded by what runs; a refused request has ended as soon as it
/// is handled. A number that is not known, such as 0, is ignored by all operations. Nothing here
/// reads the clock or costs memory while no transfer runs.
class TransferRecords {
 public:
  static constexpr std::size_t kMostEnded = 32;
  static constexpr std::uint64_t kProgressMs = 200;

  TransferRecords() = default;
  TransferRecords(const TransferRecords&) = delete;
  TransferRecords& operator=(const TransferRecords&) = delete;

  /// @param observer told of every change from now on; nullptr: nobody. Not owned.
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
  /// Cancels a transfer that has not begun to be installed or flashed. Its requester receives the
  /// event of a failed transfer, "TRANSFER_FAILED", unless it has switched events off; its files
  /// are removed as after any failure. Must not be called while transfers are serviced or from an
  /// observer.
  Cancel cancel(std::uint64_t number);

  // For those who run transfers.

  /// Adds a record for a request that has arrived.
  /// @param facts requestId, requester, kind, direction, uri (which may hold user information) and
  ///              file; the rest is filled in
  /// @return its number
  std::uint64_t begin(const TransferRecord& facts);
  /// Names the file, when it is known only later.
  void setFile(std::uint64_t number, const std::string& file);
  /// Enters a later phase other than Ended. An earlier one or the same is ignored.
  void enter(std::uint64_t number, TransferPhase phase);
  /// @param transferred bytes so far
  /// @param size        bytes of the file, or 0 when that is not known
  void progress(std::uint64_t number, std::uint64_t transferred, std::uint64_t size);
  /// Ends the record, unless it has ended.
  /// @param reason a sentence, or a clause that becomes one; whatever it holds that looks like user
  ///               information of a URI is removed
  void end(std::uint64_t number, const std::string& outcome, const std::string& reason,
           int httpStatus = 0);

  /// Tells of progress that was held back and is due. Called at every pass.
  void flush();

  /// @param canceller ends running transfers; nullptr: none can be cancelled. Not owned.
  void setCanceller(TransferCanceller* canceller) { canceller_ = canceller; }

 private:
  struct Running {
    TransferRecord record;
    std::string userInfo;      // of the URI, to be removed from the reason
    std::uint64_t toldMs = 0;  // utils::nowMs() when the observer was told last
    bool hasNews = false;      // progress that it was not told
  };

  Running* running(std::uint64_t number);
  void tell(Running& running, TransferChange change);
  void keepEnded(TransferRecord record);

  TransferObserver* observer_ = nullptr;
  TransferCanceller* canceller_ = nullptr;
  std::uint64_t lastNumber_ = 0;
  std::map<std::uint64_t, Running> running_;
  std::deque<TransferRecord> ended_;  // in the order of their ends
};

}  // namespace kova::ctlserver
