#include "agent/TavloAgent.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <future>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "agent/TavloQueueLocation.h"
#include "agent/TavloSentJournal.h"
#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "platform/TavloInstalledPlatform.h"
#include "platform/TavloLogger.h"
#include "request/TavloClearCache.h"
#include "request/TavloRecordClasses.h"
#include "tavlo/TavloAudienceTagger.h"
#include "util/TavloCalendar.h"
#include "util/TavloLogSafe.h"

namespace {

constexpr size_t kMaximumQueueLength = 500;
constexpr double kRetryInterval = 60;
constexpr double kSendTimeout = 10;
// How many batches of the hand-over the send loop takes before it leaves the rest to the
// handler and goes back to sending: one, so that a burst is made on the handler.
constexpr size_t kLoopTakeBatches = 1;

// The calendar day of `localSeconds` (seconds since 1970 in local time).
TavloCivilDate civilDayOf(double localSeconds) {
  return TavloCivilDateFromDays(static_cast<int64_t>(std::floor(localSeconds / 86400.0)));
}

}  // namespace

namespace {
std::atomic<TavloAgent*> madeSharedAgent{nullptr};
}  // namespace

std::shared_ptr<TavloAgent> TavloAgent::sharedAgent() {
  // Never destroyed: the send loop may be in the middle of an exchange when the process
  // exits, and joining it from a static destructor would hold the exit up.
  static const std::shared_ptr<TavloAgent>* const shared = [] {
    auto* agent = new std::shared_ptr<TavloAgent>(
        make(TavloPlatformForSingleton(), TavloAuthManager::manager(), TavloNotificationCenter::defaultCenter()));
    madeSharedAgent.store(agent->get());
    return agent;
  }();
  return *shared;
}

std::shared_ptr<TavloAgent> TavloAgent::sharedAgentIfMade() {
  return madeSharedAgent.load() ? sharedAgent() : nullptr;
}

std::shared_ptr<TavloAgent> TavloAgent::make(const TavloPlatform& platform,
                                             std::shared_ptr<TavloAuthManager> authManager,
                                             std::shared_ptr<TavloNotificationCenter> center) {
  if (!authManager) authManager = std::make_shared<TavloAuthManager>(platform);
  if (!center) center = TavloNotificationCenter::defaultCenter();
  auto agent = std::shared_ptr<TavloAgent>(new TavloAgent(platform, std::move(authManager), std::move(center)));
  agent->start();
  return agent;
}

TavloAgent::TavloAgent(const TavloPlatform& platform, std::shared_ptr<TavloAuthManager> authManager,
                       std::shared_ptr<TavloNotificationCenter> center)
    : platform_(platform), authManager_(std::move(authManager)), center_(std::move(center)), defaults_(platform) {}

void TavloAgent::start() {
  reachability_ = TavloReachability::reachabilityForInternetConnection(platform_, center_);
  std::weak_ptr<TavloAgent> weak = weak_from_this();
  reachabilityObserver_ = center_->addObserver(std::string(kTavloReachabilityChangedNotification),
                                               [weak](const std::string&, const void*) {
                                                 if (auto agent = weak.lock()) agent->reachabilityStatusChanged();
                                               });
  foregroundObserver_ = center_->addObserver(kTavloApplicationWillEnterForegroundNotification,
                                             [weak](const std::string&, const void*) {
                                               if (auto agent = weak.lock()) agent->applicationWillEnterForeground();
                                             });
  // The file is read on the handler, ahead of every hand-over: the application's first
  // tagger call never waits for the disk, and no hit can overtake the ones kept in it.
  requestHandler.async([weak] {
    if (auto agent = weak.lock()) {
      agent->loadRequests();
      {
        std::lock_guard lock(agent->requestsProtector);
        agent->queueLoaded_ = true;
      }
      agent->ledger_.deliver();
    }
  });
  requestSender.async([weak] {
    if (auto agent = weak.lock()) agent->handleRequests();
  });
  if (reachability_) reachability_->startNotifier();
}

TavloAgent::~TavloAgent() { shutdown(); }

void TavloAgent::shutdown() {
  {
    std::lock_guard lock(inboxProtector);
    if (inboxClosed_) return;
    inboxClosed_ = true;
  }
  {
    std::lock_guard lock(requestsProtector);
    stopping_ = true;
  }
  requestsCondition.notify_all();
  if (reachability_) reachability_->stopNotifier();
  center_->removeObserver(reachabilityObserver_);
  center_->removeObserver(foregroundObserver_);
  requestSender.shutdown();
  requestHandler.shutdown();
  // Whatever was handed over before the call is in the file when this returns.
  takeHandOver();
  // This run's delivery counts, beside the queue file, for tavlo-queue to show; written
  // with the queue file's lock still held, but not requestsProtector: the fsync may take
  // long, and a late call (pendingRequestCount, a tagger's) would wait for it.
  std::string path;
  {
    std::lock_guard lock(requestsProtector);
    path = deliveryPath();
  }
  if (!path.empty()) platform_.files->writeFileAtomically(path, ledger_.text(), 0600);
  std::lock_guard lock(requestsProtector);
  fileLock_.reset();
}

void TavloAgent::addTavloAudienceTagger(const std::shared_ptr<TavloAudienceTagger>& tagger) {
  log("A new TavloAudienceTagger was created", TavloLoggingModeInfo);
  if (!tagger) return;
  std::lock_guard lock(audienceTaggersProtector);
  // The first tagger registered under a key wins.
  TavloAudienceTaggers.try_emplace(TavloTaggerIdentifier(tagger->serial(), tagger->customerData()), tagger);
}

