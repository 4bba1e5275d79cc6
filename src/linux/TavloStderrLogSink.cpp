#include "linux/TavloStderrLogSink.h"

#include <signal.h>

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

namespace {

// Writing to a pipe whose reader has gone raises SIGPIPE, which ends the process unless
// the application handles it; an application started as `app 2>&1 | head` must not die
// because of a diagnostic line. SIGPIPE is held back in this thread for the one write,
// and a SIGPIPE that the write raised is taken off the pending set before it is let
// through again. One that was pending before stays pending for the application.
class SigpipeHeldBack {
 public:
  SigpipeHeldBack() {
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    sigset_t pending;
    sigemptyset(&pending);
    wasPending = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    held = pthread_sigmask(SIG_BLOCK, &sigpipe, &previousMask) == 0;
  }
  ~SigpipeHeldBack() {
    if (!held) return;
    if (brokePipe && !wasPending) {
      sigset_t sigpipe;
      sigemptyset(&sigpipe);
      sigaddset(&sigpipe, SIGPIPE);
      const struct timespec noWait {};
      while (sigtimedwait(&sigpipe, nullptr, &noWait) == -1 && errno == EINTR) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  }
  SigpipeHeldBack(const SigpipeHeldBack&) = delete;
  SigpipeHeldBack& operator=(const SigpipeHeldBack&) = delete;
  void noteBrokenPipe() { brokePipe = true; }

 private:
  sigset_t previousMask{};
  bool held = false;
  bool wasPending = false;
  bool brokePipe = false;
};

// One write carries the whole line; the loop only finishes a write the kernel cut short
// (a full pipe) or one a signal interrupted. A closed or broken descriptor is not worth
// failing over: the line is dropped.
void writeWhole(int descriptor, const std::string& text) {
  SigpipeHeldBack sigpipeHeldBack;
  const char* next = text.data();
  size_t remaining = text.size();
  while (remaining > 0) {
    const ssize_t written = ::write(descriptor, next, remaining);
    if (written < 0) {
      if (errno == EINTR) continue;
      if (errno == EPIPE) sigpipeHeldBack.noteBrokenPipe();
      return;
    }
    next += written;
    remaining -= static_cast<size_t>(written);
  }
}

}  // namespace

void TavloStderrLogSink::writeLine(std::string_view line, TavloLogLevel) {
  // Callers often log right after a failed call and may still want to read its errno.
  const int savedErrno = errno;
  struct timespec moment {};
  clock_gettime(CLOCK_REALTIME, &moment);
  std::string text = prefixAt(moment.tv_sec, static_cast<int>(moment.tv_nsec / 1000000));
  text.append(line);
  text.push_back('\n');
  writeWhole(descriptor, text);
  errno = savedErrno;
}
