#pragma once

#include <csignal>
#include <cstddef>
#include <ctime>
#include <memory>
#include <optional>
#include <vector>

namespace kova::ctlserver {

/// Bounds how long servers can keep the engine inside libcurl: libcurl and OpenSSL keep reading as
/// long as bytes without payload arrive. When a turn exceeds its budget, a timer signal cuts every
/// watched socket; nothing is left to read, libcurl returns, and the transfers fail. The budget is
/// CPU time of the thread: a flooded pass computes all the time, while a pass that waits for a busy
/// processor or a slow disk is not the server's fault.
///
/// Init must be called by the thread that pumps; pumpSignal() is sent to it. The handler makes only
/// async-signal-safe calls and preserves errno; interrupted calls restart. The timer runs only
/// during a Pass, so no other call is interrupted. Child programs inherit neither timer nor
/// handler.
class PumpGuard {
 public:
  /// Set to 1 when the socket it belongs to is cut.
  using Mark = std::shared_ptr<volatile std::sig_atomic_t>;

  PumpGuard() = default;
  ~PumpGuard();
  PumpGuard(const PumpGuard&) = delete;
  PumpGuard& operator=(const PumpGuard&) = delete;

  /// Creates the timer and installs the handler. Must be called before the first Pass. Returns
  /// false, with the reason logged, if the system refuses; passes are then no-ops.
  bool Init();

  /// Begins a turn, whose passes share a budget of kTurnMs plus kTransferMs per transfer.
  void beginTurn(std::size_t transfers);

  /// Adds a socket that the guard may cut. Call forget() before closing it.
  void watch(int fd, Mark cut);
  void forget(int fd);

  /// Scope of a turn in which sockets may be read; the timer runs. Passes do not nest.
  class Pass {
   public:
    /// @param armed false if there is nothing to guard; the pass then makes no system call
    Pass(PumpGuard& guard, bool armed);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

   private:
    PumpGuard* guard_;
  };

  /// Budget of one turn, and the extra for each transfer. The ten transfers that a camera may run
  /// get less than a second together, yet a slow processor can handle the 1.6 MB that libcurl reads
  /// per transfer and pass.
  static constexpr int kTurnMs = 600;
  static constexpr int kTransferMs = 10;

 private:
  struct Socket {
    int fd;
    Mark cut;
  };

  static void onSignal(int number, siginfo_t* info, void* context);
  void arm();
  void disarm();
  void cut();

  std::vector<Socket> sockets_;  // changed only with the signal blocked
  timespec left_{};              // processor time left in this turn
  volatile std::sig_atomic_t armed_ = 0;
  volatile std::sig_atomic_t fired_ = 0;
  std::optional<timer_t> timer_;
};

/// The signal of all guards: SIGRTMIN, because a libcurl built without threads uses SIGALRM.
int pumpSignal();

}  // namespace kova::ctlserver
