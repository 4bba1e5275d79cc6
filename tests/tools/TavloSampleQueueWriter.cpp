// Writes a queue archive of known content to the path given as first argument, for the
// checks that read it back with independent readers and with tavlo-queue.
#include <fstream>

#include "request/TavloClearCache.h"
#include "archive/TavloKeyedArchiver.h"
#include "request/TavloRequest.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  auto access = TavloAccess::TavloAccessWithSerial("serial-9", TavloAccessModeRestricted, "https://c.example/m/web/");
  auto auth = TavloAuth::TavloAuthWithSession(TavloSession::TavloSessionWithSerial("serial-9", "31337"), access, false);
  auto parameters = std::make_shared<const TavloParameters>(TavloParameters{{"c", "home"}, {"ml1", "caf\xC3\xA9"}});
  auto streaming = TavloRequest::TavloRequestWithParameters(
      parameters, TavloRequestTypeStreaming, TavloSendingModeDisconnected, "serial-9",
      std::make_shared<TavloTaggerID>("serial-9", 3, true), 1700000000.5);
  streaming->setAuth(auth);
  streaming->setShouldRenewSessionAfter(true);
  streaming->setNumberOfFails(-2);
  auto audience = TavloRequest::TavloRequestWithParameters(
      parameters, TavloRequestTypeAudience, TavloSendingModeLive, "serial-9",
      std::make_shared<TavloTaggerID>("serial-9", TavloTaggerID::kAudiencePartialID, false), 978307200.0);
  audience->setAuth(auth->copy());

  const std::string data =
      TavloKeyedArchiver::archivedDataWithRootArray({streaming, audience, TavloClearCache::make()});
  std::ofstream out(argv[1], std::ios::binary);
  out.write(data.data(), static_cast<std::streamsize>(data.size()));
  return out.good() ? 0 : 1;
}