std::shared_ptr<TavloAudienceTagger> TavloAgent::TavloAudienceTaggerWithSerial(const TavloString& serial,
                                                                                const TavloString& customerData) {
  std::lock_guard lock(audienceTaggersProtector);
  const auto found = TavloAudienceTaggers.find(TavloTaggerIdentifier(serial, customerData));
  return found == TavloAudienceTaggers.end() ? nullptr : found->second;
}

uint64_t TavloAgent::getPartialID() {
  std::lock_guard lock(partialIDLocker);
  return partialID_++;
}

std::string TavloAgent::prepareQueueFile(std::error_code& error) {
  const std::string dataDirectory = platform_.files->dataDirectory();
  // Without a data directory the path would start at "/": never write there.
  if (dataDirectory.empty() || dataDirectory.front() != '/') {
    error = std::make_error_code(std::errc::no_such_file_or_directory);
    return {};
  }
  const std::string path = TavloQueueFilePath(dataDirectory, platform_.deviceInfo->bundleName());
  error = platform_.files->createDirectories(path.substr(0, path.rfind('/')), 0700);
  return path;
}

std::string TavloAgent::requestsFilePath() {
  std::error_code error;
  std::string path = prepareQueueFile(error);
  return error ? std::string() : path;
}

void TavloAgent::loadRequests() {
  log("Loading requests from cache", TavloLoggingModeInfo);
  std::error_code error;
  const std::string path = prepareQueueFile(error);
  if (path.empty()) {
    log("No data directory for the request queue (neither XDG_DATA_HOME nor HOME names one); "
        "requests are kept in memory only",
        TavloLoggingModeError);
    return;
  }
  if (error) {
    log("The request queue cannot be kept in " + TavloLogSafe(path) + " (" + error.message() +
            "); requests are kept in memory only",
        TavloLoggingModeError);
    return;
  }
  auto lock = platform_.files->tryLockFile(path + ".lock", error);
  if (!lock) {
    if (error == std::errc::resource_unavailable_try_again) {
      log("The request queue file " + path + " is in use by another process of this application; " +
              "this process keeps its requests in memory only",
          TavloLoggingModeWarning);
    } else {
      log("The request queue cannot be kept in " + path + " (" + error.message() +
              "); requests are kept in memory only",
          TavloLoggingModeError);
    }
    return;
  }
  // Holding the lock, no other writer of this file is alive: what a killed one left is stale.
  platform_.files->removeLeftoverTemporaries(path);
  readConsent(path);

  std::deque<std::shared_ptr<TavloRequest>> loaded;
  std::vector<const TavloRequest*> fileOrder;  // what the file holds, by position
  std::vector<bool> sent;                      // by position: listed in the sent journal
  bool markerLoaded = false;
  std::string data;
  const std::string journalPath = TavloSentJournal::pathFor(path);
  error = platform_.files->readFile(path, data, TavloKeyedUnarchiver::maxArchiveBytes);
  if (error && error != std::errc::no_such_file_or_directory) {
    log("Could not read the request queue file " + TavloLogSafe(path) + " (" + error.message() +
            "); starting with an empty queue",
        TavloLoggingModeWarning);
  } else if (!error) {
    std::string why;
    const auto decoded = TavloKeyedUnarchiver::unarchivedArrayWithData(data, TavloRecordClasses(), &why);
    if (!decoded) {
      log("The request queue file " + TavloLogSafe(path) + " is damaged (" + TavloLogSafe(why) +
              "); starting with an empty queue, the file is replaced at the next save",
          TavloLoggingModeWarning);
    } else {
      // Positions in the journal count every element of the file: when some could not be
      // read, they no longer line up, and the journal is not used.
      std::string journal;
      if (why.empty() && !platform_.files->readFile(journalPath, journal, 4 * (decoded->size() + 8))) {
        sent.assign(decoded->size(), false);
        for (const uint32_t position :
             TavloSentJournal::sentPositions(journal, TavloSentJournal::fingerprint(data), decoded->size())) {
          sent[position] = true;
        }
      }
      for (size_t position = 0; position < decoded->size(); ++position) {
        auto request = std::dynamic_pointer_cast<TavloRequest>((*decoded)[position]);
        const bool kept = request && request->requestType() != TavloRequestTypeAudience &&
                          !(position < sent.size() && sent[position]);
        // Audience hits do not survive a restart, and neither does an old marker (its type
        // reads 0); hits the journal says were sent are not sent again.
        fileOrder.push_back(kept ? request.get() : nullptr);
        if (request && !kept && !(position < sent.size() && sent[position])) {
          ledger_.dropped(*request, TavloDropReason::DiscardedAtRestart);
        }
        if (kept) {
          ledger_.queued(*request);
          loaded.push_back(std::move(request));
        }
      }
      // Loading keeps everything the file holds: the 500 cap applies when a request is added.
      if (!loaded.empty()) {
        loaded.push_back(TavloClearCache::make());
        markerLoaded = true;
      }
    }
  }
  {
    // The file and its journal stay as they are until the queue next changes: the
    // positions of this file are what later removals are journaled against.
    std::lock_guard writer(fileWriter);
    savedFingerprint_ = TavloSentJournal::fingerprint(data);
    journaled_ = sent.empty() ? std::vector<bool>(fileOrder.size(), false) : sent;
    savedOrder_ = std::move(fileOrder);
    journalMayExist_ = !sent.empty();
    if (sent.empty()) platform_.files->removeFile(journalPath);  // another file's, or none
  }
  std::lock_guard guard(requestsProtector);
  markerMayBeQueued_ = markerLoaded;
  fileLock_ = std::move(lock);
  queuePath_ = path;
  // Nothing was handed over yet (the hand-over waits behind this task), so the loaded
  // requests are the whole queue.
  requestQueue.insert(requestQueue.begin(), loaded.begin(), loaded.end());
  // Left by a process killed between a revocation and the rewrite of its file.
  if (consent() == TavloConsent::Revoked) purgeForConsent();
  publishQueueLength();
  signalLoop();
}

