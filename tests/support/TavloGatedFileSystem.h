// A file system that holds the agent's handler in the middle of its start.
#pragma once

#include <chrono>
#include <future>
#include <string>
#include <system_error>

#include "linux/TavloPosixFileSystem.h"

/// Reads files only once the test opens the gate (`opener.set_value()`): an agent made
/// on it returns while its handler waits to read the queue file, and hits handed over
/// meanwhile wait in the hand-over. Gives up after ten seconds, so a test that forgets
/// the gate fails instead of hanging.
class TavloGatedFileSystem : public TavloPosixFileSystem {
 public:
  using TavloPosixFileSystem::TavloPosixFileSystem;
  std::error_code readFile(const std::string& path, std::string& contents, std::size_t maxBytes) override {
    if (gate.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      return std::make_error_code(std::errc::timed_out);
    }
    return TavloPosixFileSystem::readFile(path, contents, maxBytes);
  }
  std::promise<void> opener;
  std::shared_future<void> gate = opener.get_future().share();
};
