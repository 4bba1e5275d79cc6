// Everything a streaming tagger keeps and does behind its public calls, and the ways the
// library (and its tests) make one on a given agent and read its identity.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/TavloLogger.h"
#include "tavlo/TavloStreamingTagger.h"
#include "tavlo/platform/TavloPlatform.h"

class TavloAgent;
class TavloNotificationCenter;
class TavloReachability;
class TavloRequest;
class TavloTaggerID;
class TavloTimer;

class TavloStreamingTagger::Impl {
 public:
  /// What the factory gathers before the tagger is made.
  struct Setup;

  /// A new tagger on `agent`; a null agent gives a tagger that never sends.
  static std::shared_ptr<TavloStreamingTagger> make(const std::shared_ptr<TavloAgent>& agent, TavloString serial,
                                                    TavloString mediaName, int64_t mediaVolume, TavloString mediaURL,
                                                    int64_t mediaLength, TavloStreamingType streamingType,
                                                    ConfigurationBlock configurationBlock);
  static const std::shared_ptr<TavloTaggerID>& taggerID(const TavloStreamingTagger& tagger) {
    return tagger.impl_->taggerID_;
  }

  explicit Impl(Setup&& setup);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // The public calls, as TavloStreamingTagger documents them.
  void notifyEvent(TavloStreamingEvent event);
  void notifyEvent(TavloStreamingEvent event, int64_t position);
  std::shared_ptr<TavloStreamingTaggerDelegate> delegate() const;
  void setDelegate(std::weak_ptr<TavloStreamingTaggerDelegate> delegate);
  TavloSendingMode sendingMode() const;
  void setSendingMode(TavloSendingMode sendingMode);
  TavloSendingMode getCurrentMode() const;

 private:
  friend class TavloStreamingTagger;
  struct HitEnvironment;
  struct HitConstants;
  struct HitRecipe;
  struct PendingLine;
  using PendingLines = std::vector<PendingLine>;
  class ParameterDump;
  // A ranked hit waiting to be handed over: made already (a throttled hit sent late), or
  // still a recipe, which the agent's thread makes into a hit and whose dump it writes.
  struct OutboxEntry {
    std::shared_ptr<TavloRequest> request;
    std::shared_ptr<HitRecipe> recipe;
  };

  // A tagger that never sends, for unusable arguments.
  static std::shared_ptr<TavloStreamingTagger> rejected(const std::shared_ptr<TavloAgent>& agent, const char* message);
  // Starts following the network. Called once, by the factory, once shared ownership exists.
  void start();
  void reachabilityStatusChanged();

  // Everything a hit takes from outside the tagger, gathered before stateProtector is taken.
  HitEnvironment environment(TavloAgent& agent) const;
  bool accessRefusesStreaming(TavloAgent& agent) const;
  std::optional<int64_t> positionFromDelegate();
  // Writes what the locked sections collected, in order, once the lock is released.
  void emit(const PendingLines& lines) const;
  // Hands the ranked hits waiting in `outbox_` to the agent, in rank order, without a lock held.
  void drainOutbox(TavloAgent& agent);
  // Arms a timer on the main queue that calls `operation` on this tagger while the tagger
  // lives; the timer holds the tagger (the public object, which owns this) weakly.
  std::shared_ptr<TavloTimer> armTimer(double interval, void (Impl::*operation)(const std::shared_ptr<TavloTimer>&),
                                       bool repeating);

  // Timer operations, on the main queue.
  void poll(const std::shared_ptr<TavloTimer>& timer);
  void handleThrottledEvent(const std::shared_ptr<TavloTimer>& timer);