void TavloAgent::saveRequests() {
  log("Saving requests to cache", TavloLoggingModeInfo);
  ++changeCount_;
}

void TavloAgent::persist() {
  std::lock_guard writer(fileWriter);
  persistLocked();
}

void TavloAgent::persistLocked() {
  std::vector<std::shared_ptr<TavloCodable>> objects;
  std::vector<const TavloRequest*> order;
  uint64_t changeCount = 0;
  std::string path;
  {
    std::lock_guard lock(requestsProtector);
    if (queuePath_.empty() || changeCount_ == savedChangeCount_) return;
    if (requestQueue.empty() && fileHoldsNoQueuedRequest()) {
      // The file (with its journal) already says what the queue says: nothing is left,
      // as after a lone hit that went out before it was ever written.
      attemptedChangeCount_ = savedChangeCount_ = changeCount_;
      return;
    }
    attemptedChangeCount_ = changeCount_;
    objects.assign(requestQueue.begin(), requestQueue.end());
    for (const auto& request : requestQueue) order.push_back(request.get());
    changeCount = changeCount_;
    path = queuePath_;
  }
  // Archived and written without requestsProtector: enqueues and the send loop go on,
  // and fileWriter keeps the writes in the order of their snapshots.
  const std::string bytes = TavloKeyedArchiver::archivedDataWithRootArray(objects, archiveCache_);
  objects.clear();
  if (bytes.empty()) {
    // Out of memory, most likely: the file on disk is older but whole, and the queue is
    // written again at the next change.
    log("Could not encode the request queue; the file keeps its last contents", TavloLoggingModeError);
    return;
  }
  std::error_code error = platform_.files->writeFileAtomically(path, bytes, 0600);
  if (error == std::errc::no_such_file_or_directory) {
    // The folder went away while we ran: make it again, or say why it cannot be.
    error = platform_.files->createDirectories(path.substr(0, path.rfind('/')), 0700);
    if (!error) error = platform_.files->writeFileAtomically(path, bytes, 0600);
  }
  if (error) {
    if (!saveFailureLogged_) {
      saveFailureLogged_ = true;
      log("Could not save the request queue to " + TavloLogSafe(path) + " (" + error.message() +
              "); requests are kept in memory and saving is tried again at every change",
          TavloLoggingModeError);
    }
    return;
  }
  saveFailureLogged_ = false;
  savedChangeCount_ = changeCount;
  savedOrder_ = std::move(order);
  journaled_.assign(savedOrder_.size(), false);
  savedFingerprint_ = TavloSentJournal::fingerprint(bytes);
  // The file now says everything the journal said: a journal left behind by a crash
  // right here is another file's, and ignored.
  journal_.reset();
  if (journalMayExist_) {
    platform_.files->removeFile(TavloSentJournal::pathFor(path));
    journalMayExist_ = false;
  }
}

bool TavloAgent::fileHoldsNoQueuedRequest() const {
  for (size_t position = 0; position < savedOrder_.size(); ++position) {
    if (savedOrder_[position] != nullptr && !journaled_[position]) return false;
  }
  return true;
}

void TavloAgent::journalRemoval(const TavloRequest* removed) {
  std::lock_guard writer(fileWriter);
  std::string path;
  {
    std::lock_guard lock(requestsProtector);
    path = queuePath_;
  }
  if (path.empty()) return;
  const auto found = std::find(savedOrder_.begin(), savedOrder_.end(), removed);
  if (found == savedOrder_.end()) return;  // never written: there is nothing to take back
  const auto position = static_cast<size_t>(found - savedOrder_.begin());
  if (journaled_[position]) return;
  const bool fresh = !journalMayExist_;
  journalMayExist_ = true;
  const std::string bytes =
      (fresh ? TavloSentJournal::header(savedFingerprint_) : std::string()) + TavloSentJournal::entry(position);
  std::error_code error;
  if (!journal_) journal_ = platform_.files->openForAppending(TavloSentJournal::pathFor(path), 0600, error);
  if (!journal_ || journal_->append(bytes)) {
    // The journal may now be torn: the whole file, written afresh, replaces it.
    journal_.reset();
    {
      std::lock_guard lock(requestsProtector);
      ++changeCount_;
    }
    persistLocked();
    return;
  }
  journaled_[position] = true;
}

void TavloAgent::logCount() {
  if (!TavloLogger::wouldLog(TavloLoggingModeInfo)) return;
  log("We have now " + std::to_string(requestQueue.size()) + " request(s) to handle", TavloLoggingModeInfo);
}

namespace {
size_t parameterBytes(const TavloRequest& request) {
  const std::shared_ptr<const TavloParameters> parameters = request.parameters();
  size_t bytes = 0;
  if (parameters) {
    for (const auto& [key, value] : *parameters) bytes += key.size() + value.size();
  }
  return bytes;
}
}  // namespace

bool TavloAgent::refusesOversized(const TavloRequest& request) {
  const size_t bytes = parameterBytes(request);
  if (bytes <= maximumHitBytes) return false;
  log("A hit of serial " + TavloLogSafe(request.serial().value_or("(null)")) + " carries " + std::to_string(bytes) +
          " bytes of parameters, more than the " + std::to_string(maximumHitBytes) + " a hit may carry; it is dropped",
      TavloLoggingModeError);
  ledger_.dropped(request, TavloDropReason::InvalidURL);
  ledger_.deliver();
  return true;
}

