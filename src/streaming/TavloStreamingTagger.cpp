#include "tavlo/TavloStreamingTagger.h"

#include <algorithm>
#include <array>
#include <exception>
#include <span>
#include <string_view>

#include "agent/TavloAgent.h"
#include "identity/TavloTaggerID.h"
#include "platform/TavloInstalledPlatform.h"
#include "platform/TavloLogger.h"
#include "platform/TavloNotificationCenter.h"
#include "platform/TavloReachability.h"
#include "request/TavloRequest.h"
#include "streaming/TavloStreamingTaggerImpl.h"
#include "streaming/TavloTimer.h"
#include "tagging/TavloHitParameter.h"
#include "tagging/TavloTaggerState.h"
#include "tavlo/TavloAudienceTagger.h"
#include "util/TavloLocked.h"
#include "util/TavloLogSafe.h"
#include "util/TavloUrlSafety.h"

namespace {

constexpr double kPollingInterval = 1.0;
constexpr double kThrottlePeriod = 1.0;
// Only the last two positions ever reach a hit. A box that plays for days would otherwise
// grow the history for ever, so it is cut back to the last one at this length.
constexpr std::size_t kPositionHistoryLimit = 100;
constexpr const char* kDumpRule = "------------------------------";

// The parameter rule shared by both taggers: absent or empty values are left out and
// limits count UTF-16 code units.
void addParam(TavloString value, std::string_view key, TavloParameters& dictionary, std::size_t limit = 0) {
  TavloAddHitParameter(dictionary, key, std::move(value), limit);
}

bool isBlankOnly(const TavloString& text) {
  return !text || std::all_of(text->begin(), text->end(), [](char c) { return c == ' '; });
}

const char* eventName(uint64_t event) {
  switch (event) {
    case TavloStreamingEventPlay:
      return "play";
    case TavloStreamingEventPause:
      return "pause";
    case TavloStreamingEventStop:
      return "stop";
    default:
      return "none";
  }
}

// Polling hits fall 10, 20 and 40 seconds after polling began, then on every whole minute.
bool pollingHitDue(uint64_t seconds) {
  if (seconds <= 40) return seconds == 10 || seconds == 20 || seconds == 40;
  return seconds % 60 == 0;
}

// The version's major part: "5" of "5.4.5".
std::string majorVersion(const std::string& version) { return version.substr(0, version.find('.')); }

}  // namespace

// What the factory hands the constructor.
struct TavloStreamingTagger::Impl::Setup {
  std::shared_ptr<TavloAgent> agent;
  std::shared_ptr<TavloTaggerID> taggerID;
  TavloString serial;
  TavloString mediaName;
  int64_t mediaVolume = 0;
  TavloString mediaURL;
  int64_t mediaLength = 0;
  TavloStreamingType streamingType = TavloStreamingTypeDelegatePosition;
  TavloStreamingConfig config;
  bool canSend = false;
};

// What a hit takes from outside the tagger when it happens: its draw of "n" and "uid",
// the advertising identifier, the time.
struct TavloStreamingTagger::Impl::HitEnvironment {
  TavloDefaultParameters::HitDraw draw;
  bool useIDFA = false;
  TavloString did;
  TavloDate now = 0;
};

// What every hit of a tagger carries unchanged, shared by all its recipes.
struct TavloStreamingTagger::Impl::HitConstants {
  TavloString level1, level2, level3, level4, level5;
  TavloString serial;
  TavloString customerData;
  std::shared_ptr<TavloTaggerID> taggerID;
  std::shared_ptr<TavloDeviceInfo> deviceInfo;
  std::shared_ptr<TavloLogSink> logSink;  // the platform's; none: the installed one
};

// A hit as its event found the tagger: everything its dictionary is built from. The
// application's thread only fills this in; the dictionary is built on the agent's thread
// (makeHit), so that thread, not the application's, takes and frees its memory. A recipe
// dropped unmade (an agent that refused the hand-over) is made where it is dropped, for
// its dump, which is unconditional.
struct TavloStreamingTagger::Impl::HitRecipe {
  std::shared_ptr<const HitConstants> constants;
  const char* eventType = "";  // a static text
  int64_t current = 0;         // "cmsPO"
  int64_t previous = 0;        // "cmsOP"
  uint64_t code = 0;           // "cmsPS"
  int64_t mediaVolume = 0;
  int64_t mediaLength = 0;
  TavloString mediaProvider, mediaName, mediaGenre, mediaURL;
  TavloHitProperties properties;
  TavloSendingMode mode = TavloSendingModeLive;
  HitEnvironment environment;
  int64_t rank = 0;  // 0: ranked when handed over
  bool renewsSession = false;
  bool made = false;
};

