#include "agent/TavloAgent.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <future>

#include "agent/TavloQueueLocation.h"
#include "platform/TavloInstalledPlatform.h"
#include "platform/TavloLogger.h"
#include "request/TavloClearCache.h"
#include "request/TavloKeyedArchiver.h"
#include "request/TavloKeyedUnarchiver.h"
#include "request/TavloRecordClasses.h"
#include "tagging/TavloCalendar.h"
#include "tavlo/TavloAudienceTagger.h"

namespace {

constexpr size_t kMaximumQueueLength = 500;
constexpr double kRetryInterval = 60;
constexpr double kSendTimeout = 10;

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
    TavloMarkInstalledPlatformTaken();
    auto* agent = new std::shared_ptr<TavloAgent>(
        make(TavloPlatform::installed(), TavloAuthManager::manager(), TavloNotificationCenter::defaultCenter()));
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
  loadRequests();
  requestSender.async([weak] {
    if (auto agent = weak.lock()) agent->handleRequests();
  });
  if (reachability_) reachability_->startNotifier();
}

TavloAgent::~TavloAgent() { shutdown(); }

void TavloAgent::shutdown() {
  {
    std::lock_guard lock(requestsProtector);
    if (stopping_) return;
    stopping_ = true;
  }
  requestsCondition.notify_all();
  if (reachability_) reachability_->stopNotifier();
  center_->removeObserver(reachabilityObserver_);
  center_->removeObserver(foregroundObserver_);
  requestSender.shutdown();
  requestHandler.shutdown();
  std::lock_guard lock(requestsProtector);
  fileLock_.reset();
}

