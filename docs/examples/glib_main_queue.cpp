// Running Tavlo's main queue on an application's own GLib main loop.
//
//   tavlo_glib_main_queue_example BASE_URL      (for example http://127.0.0.1:8080)
//
// By default the library plays its main queue (where streaming timers fire and network
// changes are announced) on a thread of its own. An application built around a GLib main
// loop can have that work run on its loop instead, one task at a time among its own
// events, by installing TavloGlibMainQueue below before its first tagger. The program
// then plays a film, its player events coming from the loop as a real player's would:
// play, pause, play again, stop, a second and a half apart. It quits the loop once the
// four hits are sent (exit 0) or after 30 seconds (exit 1).
#include <glib.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "tavlo/TavloApplication.h"
#include "tavlo/TavloStreamingTagger.h"
#include "tavlo/platform/TavloPlatform.h"

namespace {

// GLib calls back through C: nothing may be thrown through it.
void runGuarded(const std::function<void()>& task) noexcept {
  try {
    task();
  } catch (const std::exception& failure) {
    g_warning("a Tavlo main-queue task threw (%s); it was dropped", failure.what());
  } catch (...) {
    g_warning("a Tavlo main-queue task threw; it was dropped");
  }
}

}  // namespace

/// The main-queue seam on GLib's default main context: posted tasks are idle sources,
/// timers are timeout sources, all at the default priority, so they run on the thread
/// that runs the context's loop (g_main_loop_run), in turn with the application's own
/// sources. Adding a source from another thread is safe in GLib and wakes the loop.
///
/// Cancelling is the one delicate part. A one-shot timeout source disappears by itself
/// once it has fired, and g_source_remove() on a source that is gone is an error. So a
/// timer is marked cancelled at once (no firing starts after cancel() returns), and its
/// source is removed on the loop's own thread, where it is certainly either still attached
/// or already gone, never in between.
class TavloGlibMainQueue : public TavloMainQueue {
 public:
  void post(std::function<void()> task) override {
    g_idle_add_full(G_PRIORITY_DEFAULT, &runPostedTask, new std::function<void()>(std::move(task)), &deletePostedTask);
  }

  TavloTimerID schedule(double interval, bool repeats, std::function<void()> task) override {
    auto timer = std::make_shared<Timer>();
    timer->task = std::move(task);
    timer->repeats = repeats;
    // The interval every main queue uses (TavloMainQueue::effectiveInterval), rounded up
    // to GLib's tick of a millisecond. A guint of milliseconds ends at about 49 days,
    // far short of the seam's 1e9 seconds: a longer timer is re-armed in steps of at
    // most that until its whole interval has passed.
    const double milliseconds = std::ceil(TavloMainQueue::effectiveInterval(interval) * 1000);
    timer->remaining = timer->period = milliseconds;
    const guint period = stepOf(timer->remaining);
    // The source owns the timer; the table only follows it, so a finished timer goes away.
    const guint source = g_timeout_add_full(G_PRIORITY_DEFAULT, period, &fireTimer,
                                            new std::shared_ptr<Timer>(timer), &releaseTimer);
    std::lock_guard lock(protector_);
    std::erase_if(timers_, [](const auto& entry) { return entry.second.expired(); });
    timer->source = source;
    timers_.emplace(++lastTimer_, timer);
    return lastTimer_;
  }

  void cancel(TavloTimerID id) override {
    std::shared_ptr<Timer> timer;
    {
      std::lock_guard lock(protector_);
      const auto found = timers_.find(id);
      if (found == timers_.end()) return;
      timer = found->second.lock();
      timers_.erase(found);
    }
    if (!timer) return;  // a one-shot timer that has fired already
    timer->cancelled = true;
    if (isCurrent()) {
      removeSource(*timer);
    } else {
      post([timer] { removeSource(*timer); });
    }
  }

  bool isCurrent() override { return g_main_context_is_owner(g_main_context_default()); }

 private:
  struct Timer {
    std::function<void()> task;
    bool repeats = false;
    std::atomic<bool> cancelled{false};
    double period = 0;      // milliseconds; set once by schedule()
    double remaining = 0;   // milliseconds left of the current firing's interval; on the loop's thread
    guint source = 0;       // the source armed now; set by schedule() before cancel() can find the timer, then on the loop's thread
    bool finished = false;  // on the loop's thread only: the source is gone or going
  };

  static gboolean runPostedTask(gpointer data) {
    runGuarded(*static_cast<std::function<void()>*>(data));
    return G_SOURCE_REMOVE;
  }
  static void deletePostedTask(gpointer data) { delete static_cast<std::function<void()>*>(data); }

