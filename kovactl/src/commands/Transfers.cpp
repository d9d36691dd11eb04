#include <chrono>
#include <map>

#include "../Command.h"
#include "../Objects.h"
#include "../Output.h"
#include "../Terminal.h"
#include "../Text.h"
#include "../TransferFollower.h"
#include "../TransferRecord.h"

namespace kova::ctl {
namespace {

using Records = std::vector<TransferRecord>;
using variant::Variant;

ExitStatus showOnce(const Options& options, Objects& objects) {
  Records records;
  Objects::Answer answer;
  if (const ExitStatus asked = objects.readTransfers(records, answer); asked != ExitStatus::Ok) {
    return asked;
  }
  if (!answer.error.empty()) {
    return reportFailure(answer, "the list of transfers", options.host);
  }
  Variant list = Variant::Array{};
  for (const TransferRecord& record : records) {
    list.pushToArray(transferResult(record));
  }
  const std::string text = transferTable(records);
  return present(options, list, outputIsTerminal() ? wrap(text, terminalSize().columns) : text);
}

// Presents the changes since the previous call, one line each.
class Changes {
 public:
  explicit Changes(const Options& options) : options_(options) {}

  ExitStatus present(const Records& records) {
    std::map<std::string, TransferRecord> seen;
    for (const TransferRecord& record : records) {
      const auto before = last_.find(record.number);
      const bool changed = before == last_.end() || isNews(before->second, record);
      const ExitStatus shown =
          changed ? presentEach(options_, transferResult(record), transferLine(record) + "\n")
                  : ExitStatus::Ok;
      if (shown != ExitStatus::Ok) {
        return shown;
      }
      seen[record.number] = record;
    }
    last_ = std::move(seen);
    return ExitStatus::Ok;
  }

 private:
  // As text only a new phase or outcome, as JSON every change.
  bool isNews(const TransferRecord& before, const TransferRecord& now) const {
    return options_.json ? !(before == now)
                         : before.phase != now.phase || before.outcome != now.outcome;
  }

  const Options& options_;
  std::map<std::string, TransferRecord> last_;
};

// Waits for a change, at most kMost. Waits at least kLeast, the camera's interval between signals,
// so that a burst causes one read.
ExitStatus awaitChange(Objects& objects, const bool& changed) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kLeast(200);
  constexpr std::chrono::seconds kMost(2);
  constexpr unsigned kSliceMs = 50;
  const auto start = Clock::now();
  while (Clock::now() - start < (changed ? Clock::duration(kLeast) : Clock::duration(kMost))) {
    if (stopRequested()) {
      return stopStatus();
    }
    if (!objects.bus().Service(kSliceMs)) {
      return fail(ExitStatus::Unreachable, "the connection to the bus was lost");
    }
  }
  return ExitStatus::Ok;
}

using Frame = std::function<ExitStatus(const Records&)>;

ExitStatus readInto(const Options& options, Objects& objects, const Frame& frame) {
  Records records;
  Objects::Answer answer;
  if (const ExitStatus asked = objects.readTransfers(records, answer); asked != ExitStatus::Ok) {
    return asked;
  }
  if (answer.error.empty()) {
    return frame(records);
  }
  // A camera that is flashing its firmware does not answer now: keep watching.
  return exitForError(answer.error) == ExitStatus::NoAnswer
             ? ExitStatus::Ok
             : reportFailure(answer, "the list of transfers", options.host);
}

ExitStatus repeat(const Options& options, Objects& objects, const Frame& frame) {
  bool changed = false;
  objects.bus().follow("/kova", [&changed](const auto&) { changed = true; });
  while (true) {
    changed = false;
    ExitStatus status = readInto(options, objects, frame);
    status = status == ExitStatus::Ok ? awaitChange(objects, changed) : status;
    if (status != ExitStatus::Ok) {
      return status;
    }
  }
}

ExitStatus watch(const Options& options, Objects& objects) {
  if (outputIsTerminal() && !options.json) {
    AlternateScreen screen;
    return repeat(options, objects, [&screen](const Records& records) {
      return screen.show("Ctrl-C to stop\n\n" + transferTable(records)) ? ExitStatus::Ok : show("");
    });
  }
  Changes changes(options);
  return repeat(options, objects,
                [&changes](const Records& records) { return changes.present(records); });
}

ExitStatus cancel(const Options& options, const std::string& number) {
  if (!isTransferNumber(number)) {
    return fail(ExitStatus::Usage, "\"" + number +
                                       "\" is not the number of a transfer: \"kovactl transfers\" "
                                       "lists them");
  }
  Objects objects(options);
  if (const ExitStatus opened = objects.open(); opened != ExitStatus::Ok) {
    return opened;
  }
  const ExitStatus cancelled = cancelTransfer(objects, number);
  return cancelled == ExitStatus::Ok ? present(options, Variant::Map{{"id", number}},
                                               "Transfer " + number + " is cancelled.\n")
                                     : cancelled;
}

}  // namespace

Action setUpTransfers(CommandLine& line) {
  auto watching = std::make_shared<bool>(false);
  line.flag("--watch", *watching, "Repeat until Ctrl-C");
  line.footer(
      "Shows the running transfers and the last 32 that ended, with the reason for each failure. "
      "On a terminal --watch refreshes in place, elsewhere it prints a line for each new phase; "
      "with --json it prints a line for each change.");
  return [watching](const Options& options) {
    Objects objects(options);
    const ExitStatus opened = objects.open();
    if (opened != ExitStatus::Ok) {
      return opened;
    }
    return *watching ? watch(options, objects) : showOnce(options, objects);
  };
}

Action setUpCancel(CommandLine& line) {
  auto number = std::make_shared<std::string>();
  line.argument("N", *number, "Number of the transfer, as \"kovactl transfers\" lists it");
  line.footer("A transfer that is being installed or flashed cannot be cancelled.");
  return [number](const Options& options) { return cancel(options, *number); };
}

}  // namespace kova::ctl
