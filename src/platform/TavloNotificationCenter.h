// Named notifications from one part of the library to the others.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/// Posted by a reachability monitor, through the main queue, after each change it
/// reports; the sender is the monitor. Observers ask the monitor for the new state.
inline constexpr std::string_view kTavloReachabilityChangedNotification = "kTavloReachabilityChangedNotification";

/// Identifies one registration; 0 is never handed out.
using TavloObserverToken = uint64_t;

/// Called with the notification's name and its sender (which may be null). The sender is
/// only an identity for the duration of the call: the centre does not own it.
using TavloNotificationObserver = std::function<void(const std::string& name, const void* sender)>;

/// Delivers a posted notification to every observer registered for its name, whatever
/// the sender, synchronously on the posting thread, in the order of registration.
///
/// Removal is safe at any moment: once removeObserver() has returned, the observer is
/// never called again, and a call to it already running on another thread has finished.
/// The one exception is an observer that removes itself (or a registration whose call
/// is on the current thread's stack): removal then returns at once, without waiting for
/// that call, which is still running. An observer registered while a notification is
/// being delivered does not receive that notification.
///
/// No lock is held while an observer runs, so observers may post, add and remove. Two
/// observers running on two threads and each removing the other wait for each other
/// forever: do not do that.
///
/// Every member is callable from any thread.
class TavloNotificationCenter {
 public:
  TavloNotificationCenter() = default;
  TavloNotificationCenter(const TavloNotificationCenter&) = delete;
  TavloNotificationCenter& operator=(const TavloNotificationCenter&) = delete;

  /// The process-wide centre, made on first use and never destroyed (so a notification
  /// posted while the process exits still finds it).
  static std::shared_ptr<TavloNotificationCenter> defaultCenter();

  /// Registers `observer` for notifications named `name`. An empty observer is not
  /// registered and gets token 0.
  TavloObserverToken addObserver(std::string name, TavloNotificationObserver observer);
  /// Unregisters; unknown tokens (and 0) are ignored.
  void removeObserver(TavloObserverToken token);
  /// Calls the observers of `name` with `name` and `sender`. What an observer throws is
  /// logged and dropped, and the observers after it are still called.
  void postNotification(std::string_view name, const void* sender);

  /// How many observers are registered for `name` (for tests).
  size_t TEST_observerCount(std::string_view name);

 private:
  struct Registration {
    std::string name;
    std::shared_ptr<const TavloNotificationObserver> observer;
    bool removed = false;                      // guarded by protector
    std::vector<std::thread::id> callingOn;    // guarded by protector; one entry per running call
  };

  // Whether `registration` is being called on a thread other than the current one.
  // REQUIRES: protector held.
  static bool calledElsewhereLocked(const Registration& registration);

  std::mutex protector;
  std::condition_variable callFinished;
  std::map<TavloObserverToken, std::shared_ptr<Registration>> registrations;  // guarded by protector
  TavloObserverToken lastToken = 0;                                           // guarded by protector
};