void TavloAgent::addRequestToQueue(std::shared_ptr<TavloRequest> request) {
  if (!request || refusesOversized(*request)) return;
  handOver({HandOver::Enqueue, std::move(request)});
}

void TavloAgent::addRequestMadeByHandler(RequestMaker make, TavloString serial, int64_t requestType) {
  if (!make) return;
  HandOver item{HandOver::Enqueue, nullptr, std::move(make)};
  item.serial = std::move(serial);
  item.requestType = requestType;
  handOver(std::move(item));
}

void TavloAgent::countDropped(const HandOver& item, TavloDropReason reason) {
  if (item.kind != HandOver::Enqueue) return;
  if (item.request) {
    ledger_.dropped(*item.request, reason);
  } else {
    ledger_.dropped(item.serial, item.requestType, reason);
  }
}

bool TavloAgent::handOver(HandOver item) {
  bool schedule = false;
  HandOver dropped{};  // released after the lock: freeing a hit's parameters takes a while
  // A revoked consent drops a hit before it costs anything more; hits handed over before
  // the revocation are in the hand-over ahead of it, and go when it is taken.
  if (item.kind == HandOver::Enqueue && consent() == TavloConsent::Revoked) {
    countDropped(item, TavloDropReason::Consent);
    ledger_.deliver();
    return false;
  }
  bool closed = false;
  {
    // The taker holds this lock only to move a few items: a caller spins briefly rather
    // than sleep on it and wait for the scheduler to wake it again.
    std::unique_lock lock(inboxProtector, std::try_to_lock);
    for (int spin = 0; spin < 100 && !lock.owns_lock(); ++spin) static_cast<void>(lock.try_lock());
    if (!lock.owns_lock()) lock.lock();
    closed = inboxClosed_;
    if (closed) {
      countDropped(item, TavloDropReason::AfterShutdown);
    } else if (item.kind == HandOver::Enqueue && inboxRequests_ >= maximumHandOverBacklog) {
      const auto oldest = std::find_if(inbox_.begin(), inbox_.end(),
                                       [](const HandOver& waiting) { return waiting.kind == HandOver::Enqueue; });
      dropped = std::move(*oldest);
      inbox_.erase(oldest);
      --inboxRequests_;
      ++droppedAtHandOver_;
      ++droppedSinceLastTake_;
      countDropped(dropped, TavloDropReason::QueueFull);
    }
    if (!closed) {
      if (item.kind == HandOver::Enqueue) ++inboxRequests_;
      inbox_.push_back(std::move(item));
      schedule = !inboxTakeScheduled_;
      inboxTakeScheduled_ = true;
    }
  }
  ledger_.deliver();
  if (closed) return false;
  if (schedule) scheduleTake();
  return true;
}

void TavloAgent::takeOnHandler() {
  std::weak_ptr<TavloAgent> weak = weak_from_this();
  requestHandler.async([weak] {
    if (auto agent = weak.lock()) agent->takeHandOver();
  });
}

void TavloAgent::scheduleTake() {
  bool loopTakes = false;
  {
    // A send loop asleep with nothing to send takes the hand-over itself: a hit that
    // arrives on a quiet agent then wakes one thread, not two, before it goes out. The
    // caller never waits for the queue's lock to find out: whoever holds it is at work,
    // so the loop is not asleep, and the handler takes.
    std::unique_lock lock(requestsProtector, std::try_to_lock);
    if (lock.owns_lock() && queueLoaded_ && loopWaiting_ && !stopping_) {
      loopTakesHandOver_ = true;
      loopTakes = true;
      ++signalsSent_;
    }
  }
  if (loopTakes) {
    requestsCondition.notify_all();
  } else {
    takeOnHandler();
  }
}

