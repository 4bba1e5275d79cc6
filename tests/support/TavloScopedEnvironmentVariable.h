// An environment variable changed for the length of one test.
#pragma once

#include <optional>
#include <string>

/// Sets `name` to `value` (or unsets it for nothing) and puts the previous state back
/// when destroyed. Changing TZ also calls tzset(), since the C library's local-time
/// functions do not look at TZ again by themselves. The environment is process-wide:
/// use only where no other thread reads it.
class TavloScopedEnvironmentVariable {
 public:
  TavloScopedEnvironmentVariable(std::string name, const std::optional<std::string>& value);
  ~TavloScopedEnvironmentVariable();
  TavloScopedEnvironmentVariable(const TavloScopedEnvironmentVariable&) = delete;
  TavloScopedEnvironmentVariable& operator=(const TavloScopedEnvironmentVariable&) = delete;

 private:
  void apply(const std::optional<std::string>& value) const;

  const std::string name;
  std::optional<std::string> previous;
};
