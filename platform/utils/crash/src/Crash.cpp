#include "kova/utils/Crash.h"

#include <execinfo.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>
#include <tuple>

#include "CrashInternal.h"
#include "CrashText.h"
#include "LoadedModules.h"
#include "kova/utils/UniqueFd.h"

// The handler only calls async-signal-safe functions, see signal-safety(7), and the GNU backtrace
// functions, which are safe once libgcc is loaded.

namespace kova::utils {
namespace {

constexpr std::array kFatalSignals{SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS};

// Ends the process even if the unwinder deadlocks on a lock that the crashed code holds.
constexpr unsigned kLongestReportSeconds = 3;

struct Settings {
  CrashText<1024> folder;
  sockaddr_un log{};
};

Settings settings;
LoadedModules modules;
alignas(16) std::array<char, 65536> alternateStack;
volatile sig_atomic_t isReporting = 0;  // a crash of the handler itself is not reported

#if defined(__x86_64__)
std::uintptr_t programCounter(const mcontext_t& machine) {
  return static_cast<std::uintptr_t>(machine.gregs[REG_RIP]);
}
#elif defined(__aarch64__)
std::uintptr_t programCounter(const mcontext_t& machine) {
  return machine.pc;
}
#else
#error "Add programCounter() for this processor's mcontext_t."
#endif

/// The report's file. An existing file is from an earlier process with the same id.
int createReport() {
  CrashText<1100> path;
  path.append(settings.folder.view()).append("/kova_crash.").appendNumber(getpid());
  unlink(path.text());
  return open(path.text(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

/// A socket to the system log; the time-out bounds the wait for a logger that hangs.
int connectToLog() {
  timeval patience{};
  patience.tv_usec = 200000;
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  return fd;
}

/// Destinations of a report: the file and the system log, as far as they are available.
class Sink {
 public:
  Sink() : file_(createReport()), log_(connectToLog()) {}

  void line(std::string_view line) {
    CrashText<1024> text;
    text.append(line).append("\n");
    std::ignore = write(file_.get(), text.text(), text.view().size());

    CrashText<1200> record;
    record.append("<").appendNumber(LOG_USER | LOG_CRIT).append(">");
    record.append(program_invocation_short_name).append("[").appendNumber(getpid()).append("]: ");
    record.append(line);
    if (sendto(log_.get(), record.text(), record.view().size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&settings.log), sizeof settings.log) < 0) {
      log_.reset();
    }
  }

 private:
  UniqueFd file_;
  UniqueFd log_;
};

/// Reports a line of backtrace_symbols_fd(3), followed by the frame's address within its ELF file.
/// Debug information is looked up by that address, wherever the file was loaded.
void reportFrame(Sink& sink, std::string_view symbols, const void* frame) {
  CrashText<1024> line;
  line.append(symbols);
  const auto address = reinterpret_cast<std::uintptr_t>(frame);
  if (const auto* module = modules.find(address); module != nullptr) {
    line.append(modules.isProgram(module) ? " program+0x" : " library+0x");
    line.appendHex(address - module->base);
  }
  sink.line(line.view());
}

/// Reports a backtrace. The lines pass through a pipe, because of the backtrace_symbols functions
/// only backtrace_symbols_fd(3) is safe here.
void reportBacktrace(Sink& sink) {
  std::array<void*, 48> frames;
  std::array<char, 16384> text;
  int ends[2] = {};
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
  const int count = backtrace(frames.data(), frames.size());
  backtrace_symbols_fd(frames.data(), count, ends[1]);
  // A single read returns everything in the pipe. Process exit closes both ends.
  const ssize_t filled = read(ends[0], text.data(), text.size());
  std::string_view rest(text.data(), static_cast<std::size_t>(std::max<ssize_t>(filled, 0)));
  for (const void* frame : std::span(frames).first(static_cast<std::size_t>(count))) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    reportFrame(sink, rest.substr(0, end), frame);
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
}

void limitReportTime() {
  sigset_t alarmSignal{};
  sigaddset(&alarmSignal, SIGALRM);
  signal(SIGALRM, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &alarmSignal, nullptr);
  alarm(kLongestReportSeconds);
}

/// Whether the signal has a fault address, that is, was raised by the kernel for a fault rather
/// than sent.
bool hasFaultAddress(const siginfo_t& info) {
  const int number = info.si_signo;
  return info.si_code > 0 &&
         (number == SIGSEGV || number == SIGBUS || number == SIGILL || number == SIGFPE);
}

void reportHeadline(Sink& sink, const siginfo_t& info, const ucontext_t& context) {
  CrashText<256> headline;
  headline.append("Crashed by signal ").appendNumber(static_cast<unsigned>(info.si_signo));
  headline.append(" (").append(sigdescr_np(info.si_signo)).append(")");
  headline.append(", program counter 0x").appendHex(programCounter(context.uc_mcontext));
  if (hasFaultAddress(info)) {
    headline.append(", fault address 0x");
    headline.appendHex(reinterpret_cast<std::uintptr_t>(info.si_addr));
  }
  sink.line(headline.view());
}

void reportBuild(Sink& sink) {
  CrashText<256> build;
  build.append("Build-id of the program: ");
  build.append(modules.buildId().empty() ? "none" : modules.buildId());
  sink.line(build.view());
}

/// The signal raised at the end is blocked until this handler returns, and then takes its default
/// action.
void onFatalSignal(int number, siginfo_t* info, void* context) {
  signal(number, SIG_DFL);
  if (isReporting == 0) {
    isReporting = 1;
    limitReportTime();
    Sink sink;
    reportHeadline(sink, *info, *static_cast<const ucontext_t*>(context));
    reportBuild(sink);
    reportBacktrace(sink);
  }
  raise(number);
}

bool useAlternateStack() {
  stack_t stack{};
  stack.ss_sp = alternateStack.data();
  stack.ss_size = alternateStack.size();
  return sigaltstack(&stack, nullptr) == 0;
}

bool handle(int number) {
  struct sigaction action {};
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  return sigaction(number, &action, nullptr) == 0;
}

}  // namespace

bool installCrashDumpHandler(const char* folder, const char* logSocket) {
  settings = Settings{};
  settings.folder.append(folder);
  settings.log.sun_family = AF_UNIX;
  const std::size_t socketLength = std::strlen(logSocket);
  if (settings.folder.view() != folder || socketLength >= sizeof settings.log.sun_path) {
    return false;
  }
  std::memcpy(settings.log.sun_path, logSocket, socketLength);

  modules.record();
  void* frame = nullptr;
  backtrace(&frame, 1);  // loads libgcc, which is not safe in the handler
  return useAlternateStack() && std::all_of(kFatalSignals.begin(), kFatalSignals.end(), handle);
}

bool InstallCrashDumpHandler(const char* folder) {
  return installCrashDumpHandler(folder != nullptr ? folder : "/var/log", "/dev/log");
}

void forceCrash() {
  std::abort();
}

}  // namespace kova::utils