  // REQUIRES: stateProtector held, for all of these.
  bool authorizedEventLocked(TavloStreamingEvent event) const;
  TavloSendingMode currentModeLocked() const;
  uint64_t TavloStreamingEventToIntegerValueLocked(uint64_t event) const;
  // What the hit of `event` is made of, as the tagger stands now; takes what
  // `environment` drew: each environment makes one hit. A `rank` above 0 is written into
  // the hit as "cmsRK", as addRequestToAgentLocked would.
  std::shared_ptr<HitRecipe> recipeLocked(const char* eventType, uint64_t event, HitEnvironment& environment,
                                          int64_t rank) const;
  // The hit `recipe` describes, from any thread, with its parameter dump in `dump`.
  static std::shared_ptr<TavloRequest> makeHit(HitRecipe& recipe, TavloAgent& agent,
                                               std::shared_ptr<ParameterDump>& dump);
  // Ranks `request` and puts it in the outbox.
  void addRequestToAgentLocked(const std::shared_ptr<TavloRequest>& request);
  void recordPositionLocked(int64_t position);
  void startPollingLocked();
  void stopPollingLocked();
  void resetTaggerLocked();
  /// Writes a line to the sink of the platform this tagger was built with.
  void log(std::string_view message, int64_t mode) const { TavloLogger::logTo(platform_.logSink.get(), message, mode); }

  // The public object that owns this; set once, by its constructor, before any call.
  TavloStreamingTagger* owner_ = nullptr;
  const std::weak_ptr<TavloAgent> agent_;
  const TavloPlatform platform_;
  const std::shared_ptr<TavloNotificationCenter> center_;
  const std::shared_ptr<TavloTaggerID> taggerID_;
  const TavloStreamingType streamingType_;
  const std::shared_ptr<const HitConstants> constants_;  // levels, serial: shared by every recipe
  const bool canSend_;
  std::shared_ptr<TavloReachability> reachability_;  // set once by start()
  uint64_t reachabilityObserver_ = 0;                // set once by start()

  mutable std::mutex stateProtector;
  std::shared_ptr<TavloTimer> timer_;                     // guarded by stateProtector; the polling timer
  bool disconnectedMode_ = false;                         // guarded by stateProtector
  uint64_t lastEvent_ = TavloStreamingEventNone;          // guarded by stateProtector
  bool hasBeenPaused_ = false;                            // guarded by stateProtector; never cleared
  uint64_t numberOfPolls_ = 0;                            // guarded by stateProtector
  int64_t rank_ = 0;                                      // guarded by stateProtector
  TavloString mediaName_;                                 // guarded by stateProtector
  TavloString mediaGenre_;                                // guarded by stateProtector
  TavloString mediaProvider_;                             // guarded by stateProtector
  TavloString mediaURL_;                                  // guarded by stateProtector
  int64_t mediaVolume_ = 0;                               // guarded by stateProtector
  int64_t mediaLength_ = 0;                               // guarded by stateProtector
  std::weak_ptr<TavloStreamingTaggerDelegate> delegate_;  // guarded by stateProtector
  TavloSendingMode sendingMode_ = TavloSendingModeLive;   // guarded by stateProtector
  std::optional<int64_t> positionFromPolling_;            // guarded by stateProtector
  std::vector<int64_t> positions_;                        // guarded by stateProtector; oldest first
  std::optional<uint64_t> lastSentCode_;                  // guarded by stateProtector; "cmsPS" of the last hit sent
  std::shared_ptr<TavloRequest> lastThrottledRequest_;    // guarded by stateProtector
  std::shared_ptr<TavloTimer> timerThrottle_;             // guarded by stateProtector
  std::deque<OutboxEntry> outbox_;                        // guarded by stateProtector; ranked, not handed over yet
  bool draining_ = false;                                 // guarded by stateProtector
};

/// A new streaming tagger on `agent`: what TavloStreamingTaggerWithSerial does on the
/// shared agent. A null agent gives a tagger that never sends.
inline std::shared_ptr<TavloStreamingTagger> TavloStreamingTaggerOnAgent(
    const std::shared_ptr<TavloAgent>& agent, TavloString serial, TavloString mediaName, int64_t mediaVolume,
    TavloString mediaURL, int64_t mediaLength, TavloStreamingType streamingType,
    TavloStreamingTagger::ConfigurationBlock configurationBlock = nullptr) {
  return TavloStreamingTagger::Impl::make(agent, std::move(serial), std::move(mediaName), mediaVolume,
                                          std::move(mediaURL), mediaLength, streamingType,
                                          std::move(configurationBlock));
}

/// The identity `tagger`'s hits carry: its serial, a partial identifier of its own,
/// streaming. Null on a tagger that cannot send.
inline const std::shared_ptr<TavloTaggerID>& TavloTaggerIDOf(const TavloStreamingTagger& tagger) {
  return TavloStreamingTagger::Impl::taggerID(tagger);
}