void TavloAgent::takeHandOver(size_t maximumBatches) {
  // Taken in small batches: what waits in the hand-over, what is being queued and the
  // queue itself are then all that is alive at once, however fast hits come.
  constexpr size_t kBatch = 16;
  std::vector<std::pair<TavloConsent, bool>> consentChanges;  // the state, and whether to reset the identifier
  std::vector<std::shared_ptr<std::promise<void>>> barriers;
  bool more = false;  // left for the handler: the taker had its share
  for (size_t batches = 0;; ++batches) {
    std::deque<HandOver> taken;
    uint64_t dropped = 0;
    {
      std::lock_guard lock(inboxProtector);
      if (inbox_.empty()) {
        inboxTakeScheduled_ = false;
        break;
      }
      if (batches == maximumBatches) {
        more = true;  // still scheduled: nobody else takes meanwhile
        break;
      }
      if (inbox_.size() <= kBatch) {
        taken.swap(inbox_);  // the usual case, in no time: a caller never waits for the moves
        inboxRequests_ = 0;
      }
      while (!inbox_.empty() && taken.size() < kBatch) {
        if (inbox_.front().kind == HandOver::Enqueue) --inboxRequests_;
        taken.push_back(std::move(inbox_.front()));
        inbox_.pop_front();
      }
      dropped = std::exchange(droppedSinceLastTake_, 0);
    }
    if (dropped > 0) {
      log(std::to_string(dropped) + " hit(s) came faster than the queue could take them and were dropped, oldest first",
          TavloLoggingModeWarning);
#ifdef __GLIBC__
      // Hits dropped here were made on the callers' threads, so under a flood freed pages
      // pile up in glibc's per-thread arenas, one per calling thread: hand them back as
      // the flood goes, or the peak grows with the number of callers.
      malloc_trim(0);
#endif
    }
    // Made here, before requestsProtector: the callers handed over only what they captured.
    for (HandOver& item : taken) {
      if (!item.make) continue;
      item.request = item.make(*this);
      item.make = nullptr;
      if (item.request && refusesOversized(*item.request)) item.request.reset();
    }
    {
      std::lock_guard lock(requestsProtector);
      for (const HandOver& item : taken) {
        switch (item.kind) {
          case HandOver::Enqueue:
            if (item.request) enqueue(item.request);
            break;
          case HandOver::ReconnectionPurge:
            purgeAudienceRequests();
            break;
          case HandOver::Wake:
            ++signalsSent_;
            break;
          case HandOver::ConsentChange:
            if (item.consent == TavloConsent::Revoked) purgeForConsent();
            consentChanges.emplace_back(item.consent, item.resetDeviceIdentifier);
            ++signalsSent_;
            break;
          case HandOver::Barrier:
            barriers.push_back(item.done);
            break;
        }
      }
    }
    // Woken once the lock is free: woken while it was held, the loop would only go back
    // to sleep on it, one more wake-up per hit.
    requestsCondition.notify_all();
  }
  if (!consentChanges.empty()) {
    // Kept beside the queue file: a restart goes on with the viewer's last word.
    std::string path;
    {
      std::lock_guard lock(requestsProtector);
      path = consentPathFor(queuePath_);
    }
    const TavloConsent last = consentChanges.back().first;
    if (!path.empty()) {
      const char* const words[] = {"granted\n", "pending\n", "revoked\n"};
      if (const std::error_code error = platform_.files->writeFileAtomically(path, words[static_cast<int>(last)], 0600)) {
        log("Could not keep the consent state in " + TavloLogSafe(path) + " (" + error.message() +
                "); it holds for this process only",
            TavloLoggingModeError);
      }
    }
    for (const auto& [consent, reset] : consentChanges) {
      if (reset && consent == TavloConsent::Revoked) defaults_.uuidHandler().reset();
    }
  }
  persistUnlessGoingOutNow();
  // What was handed over before each barrier is now in the queue and the file.
  for (const auto& barrier : barriers) barrier->set_value();
  ledger_.deliver();
  if (more) takeOnHandler();
}

void TavloAgent::persistUnlessGoingOutNow() {
  std::lock_guard writer(fileWriter);
  {
    std::lock_guard lock(requestsProtector);
    // A lone hit that the send loop can send right now, on a file that holds nothing
    // still queued, is not written first: most hits leave within milliseconds, and writing each one before it goes
    // cost two syncs of the storage and a rewrite, each waking the agent, for every
    // polling hit of a playing medium. If its first attempt does not deliver it, the loop
    // writes it when it goes idle; shutdown writes it too.
    if (fileHoldsNoQueuedRequest() && requestQueue.size() == 1 && !stopping_ && headIsSendable()) return;
  }
  persistLocked();
}

void TavloAgent::enqueue(const std::shared_ptr<TavloRequest>& request) {
  log("Adding a request in queue", TavloLoggingModeInfo);
  // The hit reaches the queue and the file at once, but its authorisation is what the
  // cache holds once the exchange in flight is over: that exchange may be the one that
  // fills the cache (the first hit of a serial), and a stop handed over meanwhile must
  // forget the visit it opens, not the one before it.
  if (attemptInFlight_) {
    awaitingAuth_.push_back(request);
  } else {
    attachCachedAuth(*request);
  }
  requestQueue.push_back(request);
  ledger_.queued(*request);
  if (requestQueue.size() > kMaximumQueueLength) {
    ledger_.dropped(*requestQueue.front(), TavloDropReason::QueueFull);
    requestQueue.pop_front();
  }
  publishQueueLength();
  saveRequests();
  logCount();
  ++signalsSent_;  // the taker wakes the loop once it has let go of requestsProtector
}

void TavloAgent::attachCachedAuth(TavloRequest& request) {
  // A marker is only ever queued at start, behind the loaded requests: once none is left,
  // no hit needs to look for one again.
  if (markerMayBeQueued_) {
    markerMayBeQueued_ = std::any_of(requestQueue.begin(), requestQueue.end(),
                                     [](const auto& queued) { return queued->isClearCacheMarker(); });
  }
  const bool markerWaiting = markerMayBeQueued_;
  // While a marker waits, the cache is about to be cleared: the send step fetches afresh.
  const std::shared_ptr<TavloTaggerID> tagger = request.taggerID();
  if (markerWaiting || !tagger) return;
  request.setAuth(authManager_->authFromCacheForTagger(*tagger));
  if (request.shouldRenewSessionAfter()) {
    authManager_->forgetAuthForTagger(*tagger);
    log("ShouldRenewSession", TavloLoggingModeInfo);
  }
}

void TavloAgent::endAttempt() {
  attemptInFlight_ = false;
  if (awaitingAuth_.empty()) return;
  for (const auto& request : awaitingAuth_) attachCachedAuth(*request);
  awaitingAuth_.clear();
  saveRequests();  // the file keeps each request's authorisation
}

void TavloAgent::purgeAudienceRequests() {
  // Audience hits kept while offline are stale once the network is back; the marker
  // goes with them (its type reads audience). The file is rewritten at the next change.
  std::erase_if(requestQueue, [this](const auto& queued) {
    if (queued->requestType() != TavloRequestTypeAudience) return false;
    ledger_.dropped(*queued, TavloDropReason::DiscardedAtReconnection);
    return true;
  });
  publishQueueLength();
  awaitingReconnection_ = false;
  ++signalsSent_;  // the taker wakes the loop once it has let go of requestsProtector
}

void TavloAgent::purgeForConsent() {
  if (requestQueue.empty()) return;
  for (const auto& queued : requestQueue) ledger_.dropped(*queued, TavloDropReason::Consent);
  log("Consent revoked: " + std::to_string(requestQueue.size()) + " queued request(s) dropped", TavloLoggingModeInfo);
  requestQueue.clear();
  publishQueueLength();
  saveRequests();
}