  // The next source's period, in milliseconds, for what remains of an interval.
  static guint stepOf(double remaining) { return static_cast<guint>(std::min(remaining, static_cast<double>(G_MAXUINT))); }

  static gboolean fireTimer(gpointer data) {
    auto& shared = *static_cast<std::shared_ptr<Timer>*>(data);
    Timer& timer = *shared;
    timer.remaining -= stepOf(timer.remaining);
    if (timer.remaining > 0 && !timer.cancelled) {
      // A step of a long interval has passed: the rest follows on a source of its own.
      timer.source = g_timeout_add_full(G_PRIORITY_DEFAULT, stepOf(timer.remaining), &fireTimer,
                                        new std::shared_ptr<Timer>(shared), &releaseTimer);
      return G_SOURCE_REMOVE;
    }
    if (!timer.cancelled) runGuarded(timer.task);
    if (timer.repeats && !timer.cancelled) {
      timer.remaining = timer.period;
      if (timer.period <= G_MAXUINT) return G_SOURCE_CONTINUE;
      timer.source = g_timeout_add_full(G_PRIORITY_DEFAULT, stepOf(timer.remaining), &fireTimer,
                                        new std::shared_ptr<Timer>(shared), &releaseTimer);
      return G_SOURCE_REMOVE;
    }
    timer.finished = true;
    return G_SOURCE_REMOVE;
  }
  static void releaseTimer(gpointer data) { delete static_cast<std::shared_ptr<Timer>*>(data); }

  // On the loop's thread.
  static void removeSource(Timer& timer) {
    if (timer.finished) return;
    timer.finished = true;
    g_source_remove(timer.source);
  }

  std::mutex protector_;
  std::unordered_map<TavloTimerID, std::weak_ptr<Timer>> timers_;  // guarded by protector_
  TavloTimerID lastTimer_ = 0;                                      // guarded by protector_
};

namespace {

// Runs `action` on the loop `milliseconds` from now, as an application's own timers do.
void runAfter(guint milliseconds, std::function<void()> action) {
  g_timeout_add_full(
      G_PRIORITY_DEFAULT, milliseconds,
      [](gpointer data) -> gboolean {
        runGuarded(*static_cast<std::function<void()>*>(data));
        return G_SOURCE_REMOVE;
      },
      new std::function<void()>(std::move(action)), [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s BASE_URL   (for example http://127.0.0.1:8080)\n", argv[0]);
    return 2;
  }

  // Before the first tagger: who we are, where hits go, and whose loop runs the main queue.
  TavloApplicationInfo application;
  application.bundleName = "TavloGlibExample";
  application.bundleVersion = "1.0";
  TavloPlatform platform = TavloPlatform::linuxDefaults(application);
  platform.endpoints = TavloEndpoints::allAt(argv[1]);
  platform.mainQueue = std::make_shared<TavloGlibMainQueue>();
  TavloPlatform::install(platform);

  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  std::shared_ptr<TavloStreamingTagger> tagger = TavloStreamingTagger::TavloStreamingTaggerWithSerial(
      "example-serial", "example-film", 100, "http://media.example/example-film.m3u8", 5400,
      TavloStreamingTypeNoPosition, [](TavloStreamingConfig& config) {
        config.setLevel1("films");
        config.setCustomerData("viewer-42");
      });

  // The player's events, on the loop. Each more than a second after the one before, so
  // none is merged by the library's one-second throttle: four hits.
  std::atomic<bool> sent{false};
  std::thread waiter;
  runAfter(0, [&] { tagger->notifyEvent(TavloStreamingEventPlay, 0); });
  runAfter(1500, [&] { tagger->notifyEvent(TavloStreamingEventPause, 1); });
  runAfter(3000, [&] { tagger->notifyEvent(TavloStreamingEventPlay, 1); });
  runAfter(4500, [&] {
    tagger->notifyEvent(TavloStreamingEventStop, 3);
    // Waiting blocks, so it is done off the loop, which keeps running meanwhile.
    waiter = std::thread([&] {
      sent = TavloWaitForPendingHits(30);
      g_main_loop_quit(loop);
    });
  });
  g_main_loop_run(loop);

  waiter.join();
  tagger.reset();  // stops its timers, while the loop's context still exists
  TavloShutdown();
  g_main_loop_unref(loop);
  std::printf(sent ? "all hits sent\n" : "hits still pending after 30 seconds\n");
  return sent ? 0 : 1;
}
