#include "support/TavloSampleQueue.h"

#include <string>

#include "request/TavloClearCache.h"
#include "request/TavloRequest.h"

std::vector<std::shared_ptr<TavloCodable>> TavloSampleQueue(std::size_t requests, std::size_t parameters,
                                                            bool uniqueValues) {
  static const char* const kPages[] = {"home", "guide", "replay", "live", "search", "settings", "caf\xC3\xA9", "news"};
  std::vector<std::shared_ptr<TavloCodable>> queue;
  queue.reserve(requests + 1);
  std::shared_ptr<TavloAuth> auth;
  std::shared_ptr<TavloTaggerID> audienceTagger;
  std::shared_ptr<TavloTaggerID> streamingTagger;
  for (std::size_t i = 0; i < requests; ++i) {
    const std::string serial = "serial-" + std::to_string(i / 50);
    if (i % 50 == 0) {
      auto access = TavloAccess::TavloAccessWithSerial(serial, TavloAccessModeRestricted, "https://c.example/m/web/");
      auth = TavloAuth::TavloAuthWithSession(TavloSession::TavloSessionWithSerial(serial, "31337"), access, false);
      audienceTagger = std::make_shared<TavloTaggerID>(serial, TavloTaggerID::kAudiencePartialID, false);
      streamingTagger = std::make_shared<TavloTaggerID>(serial, static_cast<int64_t>(i), true);
    }
    auto values = std::make_shared<TavloParameters>();
    for (std::size_t p = 0; p < parameters; ++p) {
      std::string value;
      if (uniqueValues || p % 7 == 6) {
        value = std::to_string(1700000000123 + i * parameters + p);  // time stamps, counters
      } else if (p % 7 == 5) {
        value = kPages[(i + p) % 8];
      } else {
        value = "TavloTV/5.4.5 (value " + std::to_string(p) + ")";  // application and device
      }
      values->emplace("parameter" + std::to_string(p), std::move(value));
    }
    const bool audience = i % 2 == 0;
    auto request = TavloRequest::TavloRequestWithParameters(values, audience ? TavloRequestTypeAudience : TavloRequestTypeStreaming,
                                                            audience ? TavloSendingModeLive : TavloSendingModeDisconnected, serial,
                                                            audience ? audienceTagger : streamingTagger,
                                                            1700000000.25 + static_cast<double>(i));
    request->setAuth(auth);
    if (i % 10 == 9) {
      request->setNumberOfFails(2);
      request->setLastFail(1700000100.5 + static_cast<double>(i));
    }
    queue.push_back(std::move(request));
  }
  queue.push_back(TavloClearCache::make());
  return queue;
}
