// Feeds arbitrary bytes to the authorisation exchange as the server's answer: the text up
// to the first line feed is the "Date" header (no line feed: no such header), the rest is
// the body. Whatever the server says, the record cached for the serial must be one hits
// can be sent under, and the clock difference must be what the date said.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "auth/TavloAuthManager.h"
#include "platform/TavloHttpDate.h"
#include "util/TavloText.h"
#include "util/TavloUrlSafety.h"

namespace {

constexpr TavloDate kDeviceNow = 1700000000;
constexpr uint32_t kLocalVisit = 7;
const std::string kSerial = "800000";

class FixedClock final : public TavloClock {
 public:
  TavloDate now() override { return kDeviceNow; }
  long utcOffsetAt(TavloDate) override { return 0; }
};

class FixedRandom final : public TavloRandom {
 public:
  uint32_t nextUInt32() override { return kLocalVisit; }
  std::string newUUIDString() override { return "00000000-0000-4000-8000-000000000000"; }
};

class FixedDevice final : public TavloDeviceInfo {
 public:
  std::string model() override { return "box"; }
  std::string systemVersion() override { return "1"; }
  std::optional<int32_t> userInterfaceIdiom() override { return TavloUserInterfaceIdiomTV; }
  std::optional<TavloScreen> mainScreen() override { return std::nullopt; }
  TavloString bundleName() override { return "fuzz"; }
  TavloString bundleVersion() override { return "1"; }
};

// Answers every request with the response of the input being run.
class AnsweringClient final : public TavloHttpClient {
 public:
  TavloHttpResponse response;
  TavloHttpResponse get(const TavloHttpRequest&) override { return response; }
};

const std::shared_ptr<AnsweringClient>& client() {
  static const auto shared = std::make_shared<AnsweringClient>();
  return shared;
}

const TavloPlatform& platform() {
  static const TavloPlatform shared = [] {
    TavloPlatform made;
    made.clock = std::make_shared<FixedClock>();
    made.random = std::make_shared<FixedRandom>();
    made.deviceInfo = std::make_shared<FixedDevice>();
    made.httpClient = client();
    made.endpoints = TavloEndpoints::allAt("https://endpoint.tavlo.example");
    return made;
  }();
  return shared;
}

bool holdsAnyOf(const TavloString& text, std::string_view characters) {
  return text && text->find_first_of(characters) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t lineEnd = input.find('\n');
  TavloHttpResponse& response = client()->response;
  response = TavloHttpResponse{};
  response.status = 200;
  std::optional<std::string> date;
  if (lineEnd != std::string_view::npos) {
    date = std::string(input.substr(0, lineEnd));
    response.headers.emplace_back("Date", *date);
  }
  response.body = std::string(input.substr(lineEnd == std::string_view::npos ? 0 : lineEnd + 1));

  const std::optional<TavloDate> serverDate = date ? TavloParseHttpDate(*date) : std::nullopt;
  if (serverDate && (!std::isfinite(*serverDate) || TavloParseHttpDate(*date) != serverDate)) __builtin_trap();

  TavloAuthManager manager(platform());
  const TavloTaggerID tagger(kSerial, TavloTaggerID::kAudiencePartialID, false);
  manager.authentificationInformationForTagger(tagger);
  if (manager.timeIntervalBetweenServerAndDevice() != (serverDate ? *serverDate - kDeviceNow : 0.0)) __builtin_trap();

  const auto first = manager.authFromCacheForTagger(tagger);
  if (!first || !first->currentAccess() || !first->currentSession()) __builtin_trap();
  const TavloAccess& access = *first->currentAccess();
  const TavloSession& session = *first->currentSession();
  // Hits go to the host: an answer may change it only for an address hits can start with.
  if (access.serial() != kSerial || session.serial() != kSerial || !access.baseURL() ||
      !TavloIsUsableHostURL(*access.baseURL()) || access.host() != *access.baseURL() + kSerial ||
      access.accessMode() < TavloAccessModeFull || access.accessMode() > TavloAccessModeDenied) {
    __builtin_trap();
  }
  // Values taken from the answer are whole pieces of a UTF-8 body, quotes removed.
  const bool answered = *access.baseURL() != platform().endpoints.secondCollection + "/m/web/" ||
                        session.cmsVI() != std::to_string(kLocalVisit);
  if (answered && (!TavloIsValidUTF8(response.body) || holdsAnyOf(access.baseURL(), "|=\"") ||
                   holdsAnyOf(session.cmsVI(), "|=\""))) {
    __builtin_trap();
  }

  // The same answer again changes nothing the cache holds.
  manager.authentificationInformationForTagger(tagger);
  const auto second = manager.authFromCacheForTagger(tagger);
  if (!second || !second->currentAccess() || !second->currentSession() ||
      second->currentAccess()->host() != access.host() ||
      second->currentAccess()->accessMode() != access.accessMode() ||
      second->currentSession()->cmsVI() != session.cmsVI()) {
    __builtin_trap();
  }
  return 0;
}