void TavloAgent::addTavloAudienceTagger(const std::shared_ptr<TavloAudienceTagger>& tagger) {
  TavloLogger::log("A new TavloAudienceTagger was created", TavloLoggingModeInfo);
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

std::string TavloAgent::requestsFilePath() {
  const std::string path = TavloQueueFilePath(platform_.files->dataDirectory(), platform_.deviceInfo->bundleName());
  platform_.files->createDirectories(path.substr(0, path.rfind('/')), 0700);
  return path;
}

void TavloAgent::loadRequests() {
  TavloLogger::log("Loading requests from cache", TavloLoggingModeInfo);
  std::lock_guard lock(requestsProtector);
  const std::string path = requestsFilePath();
  std::error_code error;
  fileLock_ = platform_.files->tryLockFile(path + ".lock", error);
  if (!fileLock_) {
    persistenceDisabled_ = true;
    if (error == std::errc::resource_unavailable_try_again) {
      TavloLogger::log("The request queue file " + path + " is in use by another process of this application; " +
                           "this process keeps its requests in memory only",
                       TavloLoggingModeWarning);
    } else {
      TavloLogger::log("The request queue cannot be kept in " + path + " (" + error.message() +
                           "); requests are kept in memory only",
                       TavloLoggingModeError);
    }
    return;
  }

  std::string data;
  error = platform_.files->readFile(path, data, TavloKeyedUnarchiver::maxArchiveBytes);
  if (error) {
    if (error != std::errc::no_such_file_or_directory) {
      TavloLogger::log("Could not read the request queue file " + path + " (" + error.message() +
                           "); starting with an empty queue",
                       TavloLoggingModeWarning);
    }
    return;
  }
  std::string why;
  const auto decoded = TavloKeyedUnarchiver::unarchivedArrayWithData(data, TavloRecordClasses(), &why);
  if (!decoded) {
    TavloLogger::log("The request queue file " + path + " is damaged (" + why +
                         "); starting with an empty queue, the file is replaced at the next save",
                     TavloLoggingModeWarning);
    return;
  }
  for (const auto& object : *decoded) {
    auto request = std::dynamic_pointer_cast<TavloRequest>(object);
    // Audience hits do not survive a restart, and neither does an old marker (its type reads 0).
    if (request && request->requestType() != TavloRequestTypeAudience) requestQueue.push_back(std::move(request));
  }
  while (requestQueue.size() > kMaximumQueueLength) requestQueue.pop_front();
  if (!requestQueue.empty()) requestQueue.push_back(TavloClearCache::make());
  publishQueueLength();
}

// Saving is coalesced: a burst of changes (thousands of hits queued at once) schedules
// one write, run on "TavloRequestHandler" after the changes already submitted there. The
// file then lags the queue by the length of a burst, never more.
void TavloAgent::saveRequests() {
  TavloLogger::log("Saving requests to cache", TavloLoggingModeInfo);
  if (persistenceDisabled_ || saveScheduled_) return;
  saveScheduled_ = true;
  std::weak_ptr<TavloAgent> weak = weak_from_this();
  requestHandler.async([weak] {
    if (auto agent = weak.lock()) agent->writeRequestsFile();
  });
}

void TavloAgent::writeRequestsFile() {
  std::vector<std::shared_ptr<TavloCodable>> objects;
  {
    std::lock_guard lock(requestsProtector);
    saveScheduled_ = false;
    objects.assign(requestQueue.begin(), requestQueue.end());
  }
  // Archived and written without the lock: only this queue writes the file, in order.
  const std::string path = requestsFilePath();
  const std::error_code error =
      platform_.files->writeFileAtomically(path, TavloKeyedArchiver::archivedDataWithRootArray(objects), 0600);
  std::lock_guard lock(requestsProtector);
  if (error && !saveFailureLogged_) {
    saveFailureLogged_ = true;
    TavloLogger::log("Could not save the request queue to " + path + " (" + error.message() +
                         "); requests are kept in memory and saving is tried again at every change",
                     TavloLoggingModeError);
  } else if (!error) {
    saveFailureLogged_ = false;
  }
}

void TavloAgent::logCount() {
  TavloLogger::log("We have now " + std::to_string(requestQueue.size()) + " request(s) to handle",
                   TavloLoggingModeInfo);
}

void TavloAgent::addRequestToQueue(std::shared_ptr<TavloRequest> request) {
  if (!request) return;
  std::weak_ptr<TavloAgent> weak = weak_from_this();
  requestHandler.async([weak, request] {
    auto agent = weak.lock();
    if (!agent) return;
    TavloLogger::log("Adding a request in queue", TavloLoggingModeInfo);
    std::lock_guard lock(agent->requestsProtector);
    const bool markerWaiting = std::any_of(agent->requestQueue.begin(), agent->requestQueue.end(),
                                           [](const auto& queued) { return queued->isClearCacheMarker(); });
    // While a marker waits, the cache is about to be cleared: the send step fetches afresh.
    const std::shared_ptr<TavloTaggerID> tagger = request->taggerID();
    if (!markerWaiting && tagger) {
      request->setAuth(agent->authManager_->authFromCacheForTagger(*tagger));
      if (request->shouldRenewSessionAfter()) {
        agent->authManager_->forgetAuthForTagger(*tagger);
        TavloLogger::log("ShouldRenewSession", TavloLoggingModeInfo);
      }
    }
    agent->requestQueue.push_back(request);
    if (agent->requestQueue.size() > kMaximumQueueLength) agent->requestQueue.pop_front();
    agent->publishQueueLength();
    agent->saveRequests();
    agent->logCount();
    agent->signalLoop();
  });
}

void TavloAgent::removeRequestFromQueue(const std::shared_ptr<TavloRequest>& request) {
  if (!request) return;
  TavloLogger::log("Removing request from queue", TavloLoggingModeInfo);
  std::erase_if(requestQueue, [&](const auto& queued) { return request->isEqual(*queued); });
  publishQueueLength();
  saveRequests();
  logCount();
}

bool TavloAgent::headIsSendable() {
  if (requestQueue.empty() || !reachability_ || !reachability_->isReachable()) return false;
  const std::optional<TavloDate> lastFail = requestQueue.front()->lastFail();
  return !lastFail || std::fabs(platform_.clock->now() - *lastFail) >= kRetryInterval;
}

void TavloAgent::handleRequests() {
  std::unique_lock lock(requestsProtector);
  for (;;) {
    while (!stopping_ && !headIsSendable()) {
      loopWaiting_ = true;
      signalsSeen_ = signalsSent_;
      requestsCondition.notify_all();  // wakes TEST_waitUntilIdle
      requestsCondition.wait(lock);
      loopWaiting_ = false;
    }
    if (stopping_) return;

    TavloLogger::log("Request to handle !", TavloLoggingModeInfo);
    const std::shared_ptr<TavloRequest> request = requestQueue.front();
    if (request->isClearCacheMarker()) {
      authManager_->clearCache();
      removeRequestFromQueue(request);
      continue;
    }
    if (!isTheRequestValid(*request)) {
      removeRequestFromQueue(request);
      continue;
    }
    const std::string description = request->description(platform_.endpoints);
    TavloLogger::log("Handling request " + description, TavloLoggingModeInfo);
    const std::optional<TavloError> error = handleRequest(request);
    if (error && (error->code == TavloErrorNotReachable || error->code == TavloErrorNoAnswer)) {
      TavloLogger::log("Request " + description + " handling resulted in a timeout or lack of connection",
                       TavloLoggingModeWarning);
      if (requestQueue.size() > kMaximumQueueLength) removeRequestFromQueue(request);
      continue;
    }
    TavloLogger::log("Request " + description + " handling done", TavloLoggingModeInfo);
    removeRequestFromQueue(request);
    if (request->shouldRenewSessionAfter() && request->sendingMode() == TavloSendingModeDisconnected) {
      request->setCreationDate(platform_.clock->now());
      request->transformToStop();
      handleRequest(request);
    }
  }
}

std::optional<TavloError> TavloAgent::handleRequest(const std::shared_ptr<TavloRequest>& request) {
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
      TavloLogger::log("Request " + request->description(platform_.endpoints) +
                           " can't be sent because of access denied for its serial",
                       TavloLoggingModeError);
    } else {
      TavloLogger::log("TavloAudienceTagger - Can't send hit anymore with this serial : " +
                           request->serial().value_or("(null)"),
                       TavloLoggingModeError);
    }
    return TavloError{TavloErrorDomain, TavloErrorAccessRefused};
  }
  if (request->shouldRenewSessionAfter() && tagger) {
    authManager_->forgetAuthForTagger(*tagger);
    TavloLogger::log("ShouldRenewSession", TavloLoggingModeInfo);
  }

  const TavloString url = request->url(reachability_->currentReachabilityStatus(),
                                       timeIntervalBetweenServerAndDevice(), platform_.endpoints);
  if (!url) {
    TavloLogger::log("Request " + request->description(platform_.endpoints) +
                         " was not sent because of invalid parameters",
                     TavloLoggingModeError);
    return std::nullopt;
  }
  const TavloHttpResponse response =
      platform_.httpClient->get(TavloHttpRequest{*url, {{"User-Agent", userAgent()}}, kSendTimeout});
  if (!response.status) {
    recordFailure();
    return TavloError{TavloErrorDomain, TavloErrorNoAnswer};
  }
  if (*response.status == 200) {
    const std::string sent = "Request " + request->description(platform_.endpoints) + " sent";
    if (request->requestType() == TavloRequestTypeAudience && tagger) authManager_->hitSuccessfullySentForTagger(*tagger);
    TavloLogger::log(sent, TavloLoggingModeInfo);
  }
  // Any other status: done, dropped without a retry.
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
  TavloLogger::log("Connection status changed - we check if we can send any request", TavloLoggingModeInfo);
  if (!reachability_ || !reachability_->isReachable()) return;
  std::weak_ptr<TavloAgent> weak = weak_from_this();
  requestHandler.async([weak] {
    auto agent = weak.lock();
    if (!agent) return;
    std::lock_guard lock(agent->requestsProtector);
    // Audience hits kept while offline are stale once the network is back; the marker
    // goes with them (its type reads audience). The file is rewritten at the next change.
    std::erase_if(agent->requestQueue,
                  [](const auto& queued) { return queued->requestType() == TavloRequestTypeAudience; });
    agent->publishQueueLength();
    agent->signalLoop();
  });
}

