#include "platform/TavloStderrLogSink.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

TavloStderrLogSink::TavloStderrLogSink(int descriptor) : descriptor(descriptor) {}

std::string TavloStderrLogSink::prefixAt(long long seconds, int milliseconds) {
  const time_t moment = static_cast<time_t>(seconds);
  struct tm local {};
  if (localtime_r(&moment, &local) == nullptr) local = tm{};
  char text[96];
  const int length = std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d Tavlo[%ld] ",
                                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                                   local.tm_min, local.tm_sec, milliseconds, static_cast<long>(getpid()));
  if (length <= 0) return {};
  return std::string(text, std::min(static_cast<size_t>(length), sizeof text - 1));
}

void TavloStderrLogSink::writeLine(std::string_view line) {
  struct timespec moment {};
  clock_gettime(CLOCK_REALTIME, &moment);
  std::string text = prefixAt(moment.tv_sec, static_cast<int>(moment.tv_nsec / 1000000));
  text.append(line);
  text.push_back('\n');

  // One write carries the whole line; the loop only finishes a write the kernel cut
  // short (a full pipe) or one a signal interrupted. A closed or broken descriptor is
  // not worth failing over: the line is dropped.
  const char* next = text.data();
  size_t remaining = text.size();
  while (remaining > 0) {
    const ssize_t written = ::write(descriptor, next, remaining);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    next += written;
    remaining -= static_cast<size_t>(written);
  }
}
