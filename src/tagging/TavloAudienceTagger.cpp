#include "tavlo/TavloAudienceTagger.h"

#include <initializer_list>
#include <mutex>
#include <vector>

#include "agent/TavloAgent.h"
#include "identity/TavloTaggerID.h"
#include "platform/TavloLogger.h"
#include "tagging/TavloAudienceTaggerImpl.h"
#include "tagging/TavloHitParameter.h"
#include "tagging/TavloTaggerState.h"
#include "util/TavloLogSafe.h"
#include "util/TavloText.h"
#include "util/TavloUrlSafety.h"

namespace {
// One lock for every caller of the factory, so two threads asking for the same tagger at
// once still get one tagger.
std::recursive_mutex& factoryLock() {
  static std::recursive_mutex* const lock = new std::recursive_mutex();
  return *lock;
}
}  // namespace

TavloAudienceTagger::TavloAudienceTagger(std::unique_ptr<Impl> impl, TavloString serial, TavloString customerData)
    : TavloTagger(std::move(serial), std::move(customerData)), impl_(std::move(impl)) {}

TavloAudienceTagger::~TavloAudienceTagger() = default;

std::shared_ptr<TavloAudienceTagger> TavloAudienceTagger::TavloAudienceTaggerWithSerial(TavloString serial,
                                                                                        TavloString customerData) {
  return Impl::make(TavloAgent::sharedAgent(), std::move(serial), std::move(customerData));
}

std::shared_ptr<TavloAudienceTagger> TavloAudienceTagger::Impl::make(const std::shared_ptr<TavloAgent>& agent,
                                                                     TavloString serial, TavloString customerData) {
  if (!agent) return nullptr;
  std::lock_guard lock(factoryLock());
  if (auto registered = agent->TavloAudienceTaggerWithSerial(serial, customerData)) return registered;
  // Said once, when the tagger is made: its hits are then dropped without a line each.
  if (serial && !serial->empty() && !TavloIsUsableSerial(*serial)) {
    agent->log("TavloAudienceTagger - Serial \"" + TavloLogSafe(*serial) +
                   "\" is not usable: a serial must stand in a URL path as one segment; this tagger's hits "
                   "are dropped",
               TavloLoggingModeError);
  }
  auto impl = std::make_unique<Impl>(
      agent, std::make_shared<TavloTaggerID>(serial, TavloTaggerID::kAudiencePartialID, false));
  auto tagger = std::shared_ptr<TavloAudienceTagger>(
      new TavloAudienceTagger(std::move(impl), std::move(serial), std::move(customerData)));
  agent->addTavloAudienceTagger(tagger);
  return tagger;
}

void TavloAudienceTagger::addParam(const TavloString& value, const std::string& key, TavloParameters* dictionary,
                                   std::size_t limit) {
  if (dictionary == nullptr) return;
  TavloAddHitParameter(*dictionary, key, value, limit);
}

void TavloAudienceTagger::sendHitWithLevel1(const TavloString& level1, const TavloString& level2,
                                            const TavloString& level3, const TavloString& level4) {
  const std::shared_ptr<TavloAgent> agent = impl_->agent_.lock();
  if (!agent) return;
  // Without a serial the hit could only reach the collection server unattributed.
  TavloString mySerial = serial();
  if (!mySerial || mySerial->empty()) {
    agent->log("TavloAudienceTagger - Hit dropped: this tagger has no serial", TavloLoggingModeError);
    return;
  }
  // The serial would bend the authorisation and collection addresses (logged when the
  // tagger was made).
  if (!TavloIsUsableSerial(*mySerial)) return;
  const std::shared_ptr<TavloAuth> cached = agent->authManager()->authFromCacheForTagger(*impl_->taggerID_);
  if (cached && (!cached->currentAccess() || !cached->currentAccess()->canSendRequestFor(TavloRequestTypeAudience))) {
    return;
  }

  // What the hit is made of is fixed here, as the call found it; the dictionary itself is
  // built on the agent's handler thread, so the application's thread neither builds it
  // nor takes (and later frees) its memory. Only the values present are captured: what
  // waits in the hand-over stays small however many hits wait.
  TavloDefaultParameters::HitDraw draw = agent->drawForHit();
  TavloHitProperties properties = state().hitProperties();
  TavloString did = properties.useIDFA ? agent->appleDID() : std::nullopt;
  const TavloDate now = agent->platform().clock->now();
  TavloString theCustomerData = customerData();

  struct Value {
    const char* key;
    std::string text;
    std::size_t limit;
  };
  std::vector<Value> values;
  const auto capture = [&values](TavloString& value, const char* key, std::size_t limit = 0) {
    if (value && !value->empty()) values.push_back({key, std::move(*value), limit});
  };
  const auto countPresent = [](std::initializer_list<const TavloString*> texts) {
    std::size_t count = 0;
    for (const TavloString* text : texts) count += *text && !(*text)->empty();
    return count;
  };
  std::size_t present = countPresent({&level1, &level2, &level3, &level4, &did, &theCustomerData,
                                      &properties.mediaContentId, &properties.mediaDiffMode,
                                      &properties.mediaChannel, &properties.netMeasurement});
  for (const TavloString& level : properties.newLevels) present += level && !level->empty();
  values.reserve(present);
  TavloString levels[4] = {level1, level2, level3, level4};
  capture(levels[0], "c");
  capture(levels[1], "p");
  capture(levels[2], "l3");
  capture(levels[3], "l4");
  if (properties.useIDFA) capture(did, "did");
  TavloForEachSharedHitParameter(properties, theCustomerData, capture);

  TavloString countedAs = mySerial;  // whose hit a drop before it is made counts against
  agent->addRequestMadeByHandler([values = std::move(values), draw = std::move(draw), serial = std::move(mySerial),
                                  taggerID = impl_->taggerID_, now](TavloAgent& agent) mutable {
    TavloParameters parameters = agent.defaultParametersWith(std::move(draw));
    // In the order of capture: a later key replaces an earlier value, a default's included.
    for (Value& value : values) TavloAddHitParameter(parameters, value.key, std::move(value.text), value.limit);
    return TavloRequest::TavloRequestWithParameters(std::make_shared<const TavloParameters>(std::move(parameters)),
                                                    TavloRequestTypeAudience, TavloSendingModeLive, std::move(serial),
                                                    std::move(taggerID), now);
  }, std::move(countedAs), TavloRequestTypeAudience);
}
