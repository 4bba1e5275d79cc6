#include "tavlo/TavloTagger.h"

#include "agent/TavloDefaultParameters.h"
#include "platform/TavloLogger.h"
#include "tagging/TavloTaggerState.h"
#include "util/TavloLocked.h"

TavloTagger::TavloTagger(TavloString serial, TavloString customerData)
    : state_(std::make_unique<State>(std::move(serial), std::move(customerData))) {}

TavloTagger::~TavloTagger() = default;

std::string TavloTagger::TavloVersion() { return TavloDefaultParameters::TavloVersion(); }

TavloString TavloTagger::serial() const { return state_->serial; }
TavloString TavloTagger::customerData() const { return state_->customerData; }

bool TavloTagger::canSend() const { return TavloLockedRead(state_->mutex, state_->canSend); }

bool TavloTagger::useIDFA() const { return TavloLockedRead(state_->mutex, state_->properties.useIDFA); }

void TavloTagger::setUseIDFA(bool useIDFA) { TavloLockedWrite(state_->mutex, state_->properties.useIDFA, useIDFA); }

int64_t TavloTagger::loggingMode() const { return TavloLockedRead(state_->mutex, state_->loggingMode); }

void TavloTagger::setLoggingMode(int64_t mode) {
  TavloLockedWrite(state_->mutex, state_->loggingMode, mode);
  TavloLogger::sharedLogger().setLoggingMode(mode);
}


TavloString TavloTagger::theNewLevel1() const { return state_->newLevel(1); }
TavloString TavloTagger::theNewLevel2() const { return state_->newLevel(2); }
TavloString TavloTagger::theNewLevel3() const { return state_->newLevel(3); }
TavloString TavloTagger::theNewLevel4() const { return state_->newLevel(4); }
TavloString TavloTagger::theNewLevel5() const { return state_->newLevel(5); }
TavloString TavloTagger::theNewLevel6() const { return state_->newLevel(6); }
TavloString TavloTagger::theNewLevel7() const { return state_->newLevel(7); }
TavloString TavloTagger::theNewLevel8() const { return state_->newLevel(8); }
TavloString TavloTagger::theNewLevel9() const { return state_->newLevel(9); }
TavloString TavloTagger::theNewLevel10() const { return state_->newLevel(10); }
TavloString TavloTagger::theNewLevel11() const { return state_->newLevel(11); }
void TavloTagger::setNewLevel1(TavloString level) { state_->setNewLevel(1, std::move(level)); }
void TavloTagger::setNewLevel2(TavloString level) { state_->setNewLevel(2, std::move(level)); }
void TavloTagger::setNewLevel3(TavloString level) { state_->setNewLevel(3, std::move(level)); }
void TavloTagger::setNewLevel4(TavloString level) { state_->setNewLevel(4, std::move(level)); }
void TavloTagger::setNewLevel5(TavloString level) { state_->setNewLevel(5, std::move(level)); }
void TavloTagger::setNewLevel6(TavloString level) { state_->setNewLevel(6, std::move(level)); }
void TavloTagger::setNewLevel7(TavloString level) { state_->setNewLevel(7, std::move(level)); }
void TavloTagger::setNewLevel8(TavloString level) { state_->setNewLevel(8, std::move(level)); }
void TavloTagger::setNewLevel9(TavloString level) { state_->setNewLevel(9, std::move(level)); }
void TavloTagger::setNewLevel10(TavloString level) { state_->setNewLevel(10, std::move(level)); }
void TavloTagger::setNewLevel11(TavloString level) { state_->setNewLevel(11, std::move(level)); }

TavloString TavloTagger::mediaContentId() const { return state_->read(&TavloHitProperties::mediaContentId); }
void TavloTagger::setMediaContentId(TavloString value) {
  state_->write(&TavloHitProperties::mediaContentId, std::move(value));
}
TavloString TavloTagger::mediaDiffMode() const { return state_->read(&TavloHitProperties::mediaDiffMode); }
void TavloTagger::setMediaDiffMode(TavloString value) {
  state_->write(&TavloHitProperties::mediaDiffMode, std::move(value));
}
TavloString TavloTagger::mediaChannel() const { return state_->read(&TavloHitProperties::mediaChannel); }
void TavloTagger::setMediaChannel(TavloString value) {
  state_->write(&TavloHitProperties::mediaChannel, std::move(value));
}
TavloString TavloTagger::netMeasurement() const { return state_->read(&TavloHitProperties::netMeasurement); }
void TavloTagger::setNetMeasurement(TavloString value) {
  state_->write(&TavloHitProperties::netMeasurement, std::move(value));
}
