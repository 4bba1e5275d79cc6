// What an application tells a streaming tagger about its medium, once, at creation.
#pragma once

#include <utility>

#include "tavlo/TavloTypes.h"

/// The medium's classification and descriptors, filled by the configuration callback of
/// TavloStreamingTagger::TavloStreamingTaggerWithSerial. The tagger copies the values
/// when the callback returns; the object is not kept, so changing it later changes
/// nothing. Every value starts absent, and an absent or empty value is left out of hits.
///
/// A plain value: one thread at a time (the callback runs on the caller's thread).
class TavloStreamingConfig {
 public:
  /// Classification levels 1 to 5 of the medium, sent as "cmsS3", "cmsS2", "cmsS1",
  /// "cmsS4" and "cmsS5" (levels 1 and 3 cross over: the collection server reads them so).
  ///@{
  TavloString level1() const { return level1_; }
  void setLevel1(TavloString value) { level1_ = std::move(value); }
  TavloString level2() const { return level2_; }
  void setLevel2(TavloString value) { level2_ = std::move(value); }
  TavloString level3() const { return level3_; }
  void setLevel3(TavloString value) { level3_ = std::move(value); }
  TavloString level4() const { return level4_; }
  void setLevel4(TavloString value) { level4_ = std::move(value); }
  TavloString level5() const { return level5_; }
  void setLevel5(TavloString value) { level5_ = std::move(value); }
  ///@}

  /// Free customer data: becomes the tagger's customerData, sent as "crmid".
  ///@{
  TavloString customerData() const { return customerData_; }
  void setCustomerData(TavloString value) { customerData_ = std::move(value); }
  ///@}

  /// Genre of the medium ("cmsGR").
  ///@{
  TavloString mediaGenre() const { return mediaGenre_; }
  void setMediaGenre(TavloString value) { mediaGenre_ = std::move(value); }
  ///@}

  /// Provider or distributor of the medium ("dom").
  ///@{
  TavloString mediaProvider() const { return mediaProvider_; }
  void setMediaProvider(TavloString value) { mediaProvider_ = std::move(value); }
  ///@}

 private:
  TavloString level1_;
  TavloString level2_;
  TavloString level3_;
  TavloString level4_;
  TavloString level5_;
  TavloString customerData_;
  TavloString mediaGenre_;
  TavloString mediaProvider_;
};
