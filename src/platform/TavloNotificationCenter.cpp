#include "platform/TavloNotificationCenter.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "platform/TavloLogger.h"
#include "util/TavloLogSafe.h"

namespace {

void callLoggingFailures(const TavloNotificationObserver& observer, const std::string& name, const void* sender) {
  try {
    observer(name, sender);
  } catch (const std::exception& failure) {
    TavloLogger::log("An observer of " + TavloLogSafe(name) + " threw (" + TavloLogSafe(failure.what()) +
                         "); the others are still notified",
                     TavloLoggingModeError);
  } catch (...) {
    TavloLogger::log("An observer of " + TavloLogSafe(name) + " threw an unknown exception; the others are still notified",
                     TavloLoggingModeError);
  }
}

}  // namespace

std::shared_ptr<TavloNotificationCenter> TavloNotificationCenter::defaultCenter() {
  static auto* center = new std::shared_ptr<TavloNotificationCenter>(std::make_shared<TavloNotificationCenter>());
  return *center;
}

TavloObserverToken TavloNotificationCenter::addObserver(std::string name, TavloNotificationObserver observer) {
  if (!observer) return 0;
  auto registration = std::make_shared<Registration>();
  registration->name = std::move(name);
  registration->observer = std::make_shared<const TavloNotificationObserver>(std::move(observer));
  std::lock_guard<std::mutex> lock(protector);
  const TavloObserverToken token = ++lastToken;
  registrations.emplace(token, std::move(registration));
  return token;
}

bool TavloNotificationCenter::calledElsewhereLocked(const Registration& registration) {
  const auto self = std::this_thread::get_id();
  return std::any_of(registration.callingOn.begin(), registration.callingOn.end(),
                     [self](std::thread::id caller) { return caller != self; });
}

void TavloNotificationCenter::removeObserver(TavloObserverToken token) {
  std::shared_ptr<Registration> registration;
  std::unique_lock<std::mutex> lock(protector);
  auto found = registrations.find(token);
  if (found == registrations.end()) return;
  registration = std::move(found->second);
  registrations.erase(found);
  registration->removed = true;
  // A call that already passed the `removed` check may still be running elsewhere.
  callFinished.wait(lock, [&] { return !calledElsewhereLocked(*registration); });
  lock.unlock();
  // The observer (and what it captured) is released here, outside the lock, unless a
  // delivery still holds it.
}

void TavloNotificationCenter::postNotification(std::string_view name, const void* sender) {
  const std::string posted(name);
  std::vector<std::shared_ptr<Registration>> targets;
  {
    std::lock_guard<std::mutex> lock(protector);
    for (const auto& [token, registration] : registrations) {
      if (registration->name == posted) targets.push_back(registration);
    }
  }
  const auto self = std::this_thread::get_id();
  for (const auto& registration : targets) {
    std::shared_ptr<const TavloNotificationObserver> observer;
    {
      std::lock_guard<std::mutex> lock(protector);
      if (registration->removed) continue;
      registration->callingOn.push_back(self);
      observer = registration->observer;
    }
    callLoggingFailures(*observer, posted, sender);
    {
      std::lock_guard<std::mutex> lock(protector);
      auto& callers = registration->callingOn;
      callers.erase(std::find(callers.begin(), callers.end(), self));
    }
    callFinished.notify_all();
  }
}

size_t TavloNotificationCenter::TEST_observerCount(std::string_view name) {
  std::lock_guard<std::mutex> lock(protector);
  return static_cast<size_t>(std::count_if(registrations.begin(), registrations.end(),
                                           [name](const auto& entry) { return entry.second->name == name; }));
}