void TavloAgent::applicationWillEnterForeground() {
  TavloLogger::log("Application entered foreground - we check if any requests should be sent", TavloLoggingModeInfo);
  std::weak_ptr<TavloAgent> weak = weak_from_this();
  requestHandler.async([weak] {
    auto agent = weak.lock();
    if (!agent) return;
    std::lock_guard lock(agent->requestsProtector);
    agent->signalLoop();
  });
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
  queueLengthChanged.notify_all();
}

size_t TavloAgent::pendingRequestCount() {
  std::lock_guard lock(queueLengthProtector);
  return queueLength_;
}

bool TavloAgent::waitUntilQueueEmpty(double seconds) {
  // A wait that is not a number, or negative, is no wait; an absurdly long one is a day.
  if (!(seconds > 0)) seconds = 0;
  seconds = std::min(seconds, 86400.0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                              std::chrono::duration<double>(seconds));
  // Hits handed over just before this call may still be on their way into the queue.
  auto handled = std::make_shared<std::promise<void>>();
  if (requestHandler.async([handled] { handled->set_value(); }) &&
      handled->get_future().wait_until(deadline) != std::future_status::ready) {
    return false;
  }
  std::unique_lock lock(queueLengthProtector);
  return queueLengthChanged.wait_until(lock, deadline, [&] { return queueLength_ == 0; });
}

std::deque<std::shared_ptr<TavloRequest>> TavloAgent::TEST_queue() {
  std::lock_guard lock(requestsProtector);
  return requestQueue;
}

bool TavloAgent::TEST_waitUntilIdle(double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  auto handled = std::make_shared<std::promise<void>>();
  if (!requestHandler.async([handled] { handled->set_value(); })) return true;
  if (handled->get_future().wait_until(deadline) != std::future_status::ready) return false;
  std::unique_lock lock(requestsProtector);
  return requestsCondition.wait_until(lock, deadline, [&] { 
    // A signal the loop has not woken up for yet means it is about to work.
    return stopping_ || (loopWaiting_ && signalsSeen_ == signalsSent_ && !headIsSendable());
  });
}
