// Measures the playing of one medium by one media player.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "tavlo/TavloExport.h"
#include "tavlo/TavloStreamingConfig.h"
#include "tavlo/TavloStreamingTaggerDelegate.h"
#include "tavlo/TavloTagger.h"
#include "tavlo/TavloTypes.h"

/// Where a streaming tagger's positions come from. Stored as given; any other value
/// behaves as TavloStreamingTypeNoPosition.
enum TavloStreamingType : uint64_t {
  /// The delegate is asked for the position (at events notified without one, and once
  /// a second while the medium is open).
  TavloStreamingTypeDelegatePosition = 0,
  /// Positions come only from the application's notifyEvent(event, position).
  TavloStreamingTypeNoPosition = 1,
  /// As TavloStreamingTypeNoPosition, and the very first pause the tagger is told of
  /// (ever, across stops) is taken as a stop: for players whose first pause ends a
  /// live programme.
  TavloStreamingTypeFirstPauseStops = 2,
};

/// What the media player did. The values are sent on the wire through "cmsPS" codes.
enum TavloStreamingEvent : uint64_t {
  TavloStreamingEventPlay = 0,   // playing starts or resumes
  TavloStreamingEventPause = 1,  // playing is paused
  TavloStreamingEventStop = 2,   // playing ends; the tagger starts afresh
  /// The tagger's state before its first event and after each stop. Never accepted
  /// from the application.
  TavloStreamingEventNone = 3,
};

/// The position that means "not known": notifyEvent(event, TavloStreamingTaggerUnknownLocation)
/// records no position.
inline constexpr int32_t TavloStreamingTaggerUnknownLocation = -1;

