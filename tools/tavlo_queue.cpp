// tavlo-queue: looks inside the file where the library keeps the hits it has not sent yet.
//
//   tavlo-queue list FILE [--json]   what the queue holds; exit 1 if the file is damaged
//   tavlo-queue validate FILE        exit 0 if the file is sound, else 1 and the reason
//   tavlo-queue path [APP_NAME]      where the library keeps the queue of an application
//
// The file is read with the library's own reader, so what is listed is what the library
// itself would load. A damaged file is never "just empty": what can still be decoded is
// listed, and every problem is reported on standard error.
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "agent/TavloQueueLocation.h"
#include "agent/TavloDeliveryLedger.h"
#include "agent/TavloSentJournal.h"
#include "TavloQueueReport.h"
#include "linux/TavloPosixFileSystem.h"
#include "tavlo/TavloVersion.h"

namespace {

constexpr int kExitOK = 0;
constexpr int kExitDamaged = 1;
constexpr int kExitUsage = 2;

const char* const kSynopsis =
    "usage: tavlo-queue list FILE [--json]\n"
    "       tavlo-queue validate FILE\n"
    "       tavlo-queue path [APP_NAME]\n"
    "       tavlo-queue --help | --version\n";

const char* const kDetails =
    "\n"
    "  list      prints every queued request: kind (audience, streaming, marker), sending mode,\n"
    "            status, fails, creation and last-fail times (ISO 8601 UTC and seconds since\n"
    "            1970), serial, tagger identity, authorisation and parameters; --json prints\n"
    "            one JSON object instead, problems included; the text listing also says which\n"
    "            hits the sent journal marks as sent, and what the last run that shut down\n"
    "            did with its hits (queued, sent, dropped by reason)\n"
    "  validate  exits 0 when the file is sound, 1 with a one-line reason when it is damaged\n"
    "            or unreadable\n"
    "  path      prints where the library keeps the queue of the application that names\n"
    "            itself APP_NAME ($XDG_DATA_HOME or ~/.local/share, the application's folder,\n"
    "            TavloCache/requests.ser); without APP_NAME, that of an unnamed application\n"
    "\n"
    "For a damaged file, list shows what can still be read and reports the damage on\n"
    "standard error. Exit status: 0 sound, 1 damaged or unreadable, 2 wrong usage.\n";

int usageError(const std::string& message) {
  std::fprintf(stderr, "tavlo-queue: %s\n%s", message.c_str(), kSynopsis);
  return kExitUsage;
}

// Output that could not be written (a full disk, a closed pipe) must not pass for success.
int finish(int status) {
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "tavlo-queue: could not write the output\n");
    return kExitDamaged;
  }
  return status;
}

void reportProblems(const std::string& file, const TavloQueueReport& report) {
  for (const std::string& problem : report.problems()) {
    std::fprintf(stderr, "tavlo-queue: %s: %s\n", file.c_str(), problem.c_str());
  }
}

// Hits sent since the file was last written stay in it until the next rewrite (a drained
// queue's file may hold only sent hits); the journal beside it names them, and the next
// start drops them.
void reportSentJournal(TavloPosixFileSystem& files, const std::string& file, const TavloQueueReport& report) {
  std::string journal;
  if (!report.isReadable() || files.readFile(TavloSentJournal::pathFor(file), journal, 64 * 1024 * 1024)) return;
  const std::vector<uint32_t> sent =
      TavloSentJournal::sentPositions(journal, report.fileFingerprint(), report.elements().size());
  if (sent.empty()) return;
  std::string positions;
  for (const uint32_t position : sent) positions += (positions.empty() ? "#" : ", #") + std::to_string(position);
  std::printf("already sent, as %s says (the next start drops them): %s\n",
              TavloSentJournal::pathFor(file).c_str(), positions.c_str());
  std::printf("still to send: %zu of %zu\n", report.elements().size() - sent.size(), report.elements().size());
}

