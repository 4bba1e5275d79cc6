#include "tavlo/TavloApplication.h"

#include "agent/TavloAgent.h"

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

void TavloShutdown() {
  if (const std::shared_ptr<TavloAgent> agent = TavloAgent::sharedAgentIfMade()) agent->shutdown();
}
