#include "support/TavloLoggingFixture.h"

#include "platform/TavloLogger.h"

void TavloLoggingTest::SetUp() {
  TavloPlatform::install(test.platform);
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeError);
}

void TavloLoggingTest::TearDown() { TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeError); }