std::string TavloAgent::consentPathFor(const std::string& queuePath) {
  return queuePath.empty() ? std::string() : queuePath.substr(0, queuePath.rfind('/') + 1) + "consent";
}

std::string TavloAgent::deliveryPath() const { return queuePath_.empty() ? std::string() : queuePath_ + ".delivery"; }

void TavloAgent::readConsent(const std::string& queuePath) {
  std::string word;
  const std::string path = consentPathFor(queuePath);
  if (platform_.files->readFile(path, word, 64)) return;  // none kept: granted, as always
  const std::string_view kept = std::string_view(word).substr(0, word.find('\n'));
  int consent = -1;
  if (kept == "granted") consent = static_cast<int>(TavloConsent::Granted);
  if (kept == "pending") consent = static_cast<int>(TavloConsent::Pending);
  if (kept == "revoked") consent = static_cast<int>(TavloConsent::Revoked);
  if (consent < 0) {
    log("The consent file " + TavloLogSafe(path) +
            " says neither granted, pending nor revoked; "
            "consent is taken as pending until the application says otherwise",
        TavloLoggingModeError);
    consent = static_cast<int>(TavloConsent::Pending);
  }
  // A word of this process's, said before the file could be read, is the newer.
  if (!consentSetHere_.load()) consent_.store(consent);
}

void TavloAgent::setConsent(TavloConsent consent, bool resetDeviceIdentifier) {
  if (static_cast<int>(consent) < 0 || static_cast<int>(consent) > 2) {
    log("Consent " + std::to_string(static_cast<int>(consent)) +
            " is not granted (0), pending (1) or revoked (2): ignored",
        TavloLoggingModeError);
    return;
  }
  consentSetHere_.store(true);
  consent_.store(static_cast<int>(consent));
  HandOver change{HandOver::ConsentChange};
  change.consent = consent;
  change.resetDeviceIdentifier = resetDeviceIdentifier;
  handOver(std::move(change));
}

void TavloAgent::removeRequestFromQueue(const std::shared_ptr<TavloRequest>& request) {
  if (!request) return;
  log("Removing request from queue", TavloLoggingModeInfo);
  // Sent from the head, almost always; the rest is still searched, since the same request
  // may have been handed over twice.
  if (!requestQueue.empty() && requestQueue.front() == request) requestQueue.pop_front();
  std::erase_if(requestQueue, [&](const auto& queued) { return request->isEqual(*queued); });
  publishQueueLength();
  // Only the send loop removes, and it journals each removal before its next request:
  // the file plus its journal already say this, and no rewrite is due for it.
  log("Saving requests to cache", TavloLoggingModeInfo);
  logCount();
}

bool TavloAgent::headIsSendable() {
  if (requestQueue.empty() || consent() != TavloConsent::Granted || !reachability_ || !reachability_->isReachable() ||
      awaitingReconnection_.load()) {
    return false;
  }
  const std::optional<TavloDate> lastFail = requestQueue.front()->lastFail();
  return !lastFail || flushing_ || std::fabs(platform_.clock->now() - *lastFail) >= kRetryInterval;
}

void TavloAgent::handleRequests() {
  std::shared_ptr<TavloRequest> removed;  // the last request this loop took off the queue
  for (;;) {
    // A removal is on disk before the next request goes out, as a few bytes in the
    // journal: a crash now resends nothing that was answered. The file itself is rewritten
    // by the next change that needs it (new hits, a purge) or at shutdown, never by this
    // thread for a removal: sending a hit costs no encode and no sync of the storage.
    if (removed) journalRemoval(removed.get());
    removed.reset();
    ledger_.deliver();
    std::shared_ptr<TavloRequest> request;
    {
      std::unique_lock lock(requestsProtector);
      while (!stopping_ && !loopTakesHandOver_ && !headIsSendable()) {
        if (fileBehind()) {
          // Going idle ends a burst of removals: the file itself catches up (once per change).
          lock.unlock();
          persist();
          lock.lock();
          continue;
        }
        loopWaiting_ = true;
        signalsSeen_ = signalsSent_;
        requestsCondition.notify_all();  // wakes TEST_waitUntilIdle
        requestsCondition.wait(lock);
        loopWaiting_ = false;
      }
      if (stopping_) return;
      if (std::exchange(loopTakesHandOver_, false)) {
        lock.unlock();
        // One batch at most: a flood goes on on the handler while this loop sends.
        takeHandOver(kLoopTakeBatches);
        continue;
      }

      log("Request to handle !", TavloLoggingModeInfo);
      request = requestQueue.front();
      if (request->isClearCacheMarker() || !isTheRequestValid(*request)) {
        if (request->isClearCacheMarker()) {
          authManager_->clearCache();
        } else {
          ledger_.dropped(*request, TavloDropReason::Stale);
        }
        removeRequestFromQueue(request);
        removed = request;
        continue;
      }
      attemptInFlight_ = true;
    }
    // The exchange runs without requestsProtector: hits handed over meanwhile reach the
    // queue and the file at once instead of waiting for the network.
    if (TavloLogger::wouldLog(TavloLoggingModeInfo)) {
      log("Handling request " + request->description(platform_.endpoints), TavloLoggingModeInfo);
    }
    Outcome outcome;
    const std::optional<TavloError> error = handleRequest(request, outcome);
    AttemptEnd end;
    {
      std::lock_guard lock(requestsProtector);
      end = finishAttempt(request, error, outcome);
      if (end.leftQueue) removed = request;
    }
    if (end.sendStop) {
      journalRemoval(request.get());
      request->setCreationDate(platform_.clock->now());
      request->transformToStop();
      handleRequest(request);  // its outcome does not matter: the request is not queued again
    }
    std::lock_guard lock(requestsProtector);
    endAttempt();
  }
}