// A log line waiting for the lock to be released, through the logger; or a parameter
// dump, written straight to the log sink whatever the threshold. A fixed text is kept as
// a pointer to it, not copied.
struct TavloStreamingTagger::Impl::PendingLine {
  std::string text;
  int64_t mode = TavloLoggingModeInfo;
  std::shared_ptr<ParameterDump> dump = nullptr;  // when set, written instead of a line
  const char* fixedText = nullptr;                // when set, written instead of `text`
};

// The parameter dump of a hit handed over at once. Formatting it and writing three lines
// (a write(2) each, to stderr) cost more than building the hit, on the application's own
// thread; so the caller only notes which keys came after the dump's place, and the
// agent's thread writes the dump when it takes the hit, before the hit is queued. A hit
// dropped before it is taken still has its dump written, where it is dropped: the dump is
// unconditional.
class TavloStreamingTagger::Impl::ParameterDump {
 public:
  ParameterDump(std::shared_ptr<TavloLogSink> sink, bool useIDFA) : sink_(std::move(sink)), useIDFA_(useIDFA) {}
  ~ParameterDump() { write(); }
  ParameterDump(const ParameterDump&) = delete;
  ParameterDump& operator=(const ParameterDump&) = delete;

  // Puts a parameter added after the dump's place, noting what the dump must not show.
  void add(TavloParameters& parameters, TavloString value, std::string_view key, std::size_t limit = 0) {
    std::string earlier;
    const bool given = value && !value->empty();
    if (TavloAddHitParameter(parameters, key, std::move(value), limit, &earlier)) {
      if (addedCount_ < added_.size()) added_[addedCount_++] = key;  // the keys are static texts
    } else if (given) {
      // Never with today's defaults; kept right all the same. The first value is the one shown.
      if (std::none_of(replaced_.begin(), replaced_.end(), [&](const auto& entry) { return entry.first == key; })) {
        replaced_.emplace_back(std::string(key), std::move(earlier));
      }
    }
  }
  // The finished dictionary, which the dump shows as it stood at its place.
  void setParameters(std::shared_ptr<const TavloParameters> parameters) { parameters_ = std::move(parameters); }

  // Writes the three lines, once; never mixed with another dump's, from any thread.
  void write() {
    if (!parameters_ || !sink_) return;
    std::string text = useIDFA_ ? "1 " : "0 ";
    TavloAppendParametersDescription(text, *parameters_, std::span(added_.data(), addedCount_), replaced_);
    parameters_.reset();
    static std::mutex oneAtATime;
    std::lock_guard lock(oneAtATime);
    sink_->writeLine(kDumpRule, TavloLogLevel::Info);
    sink_->writeLine(text, TavloLogLevel::Info);
    sink_->writeLine(kDumpRule, TavloLogLevel::Info);
  }

 private:
  const std::shared_ptr<TavloLogSink> sink_;
  const bool useIDFA_;
  std::shared_ptr<const TavloParameters> parameters_;
  std::array<std::string_view, 32> added_;  // more than the 27 keys a hit adds after the dump
  std::size_t addedCount_ = 0;
  std::vector<std::pair<std::string, std::string>> replaced_;
};

TavloStreamingTagger::Impl::Impl(Setup&& setup)
    : agent_(setup.agent),
      platform_(setup.agent ? setup.agent->platform() : TavloPlatform{}),
      center_(setup.agent ? setup.agent->notificationCenter() : nullptr),
      taggerID_(setup.canSend ? std::move(setup.taggerID) : nullptr),
      streamingType_(setup.canSend ? setup.streamingType : TavloStreamingTypeDelegatePosition),
      constants_(std::make_shared<const HitConstants>(
          HitConstants{setup.config.level1(), setup.config.level2(), setup.config.level3(), setup.config.level4(),
                       setup.config.level5(), setup.serial, setup.config.customerData(), taggerID_,
                       platform_.deviceInfo, platform_.logSink})),
      canSend_(setup.canSend),
      mediaName_(std::move(setup.mediaName)),
      mediaGenre_(setup.config.mediaGenre()),
      mediaProvider_(setup.config.mediaProvider()),
      mediaURL_(std::move(setup.mediaURL)),
      mediaVolume_(setup.mediaVolume),
      mediaLength_(setup.mediaLength) {
  positions_.reserve(kPositionHistoryLimit);
}

TavloStreamingTagger::Impl::~Impl() {
  if (reachability_) reachability_->stopNotifier();
  if (center_ && reachabilityObserver_ != 0) center_->removeObserver(reachabilityObserver_);
  std::lock_guard lock(stateProtector);
  stopPollingLocked();
  if (timerThrottle_) timerThrottle_->invalidate();
  timerThrottle_.reset();
}

