// The classes a queue file may contain.
#pragma once

#include "archive/TavloKeyedUnarchiver.h"

/// Every record class the library archives, by archived class name, with its decoder.
const TavloClassTable& TavloRecordClasses();
