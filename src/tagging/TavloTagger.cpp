#include "tavlo/TavloTagger.h"

#include "agent/TavloDefaultParameters.h"
#include "platform/TavloLogger.h"
#include "util/TavloLocked.h"

TavloTagger::TavloTagger(TavloString serial, TavloString customerData)
    : serial_(std::move(serial)), customerData_(std::move(customerData)) {}

TavloTagger::~TavloTagger() = default;

std::string TavloTagger::TavloVersion() { return TavloDefaultParameters::TavloVersion(); }

TavloString TavloTagger::serial() const { return serial_; }
TavloString TavloTagger::customerData() const { return customerData_; }

bool TavloTagger::canSend() const { return TavloLockedRead(mutex_, canSend_); }

void TavloTagger::setCanSend(bool canSend) {
  TavloLockedWrite(mutex_, canSend_, canSend);
}

bool TavloTagger::useIDFA() const { return TavloLockedRead(mutex_, useIDFA_); }

void TavloTagger::setUseIDFA(bool useIDFA) {
  TavloLockedWrite(mutex_, useIDFA_, useIDFA);
}

int64_t TavloTagger::loggingMode() const { return TavloLockedRead(mutex_, loggingMode_); }

void TavloTagger::setLoggingMode(int64_t mode) {
  {
    std::lock_guard lock(mutex_);
    loggingMode_ = mode;
  }
  TavloLogger::sharedLogger().setLoggingMode(mode);
}

TavloString TavloTagger::stringProperty(const TavloString TavloTagger::*field) const {
  std::lock_guard lock(mutex_);
  return this->*field;
}

void TavloTagger::setStringProperty(TavloString TavloTagger::*field, TavloString value) {
  std::lock_guard lock(mutex_);
  this->*field = std::move(value);
}

TavloString TavloTagger::newLevel(int index) const {
  if (index < 1 || index > kNewLevelCount) return std::nullopt;
  std::lock_guard lock(mutex_);
  return newLevels_[index - 1];
}

TavloTagger::HitProperties TavloTagger::hitProperties() const {
  std::lock_guard lock(mutex_);
  return HitProperties{useIDFA_, newLevels_, mediaContentId_, mediaDiffMode_, mediaChannel_, netMeasurement_};
}

void TavloTagger::setNewLevel(int index, TavloString level) {
  std::lock_guard lock(mutex_);
  newLevels_[index - 1] = std::move(level);
}

TavloString TavloTagger::theNewLevel1() const { return newLevel(1); }
TavloString TavloTagger::theNewLevel2() const { return newLevel(2); }
TavloString TavloTagger::theNewLevel3() const { return newLevel(3); }
TavloString TavloTagger::theNewLevel4() const { return newLevel(4); }
TavloString TavloTagger::theNewLevel5() const { return newLevel(5); }
TavloString TavloTagger::theNewLevel6() const { return newLevel(6); }
TavloString TavloTagger::theNewLevel7() const { return newLevel(7); }
TavloString TavloTagger::theNewLevel8() const { return newLevel(8); }
TavloString TavloTagger::theNewLevel9() const { return newLevel(9); }
TavloString TavloTagger::theNewLevel10() const { return newLevel(10); }
TavloString TavloTagger::theNewLevel11() const { return newLevel(11); }
void TavloTagger::setNewLevel1(TavloString level) { setNewLevel(1, std::move(level)); }
void TavloTagger::setNewLevel2(TavloString level) { setNewLevel(2, std::move(level)); }
void TavloTagger::setNewLevel3(TavloString level) { setNewLevel(3, std::move(level)); }
void TavloTagger::setNewLevel4(TavloString level) { setNewLevel(4, std::move(level)); }
void TavloTagger::setNewLevel5(TavloString level) { setNewLevel(5, std::move(level)); }
void TavloTagger::setNewLevel6(TavloString level) { setNewLevel(6, std::move(level)); }
void TavloTagger::setNewLevel7(TavloString level) { setNewLevel(7, std::move(level)); }
void TavloTagger::setNewLevel8(TavloString level) { setNewLevel(8, std::move(level)); }
void TavloTagger::setNewLevel9(TavloString level) { setNewLevel(9, std::move(level)); }
void TavloTagger::setNewLevel10(TavloString level) { setNewLevel(10, std::move(level)); }
void TavloTagger::setNewLevel11(TavloString level) { setNewLevel(11, std::move(level)); }

TavloString TavloTagger::mediaContentId() const { return stringProperty(&TavloTagger::mediaContentId_); }
void TavloTagger::setMediaContentId(TavloString value) {
  setStringProperty(&TavloTagger::mediaContentId_, std::move(value));
}
TavloString TavloTagger::mediaDiffMode() const { return stringProperty(&TavloTagger::mediaDiffMode_); }
void TavloTagger::setMediaDiffMode(TavloString value) {
  setStringProperty(&TavloTagger::mediaDiffMode_, std::move(value));
}
TavloString TavloTagger::mediaChannel() const { return stringProperty(&TavloTagger::mediaChannel_); }
void TavloTagger::setMediaChannel(TavloString value) {
  setStringProperty(&TavloTagger::mediaChannel_, std::move(value));
}
TavloString TavloTagger::netMeasurement() const { return stringProperty(&TavloTagger::netMeasurement_); }
void TavloTagger::setNetMeasurement(TavloString value) {
  setStringProperty(&TavloTagger::netMeasurement_, std::move(value));
}