TavloStreamingTagger::TavloStreamingTagger(std::unique_ptr<Impl> impl, TavloString serial, TavloString customerData)
    : TavloTagger(std::move(serial), std::move(customerData)), impl_(std::move(impl)) {
  impl_->owner_ = this;
  state().setCanSend(impl_->canSend_);
}

// The timers and observers hold the public object weakly, so whatever runs on the main
// queue keeps the tagger, and this with it, alive while it runs; the destructor stops them.
TavloStreamingTagger::~TavloStreamingTagger() = default;

std::shared_ptr<TavloStreamingTagger> TavloStreamingTagger::TavloStreamingTaggerWithSerial(
    TavloString serial, TavloString mediaName, int64_t mediaVolume, TavloString mediaURL, int64_t mediaLength,
    TavloStreamingType streamingType, ConfigurationBlock configurationBlock) {
  return Impl::make(TavloAgent::sharedAgent(), std::move(serial), std::move(mediaName), mediaVolume,
                    std::move(mediaURL), mediaLength, streamingType, std::move(configurationBlock));
}

std::shared_ptr<TavloStreamingTagger> TavloStreamingTagger::Impl::make(
    const std::shared_ptr<TavloAgent>& agent, TavloString serial, TavloString mediaName, int64_t mediaVolume,
    TavloString mediaURL, int64_t mediaLength, TavloStreamingType streamingType,
    ConfigurationBlock configurationBlock) {
  if (!agent) return rejected(agent, "Init streaming tag failed : no agent to send hits through");
  auto taggerID = std::make_shared<TavloTaggerID>(serial, static_cast<int64_t>(agent->getPartialID()), true);
  if (isBlankOnly(serial)) return rejected(agent, "Init streaming tag failed : serial is mandatory");
  // The serial ends the authorisation URL and the collection address: one that would
  // not stand there as a single path segment would send the hits somewhere else.
  if (!TavloIsUsableSerial(*serial)) {
    const std::string message = "Init streaming tag failed : serial \"" + TavloLogSafe(*serial) +
                                "\" is not usable: a serial must stand in a URL path as one segment";
    return rejected(agent, message.c_str());
  }
  if (isBlankOnly(mediaName)) return rejected(agent, "Init streaming tag failed : mediaName is mandatory");

  Setup setup;
  if (configurationBlock) {
    try {
      configurationBlock(setup.config);
    } catch (...) {
      // Measurement goes on with what the callback set before it failed.
      TavloLogger::logTo(agent ? agent->platform().logSink.get() : nullptr,
                         "TavloStreamingTagger - The configuration callback threw: the medium is measured with what "
                         "it set before",
                         TavloLoggingModeError);
    }
  }
  setup.agent = agent;
  setup.taggerID = std::move(taggerID);
  setup.serial = std::move(serial);
  setup.mediaName = std::move(mediaName);
  setup.mediaVolume = mediaVolume;
  setup.mediaURL = std::move(mediaURL);
  setup.mediaLength = mediaLength;
  setup.streamingType = streamingType;
  setup.canSend = true;
  TavloString customerData = setup.config.customerData();
  TavloString theSerial = setup.serial;
  std::shared_ptr<TavloStreamingTagger> tagger(new TavloStreamingTagger(
      std::make_unique<Impl>(std::move(setup)), std::move(theSerial), std::move(customerData)));
  tagger->impl_->start();
  return tagger;
}

std::shared_ptr<TavloStreamingTagger> TavloStreamingTagger::Impl::rejected(const std::shared_ptr<TavloAgent>& agent,
                                                                     const char* message) {
  TavloLogger::logTo(agent ? agent->platform().logSink.get() : nullptr, message, TavloLoggingModeError);
  Setup setup;
  setup.agent = agent;
  return std::shared_ptr<TavloStreamingTagger>(
      new TavloStreamingTagger(std::make_unique<Impl>(std::move(setup)), std::nullopt, std::nullopt));
}

void TavloStreamingTagger::Impl::start() {
  reachability_ = TavloReachability::reachabilityForInternetConnection(platform_, center_);
  reachabilityStatusChanged();
  if (!center_) return;
  const auto changed = [weakTagger = owner_->weak_from_this()](const std::string&, const void*) {
    if (const auto tagger = weakTagger.lock()) tagger->impl_->reachabilityStatusChanged();
  };
  reachabilityObserver_ = center_->addObserver(std::string(kTavloReachabilityChangedNotification), changed);
  if (reachability_) reachability_->startNotifier();
}

