// The process-wide dispatcher of measurement hits.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "agent/TavloDefaultParameters.h"
#include "agent/TavloSerialQueue.h"
#include "auth/TavloAuthManager.h"
#include "platform/TavloNotificationCenter.h"
#include "platform/TavloReachability.h"
#include "request/TavloRequest.h"
#include "tagging/TavloTaggerIdentifier.h"
#include "tavlo/platform/TavloPlatform.h"

class TavloAudienceTagger;

/// The outcome of one send attempt that did not end in "done".
struct TavloError {
  std::string domain;
  int64_t code = 0;
};

inline constexpr const char* TavloErrorDomain = "com.norvane.Tavlo";
enum TavloErrorCode : int64_t {
  /// The network was not reachable when the attempt began: the request stays at the head.
  TavloErrorNotReachable = 1,
  /// The serial's access forbids the request: it is removed.
  TavloErrorAccessRefused = 2,
  /// No HTTP answer at all: the request stays at the head and is retried 60 s later.
  TavloErrorNoAnswer = 3,
};

/// Name of the notification an application posts when it returns to the foreground.
inline constexpr const char* kTavloApplicationWillEnterForegroundNotification =
    "TavloApplicationWillEnterForegroundNotification";

/// Queues every hit, keeps the queue in a file, and sends it.
///
/// Taggers hand finished requests to `addRequestToQueue`, which returns at once; the work
/// happens on two serial queues of the agent's own:
///  - "TavloRequestHandler" runs every change made from outside: enqueue (with the cached
///    authorisation attached), the reachability and foreground reactions;
///  - "TavloRequestSender" runs the send loop: it sleeps on `requestsCondition` until the
///    head can be sent (queue not empty, network reachable, head not failed within the
///    last 60 seconds), then authorises, checks access, builds the URL and sends one GET
///    with a 10-second time-out. Status 200 removes the request; no answer keeps it at
///    the head for a retry; a refusal or any other status removes it.
///
/// The queue holds at most 500 requests (the oldest goes first) and is written to
/// "<data directory>/<application>/TavloCache/requests.ser" after every change, atomically
/// (a burst of changes is written once, right after the burst).
/// At start, audience requests in the file are dropped and streaming ones kept, followed by
/// a clear-cache marker. The file is guarded by an advisory lock: a second process of the
/// same application keeps its queue in memory only, and says so once.
///
/// Threads: every public operation may be called from any thread. `requestsProtector`
/// guards the queue and the file and is held by the send loop while it handles a request
/// (network included); `partialIDLocker` guards the partial identifier and is never taken
/// with `requestsProtector` held; `audienceTaggersProtector` guards the tagger table.
class TavloAgent : public std::enable_shared_from_this<TavloAgent> {
 public:
  /// The process-wide agent, made on first use with the installed platform and the
  /// process-wide authorisation manager. Never destroyed; `shutdown` stops it.
  static std::shared_ptr<TavloAgent> sharedAgent();
  /// The process-wide agent if it was made already; never makes it.
  static std::shared_ptr<TavloAgent> sharedAgentIfMade();

  /// An agent of its own (tests, shims). `center` receives the reachability and
  /// foreground notifications; by default the process-wide one.
  static std::shared_ptr<TavloAgent> make(const TavloPlatform& platform,
                                          std::shared_ptr<TavloAuthManager> authManager = nullptr,
                                          std::shared_ptr<TavloNotificationCenter> center = nullptr);
  ~TavloAgent();
  TavloAgent(const TavloAgent&) = delete;
  TavloAgent& operator=(const TavloAgent&) = delete;

  /// Ends the send loop (after the attempt in flight, at most the HTTP time-out), runs the
  /// enqueues already submitted, stops watching the network. Hits queued afterwards are
  /// dropped. Idempotent.
  void shutdown();

  // Audience taggers and identities.
  void addTavloAudienceTagger(const std::shared_ptr<TavloAudienceTagger>& tagger);
  std::shared_ptr<TavloAudienceTagger> TavloAudienceTaggerWithSerial(const TavloString& serial,
                                                                      const TavloString& customerData);
  /// 0, 1, 2, ... across the process's streaming taggers.
  uint64_t getPartialID();

  // The queue.
  /// Queues `request` without waiting; nil is ignored.
  void addRequestToQueue(std::shared_ptr<TavloRequest> request);
  std::string requestsFilePath();

  // Sending.
  /// One attempt: nothing when done (sent, dropped as invalid, answered with any status).
  std::optional<TavloError> handleRequest(const std::shared_ptr<TavloRequest>& request);
  /// Whether a request is fresh enough to send (server time, Gregorian calendar in the
  /// device's time zone): anything created no more than 5 s ahead of now is; beyond that,
  /// only a request of the same calendar day.
  bool isTheRequestValid(const TavloRequest& request);

