#include "support/TavloScopedEnvironmentVariable.h"

#include <stdlib.h>
#include <time.h>

TavloScopedEnvironmentVariable::TavloScopedEnvironmentVariable(std::string name,
                                                               const std::optional<std::string>& value)
    : name(std::move(name)) {
  if (const char* current = getenv(this->name.c_str())) previous = current;
  apply(value);
}

TavloScopedEnvironmentVariable::~TavloScopedEnvironmentVariable() { apply(previous); }

void TavloScopedEnvironmentVariable::apply(const std::optional<std::string>& value) const {
  if (value) {
    setenv(name.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name.c_str());
  }
  if (name == "TZ") tzset();
}
