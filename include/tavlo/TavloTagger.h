// The common base of Tavlo's taggers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tavlo/TavloExport.h"
#include "tavlo/TavloTypes.h"

/// What every tagger carries into its hits: the measurement account (`serial`), free
/// customer data, eleven free measurement levels ("ml1" ... "ml11"), four media
/// descriptors, the advertising-identifier switch and the logging threshold.
///
/// TavloTagger is abstract: only the audience and streaming taggers derive from it, and
/// applications obtain those through their factories, which own the taggers' lifetime.
///
/// Threads: every accessor may be called from any thread. Properties are guarded by the
/// tagger's own mutex, so a hit built on one thread while another thread changes a level
/// sees either the old or the new value, never a torn one.
///
/// Logging: the library has one process-wide logging threshold. `setLoggingMode` on any
/// tagger sets it for the whole process (the last call wins); `loggingMode` answers the
/// value last set on this tagger.
class TAVLO_EXPORT TavloTagger {
 public:
  /// Number of free measurement levels.
  static constexpr int kNewLevelCount = 11;

  virtual ~TavloTagger();
  TavloTagger(const TavloTagger&) = delete;
  TavloTagger& operator=(const TavloTagger&) = delete;

  /// The library version, TavloVersionString (TavloVersion.h).
  static std::string TavloVersion();

  /// The measurement account this tagger sends for, as given to its factory.
  TavloString serial() const;
  /// Free customer value, sent as "crmid".
  TavloString customerData() const;
  /// Whether the tagger was set up well enough to send. Only the streaming tagger
  /// uses it (false when a mandatory value was missing); audience taggers leave it false.
  bool canSend() const;

  /// When true, hits also carry the device advertising identifier as "did".
  ///@{
  bool useIDFA() const;
  void setUseIDFA(bool useIDFA);
  ///@}

  /// The logging threshold last set on this tagger (2 at creation: errors only).
  int64_t loggingMode() const;
  /// Stores `mode` and makes it the process-wide logging threshold:
  /// 0 prints information, warnings and errors; 1 warnings and errors; 2 errors only;
  /// 3 or more, or any negative value, prints nothing.
  void setLoggingMode(int64_t mode);

  /// Free measurement levels, sent as "ml1" ... "ml11", cut to 256 UTF-16 code units.
  /// The getters carry the prefix "the"; the setters do not.
  ///@{
  TavloString theNewLevel1() const;
  TavloString theNewLevel2() const;
  TavloString theNewLevel3() const;
  TavloString theNewLevel4() const;
  TavloString theNewLevel5() const;
  TavloString theNewLevel6() const;
  TavloString theNewLevel7() const;
  TavloString theNewLevel8() const;
  TavloString theNewLevel9() const;
  TavloString theNewLevel10() const;
  TavloString theNewLevel11() const;
  void setNewLevel1(TavloString level);
  void setNewLevel2(TavloString level);
  void setNewLevel3(TavloString level);
  void setNewLevel4(TavloString level);
  void setNewLevel5(TavloString level);
  void setNewLevel6(TavloString level);
  void setNewLevel7(TavloString level);
  void setNewLevel8(TavloString level);
  void setNewLevel9(TavloString level);
  void setNewLevel10(TavloString level);
  void setNewLevel11(TavloString level);
  ///@}

  /// Media content identifier, sent as "msCid".
  ///@{
  TavloString mediaContentId() const;
  void setMediaContentId(TavloString value);
  ///@}
  /// Media diffusion mode, sent as "msDm".
  ///@{
  TavloString mediaDiffMode() const;
  void setMediaDiffMode(TavloString value);
  ///@}
  /// Media channel, sent as "msCh".
  ///@{
  TavloString mediaChannel() const;
  void setMediaChannel(TavloString value);
  ///@}
  /// Network measurement value, sent as "miCh".
  ///@{
  TavloString netMeasurement() const;
  void setNetMeasurement(TavloString value);
  ///@}

 protected:
  /// Subclasses set serial and customer data once, here. The logging mode starts at 2
  /// without touching the process-wide threshold.
  TavloTagger(TavloString serial, TavloString customerData);

  /// What the library's own taggers read and write behind the accessors; defined inside
  /// the library, so its layout is not part of an application's build.
  class State;
  /// This tagger's state.
  State& state() const { return *state_; }

 private:
  const std::unique_ptr<State> state_;
};
