#include "tavlo/TavloApplication.h"
#include "tavlo/TavloDelivery.h"

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

void TavloSetConsent(TavloConsent consent, bool resetDeviceIdentifier) {
  TavloAgent::sharedAgent()->setConsent(consent, resetDeviceIdentifier);
}

TavloConsent TavloGetConsent() { return TavloAgent::sharedAgent()->consentOnceRead(); }

const char* TavloConsentName(TavloConsent consent) {
  switch (consent) {
    case TavloConsent::Granted:
      return "granted";
    case TavloConsent::Pending:
      return "pending";
    case TavloConsent::Revoked:
      return "revoked";
  }
  return "unknown";
}

std::vector<TavloDeliveryCounts> TavloDeliveryStats() {
  const std::shared_ptr<TavloAgent> agent = TavloAgent::sharedAgentIfMade();
  return agent ? agent->ledger().counts() : std::vector<TavloDeliveryCounts>{};
}

void TavloSetDropHandler(TavloDropHandler handler) { TavloAgent::sharedAgent()->ledger().setHandler(std::move(handler)); }

TavloFlushResult TavloFlush(double timeoutSeconds) {
  const std::shared_ptr<TavloAgent> agent = TavloAgent::sharedAgentIfMade();
  return agent ? agent->flush(timeoutSeconds) : TavloFlushResult{};
}