void TavloStreamingTagger::Impl::reachabilityStatusChanged() {
  // Without a monitor the network state is unknown: hits are then made as disconnected
  // ones, time-stamped, which stay right whenever they are finally sent.
  const bool reachable = reachability_ && reachability_->isReachable();
  std::lock_guard lock(stateProtector);
  disconnectedMode_ = !reachable;
}

// Properties.

std::shared_ptr<TavloStreamingTaggerDelegate> TavloStreamingTagger::Impl::delegate() const {
  std::lock_guard lock(stateProtector);
  return delegate_.lock();
}

void TavloStreamingTagger::Impl::setDelegate(std::weak_ptr<TavloStreamingTaggerDelegate> delegate) {
  TavloLockedWrite(stateProtector, delegate_, std::move(delegate));
}

TavloSendingMode TavloStreamingTagger::Impl::sendingMode() const {
  return TavloLockedRead(stateProtector, sendingMode_);
}

void TavloStreamingTagger::Impl::setSendingMode(TavloSendingMode sendingMode) {
  if (!canSend_) return;
  if (sendingMode != TavloSendingModeTimestamped && sendingMode != TavloSendingModeLive &&
      sendingMode != TavloSendingModeDisconnected) {
    log("TavloStreamingTagger - Sending mode " + std::to_string(static_cast<int64_t>(sendingMode)) +
            " is not 0, 1 or 2: the mode stays " + std::to_string(static_cast<int64_t>(this->sendingMode())),
        TavloLoggingModeError);
    return;
  }
  {
    std::lock_guard lock(stateProtector);
    sendingMode_ = sendingMode;
  }
  reachabilityStatusChanged();
}

TavloSendingMode TavloStreamingTagger::Impl::getCurrentMode() const {
  std::lock_guard lock(stateProtector);
  return currentModeLocked();
}

TavloSendingMode TavloStreamingTagger::Impl::currentModeLocked() const {
  return disconnectedMode_ ? TavloSendingModeDisconnected : sendingMode_;
}

// Events.

void TavloStreamingTagger::Impl::notifyEvent(TavloStreamingEvent event) {
  int64_t position = TavloStreamingTaggerUnknownLocation;
  if (streamingType_ == TavloStreamingTypeDelegatePosition) position = positionFromDelegate().value_or(position);
  notifyEvent(event, position);
}

void TavloStreamingTagger::Impl::notifyEvent(TavloStreamingEvent event, int64_t position) {
  if (!canSend_) return;
  if (event != TavloStreamingEventPlay && event != TavloStreamingEventPause && event != TavloStreamingEventStop) {
    log("TavloStreamingTagger - Event " + std::to_string(static_cast<uint64_t>(event)) +
            " is not play (0), pause (1) or stop (2): ignored",
        TavloLoggingModeError);
    return;
  }
  const std::shared_ptr<TavloAgent> agent = agent_.lock();
  if (!agent) return;
  const bool refused = accessRefusesStreaming(*agent);
  // Gathered before the lock, so the lock is never held while the agent works.
  HitEnvironment environment = refused ? HitEnvironment{} : this->environment(*agent);

  PendingLines lines;
  lines.reserve(4);
  {
    std::lock_guard lock(stateProtector);
    if (refused) {
      stopPollingLocked();
      return;
    }
    uint64_t accepted = event;
    if (accepted == TavloStreamingEventPause) {
      // Spent on the first pause even when that pause is refused: only the very first
      // pause a first-pause-stops tagger hears of ends its programme.
      if (streamingType_ == TavloStreamingTypeFirstPauseStops && !hasBeenPaused_) accepted = TavloStreamingEventStop;
      hasBeenPaused_ = true;
    }
    if (!authorizedEventLocked(static_cast<TavloStreamingEvent>(accepted))) {
      if (TavloLogger::wouldLog(TavloLoggingModeInfo)) {
        lines.push_back({std::string("TavloStreamingTagger - Event ") + eventName(accepted) + " refused after " +
                             eventName(lastEvent_),
                         TavloLoggingModeInfo});
      }
    } else {
      lastEvent_ = accepted;
      if (position != TavloStreamingTaggerUnknownLocation) recordPositionLocked(position);
      const bool makesHit = accepted != TavloStreamingEventPlay || currentModeLocked() == TavloSendingModeLive;
      if (makesHit) {
        // A hit handed over at once goes as a recipe with its rank, made and dumped on the
        // agent's thread; a throttled one is made now, since its dump is written now (it
        // may never be handed over), and ranked when it is sent, if it is.
        const bool throttled = accepted != TavloStreamingEventStop && lastSentCode_;
        std::shared_ptr<HitRecipe> recipe = recipeLocked("state", accepted, environment, throttled ? 0 : ++rank_);
        if (throttled) {
          std::shared_ptr<ParameterDump> dump;
          lastThrottledRequest_ = makeHit(*recipe, *agent, dump);
          lines.push_back({std::string(), TavloLoggingModeInfo, std::move(dump)});
          lines.push_back({std::string(), TavloLoggingModeWarning, nullptr, "TavloStreamingTagger - Throttle request"});
        } else if (accepted == TavloStreamingEventStop) {
          recipe->renewsSession = true;
          outbox_.push_back({nullptr, std::move(recipe)});
          resetTaggerLocked();
        } else {
          lastSentCode_ = recipe->code;
          outbox_.push_back({nullptr, std::move(recipe)});
          timerThrottle_ = armTimer(kThrottlePeriod, &Impl::handleThrottledEvent, false);
        }
      }
      if (accepted != TavloStreamingEventStop) startPollingLocked();
    }
  }
  emit(lines);
  drainOutbox(*agent);
}

