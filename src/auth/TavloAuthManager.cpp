#include "auth/TavloAuthManager.h"

#include <algorithm>
#include <map>
#include <mutex>

#include "identity/TavloUserAgent.h"
#include "platform/TavloHttpDate.h"
#include "platform/TavloInstalledPlatform.h"
#include "platform/TavloLogger.h"
#include "util/TavloLogSafe.h"
#include "util/TavloText.h"
#include "util/TavloUrlSafety.h"

namespace {

// "key=value|key=value": pieces without "=" are ignored, a value stops at its second "=",
// double quotes are removed from values, a later key overwrites an earlier one.
std::map<std::string, std::string> parseAnswer(const std::string& body) {
  std::map<std::string, std::string> pairs;
  size_t start = 0;
  while (start <= body.size()) {
    size_t end = body.find('|', start);
    if (end == std::string::npos) end = body.size();
    const std::string_view piece(body.data() + start, end - start);
    const size_t equals = piece.find('=');
    if (equals != std::string_view::npos) {
      const std::string_view rest = piece.substr(equals + 1);
      std::string value(rest.substr(0, rest.find('=')));
      value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
      pairs[std::string(piece.substr(0, equals))] = std::move(value);
    }
    start = end + 1;
  }
  return pairs;
}

}  // namespace

std::shared_ptr<TavloAuthManager> TavloAuthManager::manager() {
  static const std::shared_ptr<TavloAuthManager> shared = [] {
    return std::make_shared<TavloAuthManager>(TavloPlatformForSingleton());
  }();
  return shared;
}

TavloAuthManager::TavloAuthManager(const TavloPlatform& platform) : platform_(platform) {}

int32_t TavloAuthManager::accessModeFromString(const TavloString& word) {
  if (word == "denied") return TavloAccessModeDenied;
  if (word == "restricted") return TavloAccessModeRestricted;
  return TavloAccessModeFull;
}

std::shared_ptr<TavloAuth> TavloAuthManager::authFromCacheForTagger(const TavloTaggerID& tagger) {
  return authFromCacheForKey(tagger);
}

std::shared_ptr<TavloAuth> TavloAuthManager::authFromCacheForKey(const TavloTaggerID& key) {
  std::shared_lock lock(cacheAccess);
  const auto found = TavloAuths.find(key);
  if (found == TavloAuths.end() || !found->second) return nullptr;
  return found->second->copy();
}

void TavloAuthManager::setAuthToCache(std::shared_ptr<TavloAuth> auth, const TavloTaggerID& key) {
  std::unique_lock lock(cacheAccess);
  TavloAuths.insert_or_assign(*key.copy(), std::move(auth));
}

void TavloAuthManager::forgetAuthForTagger(const TavloTaggerID& tagger) {
  std::unique_lock lock(cacheAccess);
  TavloAuths.erase(tagger);
}

void TavloAuthManager::clearCache() {
  std::unique_lock lock(cacheAccess);
  TavloAuths.clear();
}

std::shared_ptr<TavloAuth> TavloAuthManager::authForTagger(const TavloTaggerID& tagger) {
  const std::shared_ptr<TavloAuth> cached = authFromCacheForKey(tagger);
  if (!cached || cached->isDefaultValues()) authentificationInformationForTagger(tagger);
  return authFromCacheForKey(tagger);
}

void TavloAuthManager::hitSuccessfullySentForTagger(const TavloTaggerID& tagger) {
  const std::shared_ptr<TavloAuth> cached = authFromCacheForKey(tagger);
  std::shared_ptr<TavloAccess> access = cached ? cached->currentAccess() : nullptr;
  if (access) access->hitSuccessfullySent();
  // The cached authorisation shares its access with the copy: it is marked already, and
  // an authorisation put in the cache meanwhile must not be replaced by this older one.
  if (cached) return;
  setAuthToCache(TavloAuth::TavloAuthWithSession(nullptr, nullptr, false), tagger);
}

void TavloAuthManager::authentificationInformationForTagger(const TavloTaggerID& tagger) {
  const TavloString& serial = tagger.serial();
  std::shared_ptr<TavloSession> session =
      TavloSession::TavloSessionWithSerial(serial, std::to_string(platform_.random->nextUInt32()));
  const std::string fallbackBase =
      (tagger.isStreamTagger() ? platform_.endpoints.streamingCollection : platform_.endpoints.secondCollection) +
      "/m/web/";
  std::shared_ptr<TavloAccess> access =
      TavloAccess::TavloAccessWithSerial(serial, TavloAccessModeFull, fallbackBase);
  bool isDefault = true;

  // The authorisation URL is the endpoint, "/" and the serial, unescaped: a serial that
  // could not stand there as one path segment makes no request at all.
  if (serial && TavloIsUsableSerial(*serial) && platform_.httpClient) {
    TavloHttpRequest request;
    request.url = platform_.endpoints.authorisation + "/" + *serial;
    request.headers = {{"User-Agent", TavloUserAgentOf(*platform_.deviceInfo)}};
    request.timeoutSeconds = 60;
    const TavloHttpResponse response = platform_.httpClient->get(request);

    if (response.status) {
      // The delta changes with every answer, even one whose body is of no use.
      const std::optional<std::string> dateHeader = response.header("Date");
      const std::optional<TavloDate> serverDate = dateHeader ? TavloParseHttpDate(*dateHeader) : std::nullopt;
      deltaBetweenServerAndDevice_.store(serverDate ? *serverDate - platform_.clock->now() : 0.0);

      // A body that is not UTF-8 text reads as no answer at all.
      std::map<std::string, std::string> pairs;
      if (TavloIsValidUTF8(response.body)) pairs = parseAnswer(response.body);
      const auto accessWord = pairs.find("access");
      const auto host = pairs.find("host");
      const auto cmsVI = pairs.find("cmsVI");
      // A host that is no absolute http(s) address, or that carries a query or fragment
      // of its own, would lose or misdirect every hit: such an answer is no answer.
      if (host != pairs.end() && !TavloIsUsableHostURL(host->second)) {
        log("The authorisation answer for serial " + *serial + " names the host \"" + TavloLogSafe(host->second) +
                "\", which is not an http or https address usable for hits; the defaults apply",
            TavloLoggingModeWarning);
      } else if (accessWord != pairs.end() && host != pairs.end() && cmsVI != pairs.end()) {
        log("Access for serial " + *serial + " is " + TavloLogSafe(accessWord->second) + " on host " + host->second,
            TavloLoggingModeInfo);
        auto answered = TavloAccess::TavloAccessWithSerial(serial, accessModeFromString(accessWord->second),
                                                           host->second);
        // An answer that keeps the mode keeps the cached access too: its first-hit flag,
        // and its host even if the server now names another.
        const std::shared_ptr<TavloAuth> cached = authFromCacheForKey(tagger);
        const std::shared_ptr<TavloAccess> cachedAccess = cached ? cached->currentAccess() : nullptr;
        access = (cachedAccess && cachedAccess->accessMode() == answered->accessMode()) ? cachedAccess : answered;
        session = TavloSession::TavloSessionWithSerial(serial, cmsVI->second);
        isDefault = false;
      }
    }
  }

  log("Serial " + TavloLogSafe(access->serial().value_or("(null)")) + " on host " +
          TavloLogSafe(access->host().value_or("(null)")),
      TavloLoggingModeInfo);
  setAuthToCache(TavloAuth::TavloAuthWithSession(session, access, isDefault), tagger);
}
