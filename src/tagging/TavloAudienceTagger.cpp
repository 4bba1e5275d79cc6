#include "tavlo/TavloAudienceTagger.h"

#include <mutex>

#include "agent/TavloAgent.h"
#include "platform/TavloLogger.h"
#include "tagging/TavloTaggerID.h"
#include "tagging/TavloText.h"
#include "util/TavloLogSafe.h"
#include "util/TavloUrlSafety.h"

namespace {
// One lock for every caller of the factory, so two threads asking for the same tagger at
// once still get one tagger.
std::recursive_mutex& factoryLock() {
  static std::recursive_mutex* const lock = new std::recursive_mutex();
  return *lock;
}

constexpr std::size_t kLevelLengthLimit = 256;
const char* const kFreeLevelKeys[TavloTagger::kNewLevelCount] = {"ml1", "ml2", "ml3", "ml4",  "ml5", "ml6",
                                                                 "ml7", "ml8", "ml9", "ml10", "ml11"};
}  // namespace

TavloAudienceTagger::TavloAudienceTagger(std::weak_ptr<TavloAgent> agent, TavloString serial,
                                         TavloString customerData)
    : TavloTagger(serial, std::move(customerData)),
      agent_(std::move(agent)),
      taggerID_(std::make_shared<TavloTaggerID>(std::move(serial), TavloTaggerID::kAudiencePartialID, false)) {}

TavloAudienceTagger::~TavloAudienceTagger() = default;

std::shared_ptr<TavloAudienceTagger> TavloAudienceTagger::TavloAudienceTaggerWithSerial(TavloString serial,
                                                                                        TavloString customerData) {
  return TavloAudienceTaggerWithSerial(TavloAgent::sharedAgent(), std::move(serial), std::move(customerData));
}

std::shared_ptr<TavloAudienceTagger> TavloAudienceTagger::TavloAudienceTaggerWithSerial(
    const std::shared_ptr<TavloAgent>& agent, TavloString serial, TavloString customerData) {
  if (!agent) return nullptr;
  std::lock_guard lock(factoryLock());
  if (auto registered = agent->TavloAudienceTaggerWithSerial(serial, customerData)) return registered;
  // Said once, when the tagger is made: its hits are then dropped without a line each.
  if (serial && !serial->empty() && !TavloIsUsableSerial(*serial)) {
    TavloLogger::log("TavloAudienceTagger - Serial \"" + TavloLogSafe(*serial) +
                         "\" is not usable: a serial must stand in a URL path as one segment; this tagger's hits "
                         "are dropped",
                     TavloLoggingModeError);
  }
  auto tagger = std::shared_ptr<TavloAudienceTagger>(new TavloAudienceTagger(agent, serial, customerData));
  agent->addTavloAudienceTagger(tagger);
  return tagger;
}

void TavloAudienceTagger::addParam(const TavloString& value, const std::string& key, TavloParameters* dictionary,
                                   std::size_t limit) {
  if (!value || value->empty() || key.empty() || dictionary == nullptr) return;
  // Cuts count UTF-16 code units, as the collection server's other clients count them.
  (*dictionary)[key] = (limit != 0 && TavloUTF16Length(*value) > limit) ? TavloUTF16Prefix(*value, limit) : *value;
}

void TavloAudienceTagger::sendHitWithLevel1(const TavloString& level1, const TavloString& level2,
                                            const TavloString& level3, const TavloString& level4) {
  const std::shared_ptr<TavloAgent> agent = agent_.lock();
  if (!agent) return;
  // Without a serial the hit could only reach the collection server unattributed.
  const TavloString mySerial = serial();
  if (!mySerial || mySerial->empty()) {
    TavloLogger::log("TavloAudienceTagger - Hit dropped: this tagger has no serial", TavloLoggingModeError);
    return;
  }
  // The serial would bend the authorisation and collection addresses (logged when the
  // tagger was made).
  if (!TavloIsUsableSerial(*mySerial)) return;
  const std::shared_ptr<TavloAuth> cached = agent->authManager()->authFromCacheForTagger(*taggerID_);
  if (cached && (!cached->currentAccess() || !cached->currentAccess()->canSendRequestFor(TavloRequestTypeAudience))) {
    return;
  }

  auto parameters = std::make_shared<TavloParameters>(agent->defaultParameters());
  addParam(level1, "c", parameters.get());
  addParam(level2, "p", parameters.get());
  addParam(level3, "l3", parameters.get());
  addParam(level4, "l4", parameters.get());
  if (useIDFA()) addParam(agent->appleDID(), "did", parameters.get());
  addParam(customerData(), "crmid", parameters.get());
  for (int level = 1; level <= kNewLevelCount; ++level) {
    addParam(newLevel(level), kFreeLevelKeys[level - 1], parameters.get(), kLevelLengthLimit);
  }
  addParam(mediaContentId(), "msCid", parameters.get(), kLevelLengthLimit);
  addParam(mediaDiffMode(), "msDm", parameters.get(), kLevelLengthLimit);
  addParam(mediaChannel(), "msCh", parameters.get(), kLevelLengthLimit);
  addParam(netMeasurement(), "miCh", parameters.get(), kLevelLengthLimit);

  agent->addRequestToQueue(TavloRequest::TavloRequestWithParameters(
      std::move(parameters), TavloRequestTypeAudience, TavloSendingModeLive, mySerial, taggerID_,
      agent->platform().clock->now()));
}
