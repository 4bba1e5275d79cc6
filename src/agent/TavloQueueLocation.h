// Where the library keeps an application's queue file.
#pragma once

#include <string>

#include "tavlo/TavloTypes.h"

/// The folder the agent names after an application: its name with "/" and control
/// characters replaced by "_", or "unnamed-application" for a nil, empty, "." or ".."
/// name (an application that never said its name), so two applications never share a
/// queue. The agent and tavlo-queue both use it.
std::string TavloQueueApplicationFolder(const TavloString& applicationName);

/// `dataDirectory`/<application folder>/TavloCache/requests.ser.
std::string TavloQueueFilePath(const std::string& dataDirectory, const TavloString& applicationName);
