#include "linux/TavloSyslogLogSink.h"

#include <syslog.h>

#include <cerrno>
#include <string>

namespace {
void writeToSyslog(int priority, const char* line) { ::syslog(priority, "%s", line); }
}  // namespace

TavloSyslogLogSink::TavloSyslogLogSink(int facility, Writer writer)
    : facility(facility), writer(writer ? writer : writeToSyslog) {}

int TavloSyslogLogSink::priorityOf(TavloLogLevel level) {
  switch (level) {
    case TavloLogLevel::Info:
      return LOG_INFO;
    case TavloLogLevel::Warning:
      return LOG_WARNING;
    case TavloLogLevel::Error:
      return LOG_ERR;
  }
  return LOG_NOTICE;
}

bool TavloSyslogLogSink::isFacility(int facility) {
  return facility >= 0 && facility <= LOG_LOCAL7 && (facility & LOG_PRIMASK) == 0;
}

void TavloSyslogLogSink::writeLine(std::string_view line, TavloLogLevel level) {
  // As with the standard error sink: a caller that logs after a failed call may still
  // want its errno, and syslog may change it (reconnecting to /dev/log).
  const int savedErrno = errno;
  // syslog wants a C string, and a NUL inside the line would end it early anyway.
  const std::string text(line.substr(0, line.find('\0')));
  writer(facility | priorityOf(level), text.c_str());
  errno = savedErrno;
}