bool TavloStreamingTagger::Impl::authorizedEventLocked(TavloStreamingEvent event) const {
  if (event == lastEvent_) return false;
  switch (event) {
    case TavloStreamingEventPlay:
      return true;
    case TavloStreamingEventStop:
      return lastEvent_ == TavloStreamingEventPlay || lastEvent_ == TavloStreamingEventPause;
    case TavloStreamingEventPause:
      return lastEvent_ == TavloStreamingEventPlay;
    default:
      return false;
  }
}

uint64_t TavloStreamingTagger::Impl::TavloStreamingEventToIntegerValueLocked(uint64_t event) const {
  // Outside live mode the collection server takes every event as a plain audience
  // signal, code 5.
  if (currentModeLocked() != TavloSendingModeLive) return 5;
  switch (event) {
    case TavloStreamingEventPlay:
      return 5;
    case TavloStreamingEventPause:
      return 7;
    default:
      return 12;
  }
}

void TavloStreamingTagger::Impl::recordPositionLocked(int64_t position) {
  if (positions_.size() >= kPositionHistoryLimit) positions_.erase(positions_.begin(), positions_.end() - 1);
  positions_.push_back(position);
}

// Hits.

TavloStreamingTagger::Impl::HitEnvironment TavloStreamingTagger::Impl::environment(TavloAgent& agent) const {
  HitEnvironment environment;
  environment.draw = agent.drawForHit();
  environment.useIDFA = owner_->useIDFA();
  if (environment.useIDFA) environment.did = agent.appleDID();
  environment.now = platform_.clock ? platform_.clock->now() : 0;
  return environment;
}

bool TavloStreamingTagger::Impl::accessRefusesStreaming(TavloAgent& agent) const {
  const std::shared_ptr<TavloAuth> cached = agent.authManager()->authFromCacheForTagger(*taggerID_);
  return cached && (!cached->currentAccess() || !cached->currentAccess()->canSendRequestFor(TavloRequestTypeStreaming));
}

std::shared_ptr<TavloStreamingTagger::Impl::HitRecipe> TavloStreamingTagger::Impl::recipeLocked(
    const char* eventType, uint64_t event, HitEnvironment& environment, int64_t rank) const {
  // Unmade when its last holder lets go (a hand-over refused): made there, for its dump.
  // One never filled in (its holder could not even be made) has nothing to dump.
  std::shared_ptr<HitRecipe> recipe(new HitRecipe, [weakAgent = agent_](HitRecipe* unmade) {
    if (!unmade->made && unmade->constants) {
      if (const auto agent = weakAgent.lock()) {
        try {
          std::shared_ptr<ParameterDump> dump;  // written as it goes out of scope
          makeHit(*unmade, *agent, dump);
        } catch (...) {
          // Out of memory: the hit was never going to be sent, and its dump is lost with it.
        }
      }
    }
    delete unmade;
  });
  const std::size_t count = positions_.size();
  int64_t current = count >= 1 ? positions_.back() : 0;
  if (event == TavloStreamingEventStop && !(count >= 1 && positions_.back() > 0)) {
    // A player often reports 0 at its stop: the last position polled says more.
    current = positionFromPolling_.value_or(0);
  }
  recipe->constants = constants_;
  recipe->eventType = eventType;
  recipe->current = current;
  recipe->previous = count >= 2 ? positions_[count - 2] : 0;
  recipe->code = TavloStreamingEventToIntegerValueLocked(event);
  recipe->mediaVolume = mediaVolume_;
  recipe->mediaLength = mediaLength_;
  recipe->mediaProvider = mediaProvider_;
  recipe->mediaName = mediaName_;
  recipe->mediaGenre = mediaGenre_;
  recipe->mediaURL = mediaURL_;
  recipe->properties = owner_->state().hitProperties();
  recipe->mode = currentModeLocked();
  recipe->environment = std::move(environment);
  recipe->rank = rank;
  return recipe;
}