TavloAgent::AttemptEnd TavloAgent::finishAttempt(const std::shared_ptr<TavloRequest>& request,
                                                 const std::optional<TavloError>& error, const Outcome& outcome) {
  // The request is described as it was sent: with its authorisation and network name.
  const auto logOutcome = [&](const char* outcome, TavloLoggingMode mode) {
    if (TavloLogger::wouldLog(mode)) {
      log("Request " + request->description(platform_.endpoints) + outcome, mode);
    }
  };
  if (error && (error->code == TavloErrorNotReachable || error->code == TavloErrorNoAnswer)) {
    logOutcome(" handling resulted in a timeout or lack of connection", TavloLoggingModeWarning);
    // Tried once: a flush ends here, as the requests behind would fail alike.
    flushing_ = false;
    if (requestQueue.size() > kMaximumQueueLength) {
      ledger_.dropped(*request, TavloDropReason::QueueFull);
      removeRequestFromQueue(request);
      return {.leftQueue = true};
    }
    return {.leftQueue = std::find(requestQueue.begin(), requestQueue.end(), request) == requestQueue.end()};
  }
  // A request purged or pushed out of a full queue while in flight was counted then: each
  // hit is counted once, so that queued = sent + dropped + still queued.
  if (std::find(requestQueue.begin(), requestQueue.end(), request) != requestQueue.end()) {
    if (error) {
      ledger_.dropped(*request, TavloDropReason::AccessRefused);
    } else if (outcome.kind == Outcome::Sent) {
      ledger_.sent(*request);
    } else {
      ledger_.dropped(*request,
                      outcome.kind == Outcome::HttpStatus ? TavloDropReason::HttpStatus : TavloDropReason::InvalidURL,
                      outcome.status);
    }
  }
  logOutcome(" handling done", TavloLoggingModeInfo);
  removeRequestFromQueue(request);
  return {.leftQueue = true,
          .sendStop = request->shouldRenewSessionAfter() && request->sendingMode() == TavloSendingModeDisconnected};
}

std::optional<TavloError> TavloAgent::handleRequest(const std::shared_ptr<TavloRequest>& request) {
  Outcome ignored;
  return handleRequest(request, ignored);
}

std::optional<TavloError> TavloAgent::handleRequest(const std::shared_ptr<TavloRequest>& request, Outcome& outcome) {
  if (!request) return std::nullopt;
  const auto recordFailure = [&] {
    request->setNumberOfFails(request->numberOfFails() + 1);
    request->setLastFail(platform_.clock->now());
    request->setStatus(TavloRequestStatusFailed);
  };
  request->setStatus(TavloRequestStatusSending);
  if (!reachability_ || !reachability_->isReachable()) return TavloError{TavloErrorDomain, TavloErrorNotReachable};

  const std::shared_ptr<TavloTaggerID> tagger = request->taggerID();
  // Audience requests are authorised afresh on every attempt; streaming ones keep the
  // authorisation they were queued with.
  if ((request->requestType() == TavloRequestTypeAudience || !request->auth()) && tagger) {
    request->setAuth(authManager_->authForTagger(*tagger));
  }
  const std::shared_ptr<TavloAuth> auth = request->auth();
  const std::shared_ptr<TavloAccess> access = auth ? auth->currentAccess() : nullptr;
  if (!access || !access->canSendRequestFor(request->requestType())) {
    if (access && access->accessMode() == TavloAccessModeDenied) {
      log("Request " + request->description(platform_.endpoints) +
              " can't be sent because of access denied for its serial",
          TavloLoggingModeError);
    } else {
      log("TavloAudienceTagger - Can't send hit anymore with this serial : " +
              TavloLogSafe(request->serial().value_or("(null)")),
          TavloLoggingModeError);
    }
    return TavloError{TavloErrorDomain, TavloErrorAccessRefused};
  }
  if (request->shouldRenewSessionAfter() && tagger) {
    authManager_->forgetAuthForTagger(*tagger);
    log("ShouldRenewSession", TavloLoggingModeInfo);
  }

  TavloString url = request->url(reachability_->currentReachabilityStatus(), timeIntervalBetweenServerAndDevice(),
                                 platform_.endpoints);
  const auto invalidParameters = [&] {
    outcome.kind = Outcome::InvalidURL;
    log("Request " + request->description(platform_.endpoints) + " was not sent because of invalid parameters",
        TavloLoggingModeError);
    return std::nullopt;
  };
  if (!url) return invalidParameters();
  TavloHttpResponse response;
  try {
    response =
        platform_.httpClient->get(TavloHttpRequest{std::move(*url), {{"User-Agent", userAgent()}}, kSendTimeout});
  } catch (const std::exception& failure) {
    // An HTTP client of the application's that throws must not end the send loop: the
    // attempt counts as one that got no answer.
    log(std::string("The HTTP client threw (") + TavloLogSafe(failure.what()) +
            "); the request is kept and tried again",
        TavloLoggingModeError);
    response = TavloHttpResponse{};
  } catch (...) {
    log("The HTTP client threw; the request is kept and tried again", TavloLoggingModeError);
    response = TavloHttpResponse{};
  }
  // A request the client cannot even form would fail the same way for ever: it goes,
  // instead of holding every hit behind it.
  if (response.requestInvalid) return invalidParameters();
  if (!response.status) {
    recordFailure();
    return TavloError{TavloErrorDomain, TavloErrorNoAnswer};
  }
  if (*response.status == 200) {
    // Described before the serial's first hit is marked sent, as the line has always read.
    const std::string sent = TavloLogger::wouldLog(TavloLoggingModeInfo)
                                 ? "Request " + request->description(platform_.endpoints) + " sent"
                                 : std::string();
    if (request->requestType() == TavloRequestTypeAudience && tagger) authManager_->hitSuccessfullySentForTagger(*tagger);
    if (!sent.empty()) log(sent, TavloLoggingModeInfo);
  }
  // Any other status: done, dropped without a retry.
  outcome = *response.status == 200 ? Outcome{Outcome::Sent, 200} : Outcome{Outcome::HttpStatus, *response.status};
  return std::nullopt;
}