// What the last run that shut down cleanly did with its hits, as it left it beside the file.
void reportDelivery(TavloPosixFileSystem& files, const std::string& file) {
  std::string text;
  if (files.readFile(file + ".delivery", text, 1024 * 1024)) return;
  const std::vector<TavloDeliveryCounts> all = TavloDeliveryLedger::fromText(text);
  if (all.empty()) return;
  std::printf("the last run's hits, as %s.delivery says:\n", file.c_str());
  for (const TavloDeliveryCounts& counts : all) {
    std::string dropped;
    for (std::size_t reason = 0; reason < kTavloDropReasonCount; ++reason) {
      if (counts.dropped[reason] == 0) continue;
      dropped += (dropped.empty() ? " (" : ", ") + std::to_string(counts.dropped[reason]) + " " +
                 TavloDropReasonName(static_cast<TavloDropReason>(reason));
    }
    if (!dropped.empty()) dropped += ")";
    std::printf("  serial %s, %s: %llu queued, %llu sent, %llu dropped%s\n", counts.serial.c_str(),
                counts.requestType == 1 ? "streaming" : "audience", static_cast<unsigned long long>(counts.queued),
                static_cast<unsigned long long>(counts.sent), static_cast<unsigned long long>(counts.droppedInAll()),
                dropped.c_str());
  }
}

int list(const std::string& file, bool asJson) {
  const TavloQueueReport report = TavloQueueReport::fromFile(file);
  const std::string output = asJson ? report.json(file) : report.text(file);
  std::fwrite(output.data(), 1, output.size(), stdout);
  if (!asJson) {
    TavloPosixFileSystem files;
    reportSentJournal(files, file, report);
    reportDelivery(files, file);
  }
  reportProblems(file, report);
  return finish(report.isValid() ? kExitOK : kExitDamaged);
}

int validate(const std::string& file) {
  const TavloQueueReport report = TavloQueueReport::fromFile(file);
  if (report.isValid()) {
    std::printf("%s: valid, %s\n", file.c_str(), report.summary().c_str());
    return finish(kExitOK);
  }
  const std::vector<std::string>& problems = report.problems();
  std::string reason = problems.front();
  if (problems.size() > 1) reason += " (and " + std::to_string(problems.size() - 1) + " more problems)";
  std::fprintf(stderr, "%s: %s: %s\n", file.c_str(), report.isReadable() ? "damaged" : "unreadable",
               reason.c_str());
  return finish(kExitDamaged);
}

int path(const std::optional<std::string>& applicationName) {
  // The very lookup the library makes, environment and password entry included.
  const std::string dataDirectory = TavloPosixFileSystem().dataDirectory();
  if (dataDirectory.empty()) {
    std::fprintf(stderr,
                 "tavlo-queue: no data directory: neither XDG_DATA_HOME nor HOME is an absolute path, "
                 "and the user has no home directory\n");
    return kExitDamaged;
  }
  std::printf("%s\n", TavloQueueFilePath(dataDirectory, applicationName).c_str());
  return finish(kExitOK);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> operands;
  bool asJson = false;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (optionsEnded || argument.empty() || argument[0] != '-' || argument == "-") {
      operands.push_back(argument);
    } else if (argument == "--") {
      optionsEnded = true;
    } else if (argument == "--json") {
      asJson = true;
    } else if (argument == "--help" || argument == "-h") {
      std::fputs(kSynopsis, stdout);
      std::fputs(kDetails, stdout);
      return finish(kExitOK);
    } else if (argument == "--version") {
      std::printf("tavlo-queue %s\n", TavloVersionString);
      return finish(kExitOK);
    } else {
      return usageError("unknown option " + argument);
    }
  }
  if (operands.empty()) return usageError("no command given");

  const std::string& command = operands.front();
  if (asJson && command != "list") return usageError("--json goes with list only");
  if (command == "list" || command == "validate") {
    if (operands.size() != 2) return usageError(command + " takes exactly one FILE");
    return command == "list" ? list(operands[1], asJson) : validate(operands[1]);
  }
  if (command == "path") {
    if (operands.size() > 2) return usageError("path takes at most one APP_NAME");
    return path(operands.size() == 2 ? std::optional<std::string>(operands[1]) : std::nullopt);
  }
  return usageError("unknown command " + command);
}