std::shared_ptr<TavloRequest> TavloStreamingTagger::Impl::makeHit(HitRecipe& recipe, TavloAgent& agent,
                                                                  std::shared_ptr<ParameterDump>& dump) {
  recipe.made = true;
  const HitConstants& constants = *recipe.constants;
  HitEnvironment& environment = recipe.environment;
  TavloParameters parameters = agent.defaultParametersWith(std::move(environment.draw));
  addParam(std::string(recipe.eventType), "cmsEV", parameters);
  addParam(std::to_string(recipe.current), "cmsPO", parameters);
  addParam(std::to_string(recipe.previous), "cmsOP", parameters);
  addParam(std::to_string(recipe.code), "cmsPS", parameters);
  addParam(majorVersion(TavloAgent::TavloVersion()), "cmsMV", parameters);
  addParam(std::to_string(recipe.mediaVolume), "cmsSD", parameters);
  addParam(std::to_string(recipe.mediaLength), "cmsDU", parameters);
  addParam(constants.deviceInfo ? constants.deviceInfo->model() : std::string(), "cmsPL", parameters);
  if (environment.useIDFA) addParam(std::move(environment.did), "did", parameters);

  // The dump shows the dictionary as it stands here, between "did" and "dom".
  dump = std::make_shared<ParameterDump>(constants.logSink ? constants.logSink : TavloInstalledLogSink(),
                                         environment.useIDFA);
  const auto add = [&](TavloString value, std::string_view key, std::size_t limit = 0) {
    dump->add(parameters, std::move(value), key, limit);
  };
  add(std::move(recipe.mediaProvider), "dom");
  add(std::move(recipe.mediaName), "cmsSN");
  add(std::move(recipe.mediaGenre), "cmsGR");
  add(std::move(recipe.mediaURL), "cmsME");
  // Levels 1 and 3 cross over on purpose: the collection server reads "cmsS1" as the third.
  add(constants.level3, "cmsS1");
  add(constants.level2, "cmsS2");
  add(constants.level1, "cmsS3");
  add(constants.level4, "cmsS4");
  add(constants.level5, "cmsS5");
  TavloString customerData = constants.customerData;
  TavloForEachSharedHitParameter(
      recipe.properties, customerData,
      [&add](TavloString& value, const char* key, std::size_t limit) { add(std::move(value), key, limit); });
  // What setTheRank would write, without copying the dictionary to write it.
  if (recipe.rank > 0) add(std::to_string(recipe.rank), "cmsRK");

  auto finished = std::make_shared<const TavloParameters>(std::move(parameters));
  dump->setParameters(finished);
  auto request = TavloRequest::TavloRequestWithParameters(std::move(finished), TavloRequestTypeStreaming, recipe.mode,
                                                          constants.serial, constants.taggerID, environment.now);
  if (recipe.renewsSession) request->setShouldRenewSessionAfter(true);
  return request;
}

void TavloStreamingTagger::Impl::addRequestToAgentLocked(const std::shared_ptr<TavloRequest>& request) {
  request->setTheRank(++rank_);
  outbox_.push_back({request, nullptr});
}

void TavloStreamingTagger::Impl::drainOutbox(TavloAgent& agent) {
  std::unique_lock lock(stateProtector);
  // One thread hands hits over at a time, so ranks reach the agent in order; another
  // thread finding it busy leaves its hits to it.
  if (draining_) return;
  draining_ = true;
  while (!outbox_.empty()) {
    OutboxEntry entry = std::move(outbox_.front());
    outbox_.pop_front();
    lock.unlock();
    if (entry.recipe) {
      // Made and dumped on the agent's thread, before it is queued; an oversized one too,
      // before the agent refuses it.
      agent.addRequestMadeByHandler(
          [recipe = std::move(entry.recipe)](TavloAgent& agent) {
            std::shared_ptr<ParameterDump> dump;
            auto request = makeHit(*recipe, agent, dump);
            dump->write();
            return request;
          },
          constants_->serial, TavloRequestTypeStreaming);
    } else if (!agent.refusesOversized(*entry.request)) {
      // Made on this thread (a throttled hit): the agent's thread copies its dictionary
      // before it is queued, so this thread's memory comes back to it at once.
      agent.addRequestMadeByHandler(
          [request = entry.request](TavloAgent&) {
            request->copyParametersOnThisThread();
            return request;
          },
          entry.request->serial(), TavloRequestTypeStreaming);
    }
    entry = {};
    lock.lock();
  }
  draining_ = false;
}

