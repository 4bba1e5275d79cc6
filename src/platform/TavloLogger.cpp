#include "platform/TavloLogger.h"

#include "platform/TavloInstalledPlatform.h"
#include "tavlo/platform/TavloLogSink.h"
#include "util/TavloLogSafe.h"

TavloLogger& TavloLogger::sharedLogger() {
  // Never destroyed: threads that outlive static destruction may still log.
  static TavloLogger* const logger = new TavloLogger();
  return *logger;
}

const char* TavloLogger::levelWord(int64_t mode) {
  switch (mode) {
    case TavloLoggingModeInfo:
      return "INFO";
    case TavloLoggingModeWarning:
      return "WARNING";
    case TavloLoggingModeError:
      return "ERROR";
    default:
      return "";
  }
}

void TavloLogger::log(std::string_view message, int64_t mode) { logTo(nullptr, message, mode); }

void TavloLogger::logTo(TavloLogSink* sink, std::string_view message, int64_t mode) {
  const auto threshold = static_cast<uint64_t>(sharedLogger().loggingMode());
  if (threshold > static_cast<uint64_t>(mode)) return;
  std::shared_ptr<TavloLogSink> installed;
  if (!sink) {
    installed = TavloInstalledLogSink();
    sink = installed.get();
  }
  std::string line;
  line.reserve(message.size() + 16);
  line.append("(").append(levelWord(mode)).append(") : ").append(message);
  sink->writeLine(line, static_cast<TavloLogLevel>(mode));
}

void TavloLogger::runReportingFailures(const std::string& queue, const std::function<void()>& task) {
  try {
    task();
  } catch (const std::exception& failure) {
    log("A " + queue + " task threw (" + TavloLogSafe(failure.what()) + "); it was dropped and the queue goes on",
        TavloLoggingModeError);
  } catch (...) {
    log("A " + queue + " task threw an unknown exception; it was dropped and the queue goes on", TavloLoggingModeError);
  }
}
