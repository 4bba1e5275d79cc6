#include "tavlo/TavloApplication.h"

#include "agent/TavloAgent.h"
#include "platform/TavloLogger.h"

void TavloApplicationWillEnterForeground() {
  TavloNotificationCenter::defaultCenter()->postNotification(kTavloApplicationWillEnterForegroundNotification,
                                                             nullptr);
}

std::size_t TavloPendingHitCount() {
  const std::shared_ptr<TavloAgent> agent = TavloAgent::sharedAgentIfMade();
  return agent ? agent->pendingRequestCount() : 0;
}

bool TavloWaitForPendingHits(double timeoutSeconds) {
  const std::shared_ptr<TavloAgent> agent = TavloAgent::sharedAgentIfMade();
  return !agent || agent->waitUntilQueueEmpty(timeoutSeconds);
}

void TavloSetLoggingMode(int64_t mode) { TavloLogger::sharedLogger().setLoggingMode(mode); }

int64_t TavloGetLoggingMode() { return TavloLogger::sharedLogger().loggingMode(); }

void TavloShutdown() {
  if (const std::shared_ptr<TavloAgent> agent = TavloAgent::sharedAgentIfMade()) agent->shutdown();
}