void TavloStreamingTagger::Impl::resetTaggerLocked() {
  if (timerThrottle_) timerThrottle_->invalidate();
  stopPollingLocked();
  lastSentCode_.reset();
  lastThrottledRequest_.reset();
  positionFromPolling_.reset();
  positions_.clear();
  numberOfPolls_ = 0;
  lastEvent_ = TavloStreamingEventNone;
  rank_ = 0;
}

void TavloStreamingTagger::Impl::emit(const PendingLines& lines) const {
  for (const PendingLine& line : lines) {
    if (line.dump) {
      line.dump->write();
    } else {
      log(line.fixedText ? std::string_view(line.fixedText) : std::string_view(line.text), line.mode);
    }
  }
}

std::optional<int64_t> TavloStreamingTagger::Impl::positionFromDelegate() {
  const std::shared_ptr<TavloStreamingTaggerDelegate> delegate = this->delegate();
  if (!delegate) return std::nullopt;
  try {
    return delegate->currentPositionForStreamingTagger(*owner_);
  } catch (...) {
    log("TavloStreamingTagger - The delegate failed to give the current position: it is taken as unknown",
        TavloLoggingModeWarning);
    return std::nullopt;
  }
}

// Polling and throttling.

void TavloStreamingTagger::Impl::startPollingLocked() {
  if (timer_) return;
  timer_ = armTimer(kPollingInterval, &Impl::poll, true);
}

void TavloStreamingTagger::Impl::stopPollingLocked() {
  if (!timer_) return;
  timer_->invalidate();
  timer_.reset();
}

void TavloStreamingTagger::Impl::poll(const std::shared_ptr<TavloTimer>& timer) {
  uint64_t seconds = 0;
  bool live = false;
  {
    std::lock_guard lock(stateProtector);
    if (timer != timer_) return;  // a late firing of a timer stopped meanwhile
    seconds = ++numberOfPolls_;
    live = currentModeLocked() == TavloSendingModeLive;
  }
  const bool asksDelegate = streamingType_ == TavloStreamingTypeDelegatePosition;
  const std::optional<int64_t> polled = asksDelegate ? positionFromDelegate() : std::nullopt;
  const bool due = live && pollingHitDue(seconds);

  const std::shared_ptr<TavloAgent> agent = due ? agent_.lock() : nullptr;
  const bool refused = agent && accessRefusesStreaming(*agent);
  std::optional<int64_t> current;
  HitEnvironment environment;
  if (agent && !refused) {
    if (asksDelegate) current = positionFromDelegate();
    environment = this->environment(*agent);
  }

  PendingLines lines;
  {
    std::lock_guard lock(stateProtector);
    if (timer != timer_) return;  // stopped while the delegate or the agent answered
    if (polled && *polled >= 1) positionFromPolling_ = polled;
    if (!agent) return;
    if (refused) {
      stopPollingLocked();
      return;
    }
    if (current && *current > 0) recordPositionLocked(*current);
    if (TavloLogger::wouldLog(TavloLoggingModeInfo)) {
      lines.push_back({"TavloStreamingTagger - Polling at " + std::to_string(seconds) + " sec - Generating request",
                       TavloLoggingModeInfo});
    }
    // A poll during a pause carries the pause's code: the server sees the medium paused.
    outbox_.push_back({nullptr, recipeLocked("polling", lastEvent_, environment, ++rank_)});
  }
  emit(lines);
  drainOutbox(*agent);
}

void TavloStreamingTagger::Impl::handleThrottledEvent(const std::shared_ptr<TavloTimer>& timer) {
  PendingLines lines;
  {
    std::lock_guard lock(stateProtector);
    if (timer != timerThrottle_) return;
    if (lastThrottledRequest_) {
      const auto code = [](const std::shared_ptr<TavloRequest>& request) -> TavloString {
        const auto parameters = request ? request->parameters() : nullptr;
        if (!parameters) return std::nullopt;
        const auto found = parameters->find("cmsPS");
        return found == parameters->end() ? TavloString() : TavloString(found->second);
      };
      // A burst that ends in the state already reported adds nothing.
      const TavloString sentCode = lastSentCode_ ? TavloString(std::to_string(*lastSentCode_)) : std::nullopt;
      if (code(lastThrottledRequest_) != sentCode) {
        lines.push_back(
            {std::string(), TavloLoggingModeWarning, nullptr, "TavloStreamingTagger - Throttled request sent"});
        addRequestToAgentLocked(lastThrottledRequest_);
      }
    }
    lastSentCode_.reset();
    lastThrottledRequest_.reset();
  }
  emit(lines);
  if (const auto agent = agent_.lock()) drainOutbox(*agent);
}