  // Reactions to the outside world.
  void reachabilityStatusChanged();
  void applicationWillEnterForeground();

  // Defaults and facts.
  static std::string TavloVersion() { return TavloDefaultParameters::TavloVersion(); }
  std::shared_ptr<const TavloParameters> defaultParametersForRequest() {
    return defaults_.defaultParametersForRequest();
  }
  std::string userAgent() { return defaults_.userAgent(); }
  TavloString appleDID() { return defaults_.appleDID(); }
  double screenDiagonal() { return defaults_.screenDiagonal(); }
  double timeIntervalBetweenServerAndDevice() const { return authManager_->timeIntervalBetweenServerAndDevice(); }

  const TavloPlatform& platform() const { return platform_; }
  const std::shared_ptr<TavloAuthManager>& authManager() const { return authManager_; }
  /// Where the agent's reachability monitor posts, and where streaming taggers made on
  /// this agent listen for network changes.
  const std::shared_ptr<TavloNotificationCenter>& notificationCenter() const { return center_; }

  /// The number of queued requests. Never waits for the send loop, even while it is in
  /// the middle of an exchange.
  size_t pendingRequestCount();
  /// Waits until the queue is empty, up to `seconds` of real time (not a number or
  /// negative: no wait; at most a day); true when empty. Never held up by an exchange.
  bool waitUntilQueueEmpty(double seconds);

  /// A snapshot of the queue, oldest first. For tests and tools.
  std::deque<std::shared_ptr<TavloRequest>> TEST_queue();
  /// Waits until both queues are idle and the send loop sleeps, up to `seconds` of real
  /// time. For tests that must observe the agent's threads at rest.
  bool TEST_waitUntilIdle(double seconds = 10);

 private:
  TavloAgent(const TavloPlatform& platform, std::shared_ptr<TavloAuthManager> authManager,
             std::shared_ptr<TavloNotificationCenter> center);
  void start();

  void loadRequests();
  void saveRequests();                                                   // REQUIRES: requestsProtector held
  void writeRequestsFile();                                              // on requestHandler only
  void removeRequestFromQueue(const std::shared_ptr<TavloRequest>& r);  // REQUIRES: requestsProtector held
  bool headIsSendable();                                                 // REQUIRES: requestsProtector held
  void handleRequests();
  void logCount();                                                       // REQUIRES: requestsProtector held
  /// Wakes the send loop to test its head again. REQUIRES: requestsProtector held.
  void signalLoop();
  /// Copies the queue's length where readers need not wait for requestsProtector.
  /// REQUIRES: requestsProtector held (taken before queueLengthProtector, never after).
  void publishQueueLength();

  const TavloPlatform platform_;
  const std::shared_ptr<TavloAuthManager> authManager_;
  const std::shared_ptr<TavloNotificationCenter> center_;
  TavloDefaultParameters defaults_;
  std::shared_ptr<TavloReachability> reachability_;
  TavloObserverToken reachabilityObserver_{};
  TavloObserverToken foregroundObserver_{};

  std::mutex audienceTaggersProtector;
  std::unordered_map<TavloTaggerIdentifier, std::shared_ptr<TavloAudienceTagger>>
      TavloAudienceTaggers;  // guarded by audienceTaggersProtector

  std::mutex requestsProtector;
  std::condition_variable requestsCondition;             // signalled under requestsProtector
  std::deque<std::shared_ptr<TavloRequest>> requestQueue;  // guarded by requestsProtector
  bool stopping_ = false;                                 // guarded by requestsProtector
  bool loopWaiting_ = false;                              // guarded by requestsProtector
  uint64_t signalsSent_ = 0;                              // guarded by requestsProtector
  uint64_t signalsSeen_ = 0;                              // guarded by requestsProtector
  std::unique_ptr<TavloFileSystem::Lock> fileLock_;       // guarded by requestsProtector
  bool persistenceDisabled_ = false;                      // guarded by requestsProtector
  bool saveFailureLogged_ = false;                        // guarded by requestsProtector
  bool saveScheduled_ = false;                            // guarded by requestsProtector

  std::mutex queueLengthProtector;
  std::condition_variable queueLengthChanged;  // signalled under queueLengthProtector
  size_t queueLength_ = 0;                     // guarded by queueLengthProtector

  std::mutex partialIDLocker;
  uint64_t partialID_ = 0;  // guarded by partialIDLocker

  TavloSerialQueue requestHandler{"TavloRequestHandler"};
  TavloSerialQueue requestSender{"TavloRequestSender"};
};
