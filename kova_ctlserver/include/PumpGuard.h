#pragma once

#include <csignal>
#include <cstddef>
#include <ctime>
#include <memory>
#include <optional>
#include <vector>

namespace kova::ctlserver {

/// Bounds the time that servers can keep the engine inside libcurl: libcurl and OpenSSL keep
/// reading while bytes arrive that carry no data. When a turn of the engine exceeds its time, the
/// signal of a timer cuts every watched socket; nothing remains to be read, libcurl returns, and
/// the transfers fail. Processor time of the thread counts: a held pass computes all the time,
/// while a pass that waits for a busy processor or a slow disk is not the fault of a server.
///
/// Init must be called by the thread that pumps; pumpSignal() is sent to it. The handler makes only
/// async-signal-safe calls and preserves errno; interrupted calls restart. The timer runs only
/// during a Pass, so no other call is interrupted. A started program inherits neither timer nor
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
  /// false, with the reason logged, if the system refuses; passes then guard nothing.
  bool Init();

  /// Begins a turn. Its passes may take kTurnMs together, plus kTransferMs for each transfer, of
  /// the thread's processor time.
  void beginTurn(std::size_t transfers);

  /// Adds a socket that the guard may cut. It must be forgotten before it is closed.
  void watch(int fd, Mark cut);
  void forget(int fd);

  /// A part of the turn in which sockets may be read. Passes do not nest.
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

  /// Time for the passes of one turn, and for each transfer on top. With the ten transfers that a
  /// camera may run, a turn takes less than a second of it; a slow processor has time for the 1.6
  /// MB that libcurl reads per transfer and pass.
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

/// The signal of all guards, SIGRTMIN: a libcurl built without threads uses SIGALRM.
int pumpSignal();

}  // namespace kova::ctlserver