std::shared_ptr<TavloTimer> TavloStreamingTagger::Impl::armTimer(
    double interval, void (Impl::*operation)(const std::shared_ptr<TavloTimer>&), bool repeating) {
  return TavloTimer::TavloTimerCalling<TavloStreamingTagger>(
      platform_.mainQueue, interval, owner_->weak_from_this(),
      [operation](TavloStreamingTagger& tagger, const std::shared_ptr<TavloTimer>& timer) {
        (tagger.impl_.get()->*operation)(timer);
      },
      repeating);
}

// The public calls. The medium's properties are read and written here, under the
// tagger's lock; the rest is the Impl's.

TavloString TavloStreamingTagger::mediaName() const {
  return TavloLockedRead(impl_->stateProtector, impl_->mediaName_);
}

void TavloStreamingTagger::setMediaName(const TavloString& mediaName) {
  if (!mediaName || mediaName->empty()) return;
  std::lock_guard lock(impl_->stateProtector);
  impl_->mediaName_ = mediaName;
}

TavloString TavloStreamingTagger::mediaURL() const { return TavloLockedRead(impl_->stateProtector, impl_->mediaURL_); }

void TavloStreamingTagger::setMediaURL(const TavloString& mediaURL) {
  if (!mediaURL || mediaURL->empty()) return;
  std::lock_guard lock(impl_->stateProtector);
  impl_->mediaURL_ = mediaURL;
}

TavloString TavloStreamingTagger::mediaGenre() const {
  return TavloLockedRead(impl_->stateProtector, impl_->mediaGenre_);
}

void TavloStreamingTagger::setMediaGenre(TavloString mediaGenre) {
  TavloLockedWrite(impl_->stateProtector, impl_->mediaGenre_, std::move(mediaGenre));
}

TavloString TavloStreamingTagger::mediaProvider() const {
  return TavloLockedRead(impl_->stateProtector, impl_->mediaProvider_);
}

void TavloStreamingTagger::setMediaProvider(TavloString mediaProvider) {
  TavloLockedWrite(impl_->stateProtector, impl_->mediaProvider_, std::move(mediaProvider));
}

int64_t TavloStreamingTagger::mediaVolume() const {
  return TavloLockedRead(impl_->stateProtector, impl_->mediaVolume_);
}

void TavloStreamingTagger::setMediaVolume(int64_t mediaVolume) {
  TavloLockedWrite(impl_->stateProtector, impl_->mediaVolume_, mediaVolume);
}

int64_t TavloStreamingTagger::mediaLength() const {
  return TavloLockedRead(impl_->stateProtector, impl_->mediaLength_);
}

void TavloStreamingTagger::setMediaLength(int64_t mediaLength) {
  TavloLockedWrite(impl_->stateProtector, impl_->mediaLength_, mediaLength);
}


void TavloStreamingTagger::notifyEvent(TavloStreamingEvent event) { impl_->notifyEvent(event); }
void TavloStreamingTagger::notifyEvent(TavloStreamingEvent event, int64_t position) {
  impl_->notifyEvent(event, position);
}
TavloStreamingType TavloStreamingTagger::streamingType() const { return impl_->streamingType_; }
TavloString TavloStreamingTagger::level1() const { return impl_->constants_->level1; }
TavloString TavloStreamingTagger::level2() const { return impl_->constants_->level2; }
TavloString TavloStreamingTagger::level3() const { return impl_->constants_->level3; }
TavloString TavloStreamingTagger::level4() const { return impl_->constants_->level4; }
TavloString TavloStreamingTagger::level5() const { return impl_->constants_->level5; }
std::shared_ptr<TavloStreamingTaggerDelegate> TavloStreamingTagger::delegate() const { return impl_->delegate(); }
void TavloStreamingTagger::setDelegate(std::weak_ptr<TavloStreamingTaggerDelegate> delegate) {
  impl_->setDelegate(std::move(delegate));
}
TavloSendingMode TavloStreamingTagger::sendingMode() const { return impl_->sendingMode(); }
void TavloStreamingTagger::setSendingMode(TavloSendingMode sendingMode) { impl_->setSendingMode(sendingMode); }
TavloSendingMode TavloStreamingTagger::getCurrentMode() const { return impl_->getCurrentMode(); }
