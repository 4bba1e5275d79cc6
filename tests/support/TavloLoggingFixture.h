// A test fixture that captures what the process-wide logger prints.
#pragma once

#include <gtest/gtest.h>

#include "support/TavloTestPlatform.h"

/// Installs a platform of fakes (so every log line lands in `test.logSink`) and restores
/// the process-wide logging threshold to its default after the test.
class TavloLoggingTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  TavloTestPlatform test = TavloMakeTestPlatform();
};