bool TavloAgent::isTheRequestValid(const TavloRequest& request) {
  const double delta = timeIntervalBetweenServerAndDevice();
  const double now = platform_.clock->now() + delta;
  const double created = request.creationDate().value_or(0) + delta;
  if (created - now <= 5.0) return true;
  // A request dated ahead of now is valid only on the same calendar day as now. (The
  // next-day allowance before 3 a.m. never applies: it is deliberately left out.)
  const TavloCivilDate today = civilDayOf(now + static_cast<double>(platform_.clock->utcOffsetAt(now)));
  const TavloCivilDate createdDay = civilDayOf(created + static_cast<double>(platform_.clock->utcOffsetAt(created)));
  return today == createdDay;
}

void TavloAgent::reachabilityStatusChanged() {
  log("Connection status changed - we check if we can send any request", TavloLoggingModeInfo);
  if (!reachability_) return;
  if (!reachability_->isReachable()) {
    // The network's return is heard here too, but the loop may wake before that (a new
    // hit, a retry): it must not send what the return's purge is about to discard.
    awaitingReconnection_ = true;
    return;
  }
  handOver({HandOver::ReconnectionPurge, nullptr});
}

void TavloAgent::applicationWillEnterForeground() {
  log("Application entered foreground - we check if any requests should be sent", TavloLoggingModeInfo);
  handOver({HandOver::Wake, nullptr});
}

void TavloAgent::signalLoop() {
  ++signalsSent_;
  requestsCondition.notify_all();
}

void TavloAgent::publishQueueLength() {
  {
    std::lock_guard lock(queueLengthProtector);
    queueLength_ = requestQueue.size();
  }
  // Only an empty queue is waited for: a drain wakes the waiters once, not at every hit.
  if (requestQueue.empty()) queueLengthChanged.notify_all();
}

uint64_t TavloAgent::droppedAtHandOverCount() {
  std::lock_guard lock(inboxProtector);
  return droppedAtHandOver_;
}

size_t TavloAgent::pendingRequestCount() {
  std::lock_guard lock(queueLengthProtector);
  return queueLength_;
}

namespace {
std::chrono::steady_clock::time_point deadlineIn(double seconds) {
  // A wait that is not a number, or negative, is no wait; an absurdly long one is a day.
  if (!(seconds > 0)) seconds = 0;
  seconds = std::min(seconds, 86400.0);
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
}
}  // namespace

bool TavloAgent::waitForHandler(std::chrono::steady_clock::time_point deadline) {
  // A barrier in the hand-over: whichever thread takes it has taken all that came before.
  HandOver barrier{HandOver::Barrier};
  barrier.done = std::make_shared<std::promise<void>>();
  std::future<void> taken = barrier.done->get_future();
  if (!handOver(std::move(barrier))) return true;  // shut down: nothing is taken any more
  return taken.wait_until(deadline) == std::future_status::ready;
}

bool TavloAgent::waitUntilQueueEmpty(double seconds) {
  const auto deadline = deadlineIn(seconds);
  // Hits handed over just before this call may still be on their way into the queue.
  if (!waitForHandler(deadline)) return false;
  std::unique_lock lock(queueLengthProtector);
  return queueLengthChanged.wait_until(lock, deadline, [&] { return queueLength_ == 0; });
}

TavloConsent TavloAgent::consentOnceRead() {
  waitForHandler(deadlineIn(1));
  return consent();
}

bool TavloAgent::loopIsIdle() {
  // A signal the loop has not woken up for yet means it is about to work.
  return stopping_ || (loopWaiting_ && signalsSeen_ == signalsSent_ && !headIsSendable());
}

TavloFlushResult TavloAgent::flush(double seconds) {
  const auto deadline = deadlineIn(seconds);
  std::lock_guard one(flushProtector);
  const auto [sentBefore, droppedBefore] = ledger_.totals();
  if (waitForHandler(deadline)) {  // hits handed over before the call are part of it
    std::unique_lock lock(requestsProtector);
    flushing_ = true;
    signalLoop();
    requestsCondition.wait_until(lock, deadline, [&] { return loopIsIdle(); });
    flushing_ = false;
  }
  TavloFlushResult result;
  const auto [sentAfter, droppedAfter] = ledger_.totals();
  result.sent = sentAfter - sentBefore;
  result.dropped = droppedAfter - droppedBefore;
  result.stillQueued = pendingRequestCount();
  return result;
}

std::deque<std::shared_ptr<TavloRequest>> TavloAgent::TEST_queue() {
  std::lock_guard lock(requestsProtector);
  return requestQueue;
}

bool TavloAgent::TEST_waitForHandOver(double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                              std::chrono::duration<double>(seconds));
  return waitForHandler(deadline);
}

bool TavloAgent::TEST_waitUntilIdle(double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                              std::chrono::duration<double>(seconds));
  if (!waitForHandler(deadline)) return false;
  std::unique_lock lock(requestsProtector);
  return requestsCondition.wait_until(lock, deadline, [&] { return loopIsIdle(); });
}
