// An application's test built against an installed Tavlo::testkit: the kit's headers name
// nothing beyond the public API, and its virtual-time queue runs timers only when told.
#include <cstdio>

#include <tavlo/TavloTagger.h>

#include <tavlo/testkit/TavloCapturingLogSink.h>
#include <tavlo/testkit/TavloManualClock.h>
#include <tavlo/testkit/TavloManualMainQueue.h>
#include <tavlo/testkit/TavloMemorySecureStore.h>
#include <tavlo/testkit/TavloScriptedHttpClient.h>
#include <tavlo/testkit/TavloSettableReachabilitySource.h>

int main() {
  auto clock = std::make_shared<TavloManualClock>(1000);
  TavloManualMainQueue queue(clock);
  int firings = 0;
  queue.schedule(120, true, [&] { ++firings; });
  queue.advanceBy(600);
  TavloScriptedHttpClient http;
  http.enqueue(TavloScriptedHttpClient::answer(200, "OK"));
  const bool ok = firings == 5 && clock->now() == 1600 && http.get(TavloHttpRequest{}).status == 200 &&
                  http.requestCount() == 1;
  // The kit comes with the library it stands beside.
  std::printf("Tavlo %s with its test kit\n", TavloTagger::TavloVersion().c_str());
  std::puts(ok ? "consumer: OK" : "consumer: FAILED");
  return ok ? 0 : 1;
}
