// The process-wide dispatcher of measurement hits.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "agent/TavloDefaultParameters.h"
#include "agent/TavloDeliveryLedger.h"
#include "agent/TavloSerialQueue.h"
#include "archive/TavloArchiveCache.h"
#include "auth/TavloAuthManager.h"
#include "identity/TavloTaggerIdentifier.h"
#include "platform/TavloLogger.h"
#include "platform/TavloNotificationCenter.h"
#include "platform/TavloReachability.h"
#include "request/TavloRequest.h"
#include "tavlo/TavloDelivery.h"
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
/// happens on two serial queues of the agent's own (SCHED_BATCH, so that waking them never
/// preempts the caller):
///  - "TavloRequestHandler" loads the queue file at start (never on the application's
///    thread), then runs every change made from outside: enqueue (with the cached
///    authorisation attached), the reachability and foreground reactions;
///  - "TavloRequestSender" runs the send loop: it sleeps on `requestsCondition` until the
///    head can be sent (queue not empty, network reachable, head not failed within the
///    last 60 seconds), then authorises, checks access, builds the URL and sends one GET
///    with a 10-second time-out. Status 200 removes the request; no answer keeps it at
///    the head for a retry; a refusal, a request the HTTP client cannot form, or any other
///    status removes it.
///
/// Hand-over: requests wait in a bounded inbox until one thread takes them, in the order
/// they came, a few at a time: the send loop when it sleeps with nothing to send (one
/// batch, so that a hit on a quiet agent wakes one thread, not two), else
/// "TavloRequestHandler". The file is written once the inbox is empty, except for a lone
/// hit on a file that holds nothing queued which the loop can send at once: it is written
/// only if that first attempt does not deliver it (when the loop goes idle, or at
/// shutdown), so most hits never cost a write, a sync or a wake-up for it; a process
/// killed during that one exchange loses it unless the collector already had it.
///
/// A caller that hands over faster than the queue can take them never makes memory grow:
/// past `maximumHandOverBacklog` waiting requests the oldest waiting one is dropped (the
/// 500-request cap would drop it anyway) and counted; while it drops hits, the handler
/// hands freed memory back to the system (malloc_trim, on glibc), since those hits were
/// freed in the callers' own arenas. A request whose parameters are larger than
/// `maximumHitBytes` can never be sent and is refused on the caller's thread with an
/// ERROR line.
///
/// The queue holds at most 500 requests after an insertion (the oldest goes first) and is
/// written to "<data directory>/<application>/TavloCache/requests.ser" atomically after
/// every burst of changes: a burst of enqueues is written once, at its end. Each removal
/// by the send loop is on disk before the next request goes out, as a few bytes in the
/// sent journal beside the file (see TavloSentJournal), so a process killed in the middle
/// of a drain sends again at most the one request that was in flight; the file itself
/// takes the removals in at its next rewrite, so sending never encodes or syncs it.
/// `shutdown` writes whatever was handed over before it was called, and leaves the run's
/// delivery counts in "requests.ser.delivery" beside the file for `tavlo-queue`.
/// At start, audience requests in the file are dropped and streaming ones kept, followed by
/// a clear-cache marker; temporaries left by a process killed during a save are removed.
/// The file is guarded by an advisory lock: a second process of the same application
/// keeps its queue in memory only, and says so once. Without a data directory the queue
/// lives in memory only, with an ERROR line.
///
/// Threads: every public operation may be called from any thread. `requestsProtector`
/// guards the queue; the send loop holds it to pick a request and to record the outcome,
/// never during the network exchange, so enqueues and saves interleave with a drain. A
/// request queued during an exchange takes its cached authorisation when the exchange
/// ends, as if it had waited for it: the exchange may be the one that fills the cache.
/// `fileWriter` serialises the writes of the file and is taken before
/// `requestsProtector`, never after; `inboxProtector` guards the hand-over and is never
/// held while another of the agent's locks is taken; `partialIDLocker` guards the partial
/// identifier and is never taken with `requestsProtector` held; `audienceTaggersProtector`
/// guards the tagger table.
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

  /// Ends the send loop (after the attempt in flight, at most the HTTP time-out), takes
  /// into the queue every request handed over before the call, writes the queue file and
  /// stops watching the network. Hits handed over afterwards are dropped. Idempotent.
  void shutdown();

  /// The most requests that may wait in the hand-over at once.
  static constexpr size_t maximumHandOverBacklog = 500;
  /// The largest parameter text (keys and values, in bytes) a hit may carry: anything
  /// larger would make a URL that collection servers refuse, and a queue of such hits a
  /// file too large to read back.
  static constexpr size_t maximumHitBytes = 16 * 1024;

  // Audience taggers and identities.
  void addTavloAudienceTagger(const std::shared_ptr<TavloAudienceTagger>& tagger);
  std::shared_ptr<TavloAudienceTagger> TavloAudienceTaggerWithSerial(const TavloString& serial,
                                                                      const TavloString& customerData);
  /// 0, 1, 2, ... across the process's streaming taggers.
  uint64_t getPartialID();

  // The queue.
  /// Queues `request` without waiting; nil is ignored, an oversized one refused.
  void addRequestToQueue(std::shared_ptr<TavloRequest> request);
  /// Makes a request on "TavloRequestHandler" from what `make` captured on the caller's
  /// thread, then queues it as `addRequestToQueue` would (a null result is ignored). The
  /// caller only pays for its capture: the dictionary is built, and its memory taken and
  /// later freed, on the agent's thread. Requests keep the order of hand-over either way.
  using RequestMaker = std::function<std::shared_ptr<TavloRequest>(TavloAgent&)>;
  /// `serial` and `requestType` say whose hit it will be, for the delivery counts of a hit
  /// dropped before it is made.
  void addRequestMadeByHandler(RequestMaker make, TavloString serial = std::nullopt,
                               int64_t requestType = TavloRequestTypeAudience);
  /// Whether `request` is too large to ever be sent (more than `maximumHitBytes`); says so
  /// at error level and counts the drop. For a caller that checks before handing a made
  /// request over, holding no lock of the agent's.
  bool refusesOversized(const TavloRequest& request);
  std::string requestsFilePath();

  // Sending.
  /// One attempt: nothing when done (sent, dropped as invalid, answered with any status).
  std::optional<TavloError> handleRequest(const std::shared_ptr<TavloRequest>& request);
  /// How an attempt that returned nothing ended, for the delivery counts.
  struct Outcome {
    enum Kind { Sent, HttpStatus, InvalidURL } kind = Sent;
    long status = 0;
  };
  std::optional<TavloError> handleRequest(const std::shared_ptr<TavloRequest>& request, Outcome& outcome);
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
  TavloParameters defaultParameters() { return defaults_.defaultParameters(); }
  TavloDefaultParameters::HitDraw drawForHit() { return defaults_.drawForHit(); }
  TavloParameters defaultParametersWith(TavloDefaultParameters::HitDraw draw) {
    return defaults_.defaultParametersWith(std::move(draw));
  }
  std::string userAgent() { return defaults_.userAgent(); }
  TavloString appleDID() { return defaults_.appleDID(); }
  double screenDiagonal() { return defaults_.screenDiagonal(); }
  double timeIntervalBetweenServerAndDevice() const { return authManager_->timeIntervalBetweenServerAndDevice(); }

  const TavloPlatform& platform() const { return platform_; }
  /// Writes a line to this agent's log sink, through the logger's threshold: the agent's
  /// own lines and those of the taggers made on it go to the platform it was built with.
  void log(std::string_view message, int64_t mode) const { TavloLogger::logTo(platform_.logSink.get(), message, mode); }
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

  /// Requests dropped because they were handed over faster than the queue took them.
  uint64_t droppedAtHandOverCount();

  // Consent, delivery counts and flushing (see tavlo/TavloDelivery.h).
  /// Takes effect at once for hand-overs and sending; the queue is emptied (revoked) and
  /// the state written beside the queue file on "TavloRequestHandler", in hand-over order.
  void setConsent(TavloConsent consent, bool resetDeviceIdentifier = false);
  TavloConsent consent() const { return static_cast<TavloConsent>(consent_.load()); }
  /// The consent state, once the state kept from an earlier run was read (waits for that
  /// read, at most a second).
  TavloConsent consentOnceRead();
  TavloDeliveryLedger& ledger() { return ledger_; }
  /// Tries every queued request once, ignoring the retry pause; see TavloFlush.
  TavloFlushResult flush(double seconds);

  /// A snapshot of the queue, oldest first. For tests and tools.
  std::deque<std::shared_ptr<TavloRequest>> TEST_queue();
  /// Waits until both queues are idle and the send loop sleeps, up to `seconds` of real
  /// time. For tests that must observe the agent's threads at rest.
  bool TEST_waitUntilIdle(double seconds = 10);
  /// Waits until what was handed over before the call is in the queue and the file, up
  /// to `seconds` of real time, whatever the send loop is doing.
  bool TEST_waitForHandOver(double seconds = 10);

 private:
  /// What waits in the hand-over: a request to queue, or one of the outside reactions,
  /// kept in the order they came so that a reaction sees exactly the requests handed
  /// over before it.
  struct HandOver {
    enum Kind { Enqueue, ReconnectionPurge, Wake, ConsentChange, Barrier };
    HandOver(Kind kind = Enqueue, std::shared_ptr<TavloRequest> request = nullptr, RequestMaker make = nullptr)
        : kind(kind), request(std::move(request)), make(std::move(make)) {}
    Kind kind;
    std::shared_ptr<TavloRequest> request;
    RequestMaker make;  // an Enqueue whose request is made when it is taken
    TavloString serial;  // whose hit `make` makes, for the counts of a drop before it runs
    int64_t requestType = TavloRequestTypeAudience;
    TavloConsent consent = TavloConsent::Granted;  // a ConsentChange's
    bool resetDeviceIdentifier = false;            // a ConsentChange's
    std::shared_ptr<std::promise<void>> done;      // a Barrier's: set once taken
  };
  /// Counts `item`'s hit as dropped for `reason`. REQUIRES: no lock but inboxProtector.
  void countDropped(const HandOver& item, TavloDropReason reason);

  TavloAgent(const TavloPlatform& platform, std::shared_ptr<TavloAuthManager> authManager,
             std::shared_ptr<TavloNotificationCenter> center);
  void start();

  void loadRequests();                                                   // on requestHandler only
  /// Where the queue file goes, with its folder made: empty when there is no data
  /// directory; `error` set when the queue cannot be kept there.
  std::string prepareQueueFile(std::error_code& error);
  void saveRequests();                                                   // REQUIRES: requestsProtector held
  /// Writes the queue if it changed since the last write; returns once it is on disk.
  /// REQUIRES: no lock of the agent held.
  void persist();
  void persistLocked();  // REQUIRES: fileWriter held, requestsProtector not
  /// `persist`, except for a lone hit that the send loop is about to send: it is written
  /// only if that attempt does not deliver it. REQUIRES: no lock of the agent held.
  void persistUnlessGoingOutNow();
  /// Whether the file and its journal, read at start, would give an empty queue.
  /// REQUIRES: fileWriter held.
  bool fileHoldsNoQueuedRequest() const;
  /// Makes the removal of `removed` durable before the next request goes out: a few
  /// bytes in the sent journal, or the whole file when the journal cannot be written.
  /// REQUIRES: no lock of the agent held.
  void journalRemoval(const TavloRequest* removed);
  /// Whether the queue changed since the file was last written (or tried).
  /// REQUIRES: requestsProtector held.
  bool fileBehind() const { return !queuePath_.empty() && changeCount_ != attemptedChangeCount_; }
  void removeRequestFromQueue(const std::shared_ptr<TavloRequest>& r);  // REQUIRES: requestsProtector held
  bool headIsSendable();                                                 // REQUIRES: requestsProtector held
  /// The send loop waits with nothing it could send now. REQUIRES: requestsProtector held.
  bool loopIsIdle();
  void handleRequests();
  struct AttemptEnd {
    bool leftQueue = false;  // the request is no longer queued (sent, dropped or purged)
    bool sendStop = false;   // it is to be sent once more, as a stop event
  };
  /// Records the outcome of one attempt. REQUIRES: requestsProtector held.
  AttemptEnd finishAttempt(const std::shared_ptr<TavloRequest>& request, const std::optional<TavloError>& error,
                           const Outcome& outcome);
  void logCount();                                                       // REQUIRES: requestsProtector held

  /// Puts `item` into the hand-over and makes sure "TavloRequestHandler" will take it;
  /// false once the agent is shut down.
  bool handOver(HandOver item);
  /// Makes sure one thread takes the hand-over: the send loop when it sleeps with nothing
  /// to send, else "TavloRequestHandler". REQUIRES: no lock of the agent held.
  void scheduleTake();
  /// Has "TavloRequestHandler" take the hand-over (what scheduleTake falls back to).
  void takeOnHandler();
  /// Takes what waits in the hand-over into the queue, up to `maximumBatches` batches,
  /// then writes the file; what is left goes on on "TavloRequestHandler".
  void takeHandOver(size_t maximumBatches = SIZE_MAX);
  // Both count a signal for the loop; the caller notifies `requestsCondition` once it has
  // released requestsProtector. REQUIRES: requestsProtector held.
  void enqueue(const std::shared_ptr<TavloRequest>& request);
  void purgeAudienceRequests();
  /// Empties the queue for a revoked consent. REQUIRES: requestsProtector held.
  void purgeForConsent();
  /// Where the consent state is kept: beside the queue file at `queuePath`, or nowhere.
  static std::string consentPathFor(const std::string& queuePath);
  /// Where shutdown leaves this run's delivery counts: "requests.ser.delivery", or nowhere.
  std::string deliveryPath() const;  // REQUIRES: requestsProtector held
  void readConsent(const std::string& queuePath);  // on requestHandler only, at start
  /// Gives a queued request the cached authorisation, and forgets it for a request that
  /// renews its session. REQUIRES: requestsProtector held.
  void attachCachedAuth(TavloRequest& request);
  /// Ends the send loop's exchange: requests queued meanwhile get their authorisation now,
  /// in the order they came. REQUIRES: requestsProtector held.
  void endAttempt();

  /// Waits until "TavloRequestHandler" has run what was submitted before; true at once
  /// when it is shut down.
  bool waitForHandler(std::chrono::steady_clock::time_point deadline);
  /// Wakes the send loop to test its head again. REQUIRES: requestsProtector held.
  void signalLoop();
  /// Copies the queue's length where readers need not wait for requestsProtector.
  /// REQUIRES: requestsProtector held (taken before queueLengthProtector, never after).
  void publishQueueLength();

  const TavloPlatform platform_;
  // The network was reported gone, and the purge its return brings has not run yet:
  // nothing is sent meanwhile. Set on the main queue, cleared on "TavloRequestHandler".
  std::atomic<bool> awaitingReconnection_{false};
  const std::shared_ptr<TavloAuthManager> authManager_;
  const std::shared_ptr<TavloNotificationCenter> center_;
  TavloDefaultParameters defaults_;
  std::shared_ptr<TavloReachability> reachability_;
  TavloObserverToken reachabilityObserver_{};
  TavloObserverToken foregroundObserver_{};

  std::mutex audienceTaggersProtector;
  std::unordered_map<TavloTaggerIdentifier, std::shared_ptr<TavloAudienceTagger>>
      TavloAudienceTaggers;  // guarded by audienceTaggersProtector

  std::mutex inboxProtector;
  std::deque<HandOver> inbox_;          // guarded by inboxProtector
  size_t inboxRequests_ = 0;            // guarded by inboxProtector
  bool inboxTakeScheduled_ = false;     // guarded by inboxProtector
  bool inboxClosed_ = false;            // guarded by inboxProtector
  uint64_t droppedAtHandOver_ = 0;      // guarded by inboxProtector
  uint64_t droppedSinceLastTake_ = 0;   // guarded by inboxProtector

  std::mutex fileWriter;
  uint64_t savedChangeCount_ = 0;   // guarded by fileWriter
  bool saveFailureLogged_ = false;  // guarded by fileWriter
  /// The requests of the file as last written, by position (identity only, never
  /// dereferenced: an address found here belongs to that request or to one made after it
  /// left the queue, whose removal from the file is then right anyway).
  std::vector<const TavloRequest*> savedOrder_;  // guarded by fileWriter
  std::vector<bool> journaled_;                  // guarded by fileWriter; by position
  uint64_t savedFingerprint_ = 0;                // guarded by fileWriter
  bool journalMayExist_ = false;                 // guarded by fileWriter
  // The journal, held open between two rewrites of the file: one write per hit sent.
  std::unique_ptr<TavloFileSystem::Appender> journal_;  // guarded by fileWriter
  /// What a save leaves for the next: most of the queue is saved again unchanged.
  TavloArchiveCache archiveCache_;               // guarded by fileWriter

  std::mutex requestsProtector;
  std::condition_variable requestsCondition;             // signalled under requestsProtector
  std::deque<std::shared_ptr<TavloRequest>> requestQueue;  // guarded by requestsProtector
  bool stopping_ = false;                                 // guarded by requestsProtector
  bool loopWaiting_ = false;                              // guarded by requestsProtector
  bool loopTakesHandOver_ = false;                        // guarded by requestsProtector
  bool queueLoaded_ = false;        // guarded by requestsProtector: the file was read (or there is none)
  bool markerMayBeQueued_ = false;  // guarded by requestsProtector: a clear-cache marker was loaded
  bool attemptInFlight_ = false;                          // guarded by requestsProtector
  bool flushing_ = false;  // guarded by requestsProtector: the retry pause is ignored
  std::vector<std::shared_ptr<TavloRequest>> awaitingAuth_;  // guarded by requestsProtector
  uint64_t signalsSent_ = 0;                              // guarded by requestsProtector
  uint64_t signalsSeen_ = 0;                              // guarded by requestsProtector
  std::unique_ptr<TavloFileSystem::Lock> fileLock_;       // guarded by requestsProtector
  std::string queuePath_;                                 // guarded by requestsProtector; empty: memory only
  uint64_t changeCount_ = 0;                              // guarded by requestsProtector
  uint64_t attemptedChangeCount_ = 0;                     // guarded by requestsProtector

  std::mutex queueLengthProtector;
  std::condition_variable queueLengthChanged;  // signalled under queueLengthProtector
  size_t queueLength_ = 0;                     // guarded by queueLengthProtector

  std::atomic<int> consent_{static_cast<int>(TavloConsent::Granted)};
  std::atomic<bool> consentSetHere_{false};  // set by this process: what the file says is older
  std::mutex flushProtector;                 // one flush at a time; never taken by the agent's threads
  TavloDeliveryLedger ledger_;

  std::mutex partialIDLocker;
  uint64_t partialID_ = 0;  // guarded by partialIDLocker

  TavloSerialQueue requestHandler{"TavloRequestHandler"};
  TavloSerialQueue requestSender{"TavloRequestSender"};
};