/// Follows one media player through play, pause and stop, and sends a hit for each
/// accepted event plus polling hits while the medium is open (10, 20, 40 and 60 seconds
/// after the first play, then every 60 seconds), each carrying the medium's description,
/// the player's position and a rank that numbers the hits of one playing from 1.
///
/// Events follow one rule: play may come first or after a pause; pause only after a
/// play; stop after a play or a pause; an event equal to the last one is ignored. A
/// stop sends its hit at once, renews the authorisation session, and returns the tagger
/// to its first state, so one tagger can measure its medium again. Play and pause hits
/// are throttled: after one is sent, the next second only keeps the latest event, sent
/// when the second ends unless it reports the state already sent.
///
/// Sending modes: TavloSendingModeLive (the default) sends every hit as it happens;
/// TavloSendingModeTimestamped sends time-stamped hits and no play or polling hits;
/// while the network cannot be reached the tagger sends as TavloSendingModeDisconnected,
/// which behaves as timestamped. getCurrentMode() answers the mode in force.
///
/// Ownership: the application makes a tagger per medium with TavloStreamingTaggerWithSerial
/// and keeps it as long as it measures that medium; the library registers it nowhere.
/// Releasing it stops its timers at once; no final hit is sent (notify a stop first).
///
/// Threads: every member may be called from any thread. Timers fire on the library's
/// main queue (TavloPlatform::mainQueue). The tagger's state is guarded by its own
/// mutex, which is never held while the tagger calls the agent, the
/// delegate, the configuration callback, the logger or the log sink; it may be held
/// while arming or stopping a timer on the main queue, which never calls back in place.
/// Hits reach the agent in the order of their ranks, whichever thread made them.
///
/// Failures are never reported to the caller. A blank serial or media name gives a
/// tagger that never sends (and an error line in the log); refused events are dropped.
class TAVLO_EXPORT TavloStreamingTagger : public TavloTagger,
                                          public std::enable_shared_from_this<TavloStreamingTagger> {
 public:
  /// Called once, during creation, to describe the medium.
  using ConfigurationBlock = std::function<void(TavloStreamingConfig& config)>;

  /// A new tagger for the medium `mediaName` of the measurement account `serial`; never
  /// null. `mediaVolume` ("cmsSD"), `mediaURL` ("cmsME") and `mediaLength` ("cmsDU") are
  /// sent as given. `configurationBlock`, when given, is called once before this returns.
  ///
  /// A serial or media name that is absent or made of blanks only gives a tagger whose
  /// canSend() is false: it logs "Init streaming tag failed : serial is mandatory" (or
  /// "... : mediaName is mandatory"), skips the configuration callback, and never sends.
  /// So does a serial that cannot stand as one segment of a URL path (holding "/", "?",
  /// "#", "%", a blank, a control or non-ASCII character, or being "." or ".."), with
  /// one error line naming it. Otherwise both are kept exactly as given, the media
  /// name's blanks included.
  static std::shared_ptr<TavloStreamingTagger> TavloStreamingTaggerWithSerial(
      TavloString serial, TavloString mediaName, int64_t mediaVolume, TavloString mediaURL, int64_t mediaLength,
      TavloStreamingType streamingType, ConfigurationBlock configurationBlock = nullptr);

  ~TavloStreamingTagger() override;

  // Events.

  /// Notifies `event` with the delegate's position when the streaming type is
  /// TavloStreamingTypeDelegatePosition and the delegate supplies one; otherwise with no
  /// position. The delegate is called on this thread.
  void notifyEvent(TavloStreamingEvent event);
  /// Notifies `event` at `position` (TavloStreamingTaggerUnknownLocation: not known).
  /// A refused event changes nothing, except that a first pause of a
  /// TavloStreamingTypeFirstPauseStops tagger is used up even when refused. While the
  /// serial's cached authorisation refuses streaming hits, events stop polling and
  /// send nothing. An event other than play, pause or stop is logged and ignored.
  void notifyEvent(TavloStreamingEvent event, int64_t position);

  // The medium.

  /// The streaming type given at creation.
  TavloStreamingType streamingType() const;
  /// The classification levels from the configuration callback.
  ///@{
  TavloString level1() const;
  TavloString level2() const;
  TavloString level3() const;
  TavloString level4() const;
  TavloString level5() const;
  ///@}

  /// Name ("cmsSN", never cut) and address ("cmsME") of the medium. The setters ignore
  /// an absent or empty value: a medium always keeps a name.
  ///@{
  TavloString mediaName() const;
  void setMediaName(const TavloString& mediaName);
  TavloString mediaURL() const;
  void setMediaURL(const TavloString& mediaURL);
  ///@}
  /// Genre ("cmsGR") and provider ("dom"); an absent or empty value removes them from hits.
  ///@{
  TavloString mediaGenre() const;
  void setMediaGenre(TavloString mediaGenre);
  TavloString mediaProvider() const;
  void setMediaProvider(TavloString mediaProvider);
  ///@}
  /// Volume ("cmsSD") and length in seconds ("cmsDU") of the medium, as given at creation.
  ///@{
  int64_t mediaVolume() const;
  void setMediaVolume(int64_t mediaVolume);
  int64_t mediaLength() const;
  void setMediaLength(int64_t mediaLength);
  ///@}

  /// The position supplier, held weakly (null once the application let go of it).
  ///@{
  std::shared_ptr<TavloStreamingTaggerDelegate> delegate() const;
  void setDelegate(std::weak_ptr<TavloStreamingTaggerDelegate> delegate);
  ///@}

  // Sending.

  /// The mode the application chose (TavloSendingModeLive unless it chose another).
  TavloSendingMode sendingMode() const;
  /// Chooses the mode, and reads the network state afresh. Ignored on a tagger that
  /// cannot send; a value other than 0, 1 or 2 is logged and ignored.
  void setSendingMode(TavloSendingMode sendingMode);
  /// The mode hits are made in now: TavloSendingModeDisconnected while the network
  /// cannot be reached, else sendingMode().
  TavloSendingMode getCurrentMode() const;

  /// What the library keeps for each tagger. Only the library defines it: its layout is
  /// not part of an application's build, and it may change in any release.
  class Impl;

 private:
  TavloStreamingTagger(std::unique_ptr<Impl> impl, TavloString serial, TavloString customerData);

  const std::unique_ptr<Impl> impl_;
};
