/* Tavlo's C interface: audience and streaming measurement for programs written in C, and
   for bindings from languages that speak C.

   Rules

   - Names. Every function and type starts with tavlo_. Types are opaque handles: a
     program only ever holds pointers to them.

   - Ownership. A handle returned by a function ending in _with_serial or _create belongs
     to the caller, who gives it back exactly once: tavlo_audience_tagger_release,
     tavlo_streaming_tagger_release, tavlo_platform_destroy. A tavlo_tagger_t* obtained
     from tavlo_audience_tagger_as_tagger or tavlo_streaming_tagger_as_tagger is borrowed:
     it is valid while its tagger handle is, and is never released on its own. A
     tavlo_streaming_config_t* is borrowed too, valid only during the configuration
     callback that receives it.

   - Strings in. UTF-8, NUL-terminated, copied before the call returns: the caller may
     free or reuse its buffer at once. NULL passes "no value" (nil), which is not the same
     as the empty string "" wherever the C++ interface tells the two apart.

   - Strings out. A char* result is a fresh copy made with malloc, owned by the caller,
     who frees it with tavlo_free. NULL means "no value". The one const char* result,
     tavlo_version, is static and never freed.

   - Booleans are uint8_t: results are 0 or 1; any non-zero argument counts as true.

   - NULL handles. Every function accepts NULL wherever a handle is expected: it then
     does nothing, writes an error line to the library's log, and returns NULL, 0 or the
     value its comment names. The same holds for an index out of range. The release and
     destroy functions, like free, take NULL silently.

   - Errors. No C++ exception leaves this interface: every entry point catches whatever
     is thrown inside it (including by the callbacks it calls), logs it and returns as for
     a NULL handle. Measurement failures (network down, server refusing) are never
     reported to the caller, only logged; the hits wait in the library's queue.

   - Threads. Every function may be called from any thread, and a handle may be used by
     several threads at once, except that its release must be the last call on it. No
     function blocks on the network, except tavlo_wait_for_pending_hits, tavlo_flush and
     tavlo_shutdown, which say how long they may wait.

   - Callbacks. Every callback receives, as its first argument, the void* user_data given
     with it, unchanged. Callbacks run without any library lock held; they must not
     release the handle they were given for, and must not call tavlo_shutdown or
     tavlo_wait_for_pending_hits (a position callback may run on the library's own
     thread, which those calls wait for).

   - Start-up. The library starts with the first tagger. Whatever a program wants to say
     about itself (its name and version, where hits go) it says before that, with a
     tavlo_platform_t and tavlo_platform_install.

   The C++ headers next to this one document the same operations at length; each function
   here names its C++ counterpart. */
#ifndef TAVLO_TAVLO_H_
#define TAVLO_TAVLO_H_

#include <stddef.h>
#include <stdint.h>

#include "tavlo/TavloExport.h"

#ifdef __cplusplus
extern "C" {
#define TAVLO_C_NOEXCEPT noexcept
#else
#define TAVLO_C_NOEXCEPT
#endif

/* Handles. */

typedef struct tavlo_tagger_t tavlo_tagger_t;
typedef struct tavlo_audience_tagger_t tavlo_audience_tagger_t;
typedef struct tavlo_streaming_tagger_t tavlo_streaming_tagger_t;
typedef struct tavlo_streaming_config_t tavlo_streaming_config_t;
typedef struct tavlo_platform_t tavlo_platform_t;

/* Values, equal to those of the C++ enumerations. */

/* Logging thresholds: a message is printed when its level is at least the threshold.
   tavlo_logging_none (or any larger or negative value) prints nothing. */
enum { tavlo_logging_info = 0, tavlo_logging_warning = 1, tavlo_logging_error = 2, tavlo_logging_none = 3 };

/* Where a streaming tagger's positions come from (TavloStreamingType). */
enum {
  tavlo_streaming_type_delegate_position = 0,
  tavlo_streaming_type_no_position = 1,
  tavlo_streaming_type_first_pause_stops = 2
};

/* What the media player did (TavloStreamingEvent). */
enum { tavlo_streaming_event_play = 0, tavlo_streaming_event_pause = 1, tavlo_streaming_event_stop = 2 };

/* The position that means "not known" (TavloStreamingTaggerUnknownLocation). */
enum { tavlo_streaming_unknown_position = -1 };

/* How a streaming tagger sends its hits (TavloSendingMode). */
enum { tavlo_sending_mode_timestamped = 0, tavlo_sending_mode_live = 1, tavlo_sending_mode_disconnected = 2 };

/* The library, process-wide. */

/* The library version, "major.minor.patch". Static: never freed. */
TAVLO_EXPORT const char* tavlo_version(void) TAVLO_C_NOEXCEPT;

/* Frees a char* this interface returned. NULL is ignored. */
TAVLO_EXPORT void tavlo_free(void* ptr) TAVLO_C_NOEXCEPT;

/* The process-wide logging threshold (tavlo_logging_error at start). Setting it on any
   tagger sets it too; the last call wins. */
TAVLO_EXPORT int64_t tavlo_logging_mode(void) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_set_logging_mode(int64_t mode) TAVLO_C_NOEXCEPT;

/* Call when the application returns to the foreground: queued hits are tried at once
   (TavloApplicationWillEnterForeground). Returns at once. */
TAVLO_EXPORT void tavlo_application_will_enter_foreground(void) TAVLO_C_NOEXCEPT;

/* Requests waiting in the library's queue; 0 before the first tagger. */
TAVLO_EXPORT size_t tavlo_pending_hit_count(void) TAVLO_C_NOEXCEPT;

/* Blocks until the queue is empty (1) or timeout_seconds have passed (0). A negative or
   NaN timeout counts as 0; one beyond 10^9 seconds as 10^9 seconds. */
TAVLO_EXPORT uint8_t tavlo_wait_for_pending_hits(double timeout_seconds) TAVLO_C_NOEXCEPT;

/* Stops the library's background work for a clean exit: the exchange in flight finishes
   (at most its 10-second time-out), queued hits stay in the queue file for the next
   start, later hits are dropped. Idempotent. */
TAVLO_EXPORT void tavlo_shutdown(void) TAVLO_C_NOEXCEPT;

/* Consent, delivery counts and flushing (TavloDelivery.h). All opt-in: a program that
   never calls them gets consent granted and no drop callback. */

/* The viewer's consent (TavloConsent): granted sends as always; pending queues and keeps
   hits but sends nothing; revoked empties the queue and its file and drops every later
   hit. Kept across restarts beside the queue file. */
enum { tavlo_consent_granted = 0, tavlo_consent_pending = 1, tavlo_consent_revoked = 2 };

/* Sets the consent state, at once for hits already queued. With revoked and a non-zero
   reset_device_identifier, the device identifier ("uid") is forgotten too. Returns 0
   (and logs) for a value that is not a state. Starts the library. */
TAVLO_EXPORT uint8_t tavlo_set_consent(int consent, uint8_t reset_device_identifier) TAVLO_C_NOEXCEPT;
/* The consent state in force; may wait (at most a second) for the kept one to be read. */
TAVLO_EXPORT int tavlo_consent(void) TAVLO_C_NOEXCEPT;

/* Why a hit was dropped (TavloDropReason). */
enum {
  tavlo_drop_queue_full = 0,
  tavlo_drop_access_refused = 1,
  tavlo_drop_invalid_url = 2,
  tavlo_drop_http_status = 3,
  tavlo_drop_stale = 4,
  tavlo_drop_discarded_at_reconnection = 5,
  tavlo_drop_discarded_at_restart = 6,
  tavlo_drop_consent = 7,
  tavlo_drop_after_shutdown = 8,
  tavlo_drop_reason_count = 9
};
/* A stable English name for a reason ("queue full", ...); "unknown" out of range. Static. */
TAVLO_EXPORT const char* tavlo_drop_reason_name(int reason) TAVLO_C_NOEXCEPT;

/** What became of the hits of one serial and request type since the library started. */
typedef struct tavlo_delivery_counts {
  const char* serial;       /**< "" for none; valid until tavlo_stats_free */
  int64_t request_type;     /**< 0 audience, 1 streaming */
  uint64_t queued;          /**< taken into the queue (also loaded from the file) */
  uint64_t sent;            /**< answered with status 200 */
  uint64_t dropped_in_all;  /**< dropped, whatever the reason */
  uint64_t dropped[tavlo_drop_reason_count]; /**< dropped, by reason */
} tavlo_delivery_counts;

/* A snapshot of every serial's counts, to read with tavlo_stats_count and
   tavlo_stats_entry and give back with tavlo_stats_free. Never NULL but on a failure. */
typedef struct tavlo_stats_snapshot tavlo_stats_t;
TAVLO_EXPORT tavlo_stats_t* tavlo_stats(void) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT size_t tavlo_stats_count(const tavlo_stats_t* stats) TAVLO_C_NOEXCEPT;
/* Entry `index` (ordered by serial, then type), or NULL out of range. Owned by `stats`. */
TAVLO_EXPORT const tavlo_delivery_counts* tavlo_stats_entry(const tavlo_stats_t* stats, size_t index) TAVLO_C_NOEXCEPT;
/* The sum of every entry, serial "". */
TAVLO_EXPORT tavlo_delivery_counts tavlo_stats_total(const tavlo_stats_t* stats) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_stats_free(tavlo_stats_t* stats) TAVLO_C_NOEXCEPT;

/* Called once per dropped hit, on one of the library's threads (or the one handing the
   hit over), with no lock of the library's held; serial is "" for none and valid only
   during the call; http_status is the server's for tavlo_drop_http_status, else 0. It
   must be quick and must not call tavlo_flush, tavlo_wait_for_pending_hits or
   tavlo_shutdown. */
typedef void (*tavlo_drop_fn)(void* user_data, const char* serial, int64_t request_type, int reason,
                              long http_status);
/* Sets (NULL: removes) the drop callback. Starts the library. */
TAVLO_EXPORT void tavlo_set_drop_callback(tavlo_drop_fn callback, void* user_data) TAVLO_C_NOEXCEPT;

/** What tavlo_flush did. */
typedef struct tavlo_flush_result {
  uint64_t sent;        /**< answered with status 200 during the flush */
  uint64_t dropped;     /**< dropped during the flush, for any reason */
  size_t still_queued;  /**< left in the queue */
} tavlo_flush_result;

/* Tries every queued hit once now, whatever the 60-second pause after a failed attempt,
   until the queue is empty, an attempt gets no answer, or timeout_seconds have passed
   (negative or NaN: 0; at most a day). Sends nothing while offline or without consent.
   Blocks: not from a UI thread, nor from the drop callback. */
TAVLO_EXPORT tavlo_flush_result tavlo_flush(double timeout_seconds) TAVLO_C_NOEXCEPT;

/* Platform: what the application says about itself, before its first tagger. */

/* A platform description with the Linux defaults: no application name or version, the
   endpoints this library was built with. NULL only when memory runs out. */
TAVLO_EXPORT tavlo_platform_t* tavlo_platform_create(void) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_platform_destroy(tavlo_platform_t* platform) TAVLO_C_NOEXCEPT;

/* The application's name and version, shown in the "User-Agent" header of every
   request; NULL for either leaves it out ("(null)" is sent in its place). Returns 0 and
   changes nothing when either contains a control character. */
TAVLO_EXPORT uint8_t tavlo_platform_set_application(tavlo_platform_t* platform, const char* name,
                                                    const char* version) TAVLO_C_NOEXCEPT;

/* Sends hits and authorisation requests to base_url ("http://127.0.0.1:8080", scheme
   and authority; trailing slashes are dropped) instead of the built-in endpoints.
   Returns 0 and changes nothing unless base_url starts with "http://" or "https://",
   names a host, and has only printable ASCII that URLs may carry unescaped. */
TAVLO_EXPORT uint8_t tavlo_platform_set_endpoints_base_url(tavlo_platform_t* platform,
                                                           const char* base_url) TAVLO_C_NOEXCEPT;

/* Sends each kind of request to its own base URL (TavloEndpoints): authorisation
   requests, audience collection, streaming collection, and the second collection. Each
   URL is checked as tavlo_platform_set_endpoints_base_url checks its one; NULL keeps
   that endpoint as it is (the built-in one, or the base URL set before). Returns 0 and
   changes nothing when any URL given is unusable. */
TAVLO_EXPORT uint8_t tavlo_platform_set_endpoints(tavlo_platform_t* platform, const char* authorisation,
                                                  const char* audience_collection,
                                                  const char* streaming_collection,
                                                  const char* second_collection) TAVLO_C_NOEXCEPT;

/* The folder that holds the request queue and the device identifier, in place of
   $XDG_DATA_HOME or ~/.local/share: for a service, which may have no home. NULL goes
   back to the default. Returns 0 and changes nothing unless `path` is absolute and has
   no control character. */
TAVLO_EXPORT uint8_t tavlo_platform_set_data_directory(tavlo_platform_t* platform, const char* path) TAVLO_C_NOEXCEPT;

/* The CA certificates HTTPS servers are verified against: a PEM bundle file, a
   directory of hashed certificates, or both (either may be NULL). With both NULL the
   environment decides again: CURL_CA_BUNDLE, else SSL_CERT_FILE, and SSL_CERT_DIR, else
   libcurl's built-in bundle. Returns 0 and changes nothing when either holds a control
   character. A file that cannot be read shows at the first HTTPS request, as an ERROR
   line that names it. */
TAVLO_EXPORT uint8_t tavlo_platform_set_ca_certificates(tavlo_platform_t* platform, const char* bundle_file,
                                                        const char* directory) TAVLO_C_NOEXCEPT;

/* The proxy every request goes through ("http://proxy.local:3128"), whatever
   http_proxy and https_proxy say; no_proxy still applies. NULL goes back to the
   environment's proxy variables. Returns 0 and changes nothing unless `proxy` is
   non-empty printable ASCII without spaces. */
TAVLO_EXPORT uint8_t tavlo_platform_set_proxy(tavlo_platform_t* platform, const char* proxy) TAVLO_C_NOEXCEPT;

/* Receives one log line: its level (tavlo_logging_info, tavlo_logging_warning or
   tavlo_logging_error) and its text, NUL-terminated, valid only during the call, without
   a trailing line feed. Called from any thread, possibly from several at once; it must
   not call into the library. */
typedef void (*tavlo_log_fn)(void* user_data, int level, const char* line);
/* Lets go of user_data: called exactly once, after the last call of the callback it was
   given with. */
typedef void (*tavlo_release_fn)(void* user_data);

/* Sends the library's log lines to `log` instead of standard error; with `log` NULL,
   back to standard error. Every line goes there: the ones the logging threshold lets
   through, and the streaming hit dumps and device-identifier store lines, which come
   whatever the threshold. `release` (when not NULL) runs exactly once, after the last
   call of `log`, once nothing holds it: at once when `log` or `platform` is NULL, when
   it is replaced on this handle, or when the handle is destroyed without having been
   installed. Once installed, the running library keeps the callback for the rest of the
   process, so its user_data must stay valid until exit. */
TAVLO_EXPORT void tavlo_platform_set_log_callback(tavlo_platform_t* platform, tavlo_log_fn log,
                                                  tavlo_release_fn release, void* user_data) TAVLO_C_NOEXCEPT;

/* Sends the library's log lines to syslog(3), at LOG_INFO, LOG_WARNING or LOG_ERR by
   their level, with `facility` (LOG_USER, LOG_DAEMON, LOG_LOCAL0 ...; 0 keeps the
   process's, which openlog sets and is LOG_USER by default). The library never calls
   openlog. Returns 0 and changes nothing for a value that is not a facility. */
TAVLO_EXPORT uint8_t tavlo_platform_set_log_syslog(tavlo_platform_t* platform, int facility) TAVLO_C_NOEXCEPT;

/* Makes the library use this platform (TavloPlatform::install). The handle is copied: it
   may be destroyed at once. Returns 1 when installed; 0, installing nothing, once the
   library has started (after the first tagger), since the running library keeps the
   platform it started with. */
TAVLO_EXPORT uint8_t tavlo_platform_install(const tavlo_platform_t* platform) TAVLO_C_NOEXCEPT;

/* Every tagger: the properties shared by audience and streaming taggers (TavloTagger). */

/* The measurement account and the customer data the tagger was made with; NULL when
   absent. */
TAVLO_EXPORT char* tavlo_tagger_serial(const tavlo_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT char* tavlo_tagger_customer_data(const tavlo_tagger_t* tagger) TAVLO_C_NOEXCEPT;

/* 1 when the tagger was set up well enough to send (streaming taggers); audience
   taggers answer 0. */
TAVLO_EXPORT uint8_t tavlo_tagger_can_send(const tavlo_tagger_t* tagger) TAVLO_C_NOEXCEPT;

/* Free measurement levels 1 to 11, sent as "ml1" ... "ml11". The setter returns 0 and
   changes nothing for an index outside 1..11; NULL clears the level. */
TAVLO_EXPORT char* tavlo_tagger_level(const tavlo_tagger_t* tagger, int index) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT uint8_t tavlo_tagger_set_level(tavlo_tagger_t* tagger, int index, const char* value) TAVLO_C_NOEXCEPT;

/* Media descriptors, sent as "msCid", "msDm", "msCh" and "miCh". */
TAVLO_EXPORT char* tavlo_tagger_media_content_id(const tavlo_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_tagger_set_media_content_id(tavlo_tagger_t* tagger, const char* value) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT char* tavlo_tagger_media_diff_mode(const tavlo_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_tagger_set_media_diff_mode(tavlo_tagger_t* tagger, const char* value) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT char* tavlo_tagger_media_channel(const tavlo_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_tagger_set_media_channel(tavlo_tagger_t* tagger, const char* value) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT char* tavlo_tagger_net_measurement(const tavlo_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_tagger_set_net_measurement(tavlo_tagger_t* tagger, const char* value) TAVLO_C_NOEXCEPT;

/* When 1, hits also carry the device advertising identifier as "did". */
TAVLO_EXPORT uint8_t tavlo_tagger_use_idfa(const tavlo_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_tagger_set_use_idfa(tavlo_tagger_t* tagger, uint8_t use_idfa) TAVLO_C_NOEXCEPT;

/* The logging threshold last set on this tagger (2 at creation; -1 for a NULL tagger).
   Setting it sets the process-wide threshold too. */
TAVLO_EXPORT int64_t tavlo_tagger_logging_mode(const tavlo_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_tagger_set_logging_mode(tavlo_tagger_t* tagger, int64_t mode) TAVLO_C_NOEXCEPT;

/* Audience tagger: one hit per screen shown (TavloAudienceTagger). */

/* A handle on the tagger of serial and customer_data (either may be NULL; a tagger
   without a serial drops its hits with an error line). The library keeps the tagger
   itself for the life of the process: every handle for the same serial and customer
   data reaches the same tagger, and its levels and descriptors outlive the handles.
   NULL only when memory runs out. */
TAVLO_EXPORT tavlo_audience_tagger_t* tavlo_audience_tagger_with_serial(const char* serial,
                                                                        const char* customer_data) TAVLO_C_NOEXCEPT;

/* Gives the handle back; the tagger stays with the library. */
TAVLO_EXPORT void tavlo_audience_tagger_release(tavlo_audience_tagger_t* tagger) TAVLO_C_NOEXCEPT;

/* The common properties of this tagger; borrowed, valid while the handle is. */
TAVLO_EXPORT tavlo_tagger_t* tavlo_audience_tagger_as_tagger(tavlo_audience_tagger_t* tagger) TAVLO_C_NOEXCEPT;

/* Queues one hit: level1 as "c", level2 as "p", level3 as "l3", level4 as "l4"; a NULL
   or empty level is left out. Returns at once; the hit is sent in the background. */
TAVLO_EXPORT void tavlo_audience_tagger_send_hit(tavlo_audience_tagger_t* tagger, const char* level1,
                                                 const char* level2, const char* level3,
                                                 const char* level4) TAVLO_C_NOEXCEPT;

/* Streaming tagger: the playing of one medium by one player (TavloStreamingTagger). */

/* Describes the medium, once, while tavlo_streaming_tagger_with_serial runs, on its
   thread. `config` is valid only until the callback returns. */
typedef void (*tavlo_configure_fn)(void* user_data, tavlo_streaming_config_t* config);

/* Classification levels 1 to 5 of the medium ("cmsS3", "cmsS2", "cmsS1", "cmsS4",
   "cmsS5"). Returns 0 and changes nothing for an index outside 1..5. */
TAVLO_EXPORT uint8_t tavlo_streaming_config_set_level(tavlo_streaming_config_t* config, int index,
                                                      const char* value) TAVLO_C_NOEXCEPT;
/* Becomes the tagger's customer data ("crmid"). */
TAVLO_EXPORT void tavlo_streaming_config_set_customer_data(tavlo_streaming_config_t* config,
                                                           const char* value) TAVLO_C_NOEXCEPT;
/* Genre ("cmsGR") and provider ("dom") of the medium. */
TAVLO_EXPORT void tavlo_streaming_config_set_media_genre(tavlo_streaming_config_t* config,
                                                         const char* value) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_streaming_config_set_media_provider(tavlo_streaming_config_t* config,
                                                            const char* value) TAVLO_C_NOEXCEPT;

/* A new tagger for the medium media_name of the account serial, owned by the caller.
   media_volume ("cmsSD"), media_url ("cmsME") and media_length ("cmsDU") are sent as
   given; streaming_type is one of tavlo_streaming_type_* (any other value behaves as
   tavlo_streaming_type_no_position). `configure`, when not NULL, is called once with
   user_data before this returns. A serial or media name that is NULL, empty or made of
   spaces only gives a tagger that never sends (tavlo_tagger_can_send answers 0) and whose configuration
   callback is not called. NULL only when memory runs out. */
TAVLO_EXPORT tavlo_streaming_tagger_t* tavlo_streaming_tagger_with_serial(const char* serial, const char* media_name,
                                                                          int64_t media_volume, const char* media_url,
                                                                          int64_t media_length, int streaming_type,
                                                                          tavlo_configure_fn configure,
                                                                          void* user_data) TAVLO_C_NOEXCEPT;

/* Ends the measurement of this medium: the tagger's timers stop at once and no final
   hit is sent (notify a stop first). The position callback's release runs once the
   library no longer calls it. */
TAVLO_EXPORT void tavlo_streaming_tagger_release(tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;

/* The common properties of this tagger; borrowed, valid while the handle is. */
TAVLO_EXPORT tavlo_tagger_t* tavlo_streaming_tagger_as_tagger(tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;

/* Notifies a tavlo_streaming_event_*: without a position (the position callback is asked
   when the tagger's type is tavlo_streaming_type_delegate_position), or at `position`
   (tavlo_streaming_unknown_position: not known). Events out of order, repeated, or of an
   unknown value are dropped (unknown ones with an error line). */
TAVLO_EXPORT void tavlo_streaming_tagger_notify_event(tavlo_streaming_tagger_t* tagger, int event) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_streaming_tagger_notify_event_at(tavlo_streaming_tagger_t* tagger, int event,
                                                         int64_t position) TAVLO_C_NOEXCEPT;

/* Answers the player's current position: stores it in *position and returns non-zero,
   or returns 0 when it cannot tell (the position is then taken as unknown). */
typedef uint8_t (*tavlo_position_fn)(void* user_data, int64_t* position);
/* tavlo_release_fn, declared with the platform above, lets go of user_data: called
   exactly once, after the last call of its position callback. */

/* Makes `position` the tagger's source of positions (the C++ delegate), replacing the
   previous one, whose release then runs. It is called on the thread that notifies an
   event without a position, and about once a second on the library's thread while the
   medium is open. From this call on the library answers for calling `release` (when not
   NULL) exactly once: after the last position call, when the callback is replaced, when
   the tagger is released, or at once when `position` or `tagger` is NULL. With
   `position` NULL the tagger has no source of positions any more. */
TAVLO_EXPORT void tavlo_streaming_tagger_set_position_callback(tavlo_streaming_tagger_t* tagger,
                                                               tavlo_position_fn position, tavlo_release_fn release,
                                                               void* user_data) TAVLO_C_NOEXCEPT;

/* The sending mode chosen (tavlo_sending_mode_live unless another was chosen), and the
   mode in force (tavlo_sending_mode_disconnected while the network cannot be reached).
   Both answer -1 for a NULL tagger. Setting returns 0 and changes nothing for a value
   other than the three modes or on a tagger that cannot send. */
TAVLO_EXPORT int tavlo_streaming_tagger_sending_mode(const tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT uint8_t tavlo_streaming_tagger_set_sending_mode(tavlo_streaming_tagger_t* tagger,
                                                             int mode) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT int tavlo_streaming_tagger_current_mode(const tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;

/* The streaming type as given at creation (-1 for a NULL tagger). */
TAVLO_EXPORT int tavlo_streaming_tagger_streaming_type(const tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;

/* The classification levels 1 to 5 the configuration callback set; NULL when absent or
   for an index outside 1..5. */
TAVLO_EXPORT char* tavlo_streaming_tagger_level(const tavlo_streaming_tagger_t* tagger, int index) TAVLO_C_NOEXCEPT;

/* The medium. Setting a name or URL to NULL or "" is ignored: a medium keeps its name.
   Setting a genre or provider to NULL or "" removes it from later hits. Volume and
   length answer 0 for a NULL tagger. */
TAVLO_EXPORT char* tavlo_streaming_tagger_media_name(const tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_streaming_tagger_set_media_name(tavlo_streaming_tagger_t* tagger,
                                                        const char* value) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT char* tavlo_streaming_tagger_media_url(const tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_streaming_tagger_set_media_url(tavlo_streaming_tagger_t* tagger,
                                                       const char* value) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT char* tavlo_streaming_tagger_media_genre(const tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_streaming_tagger_set_media_genre(tavlo_streaming_tagger_t* tagger,
                                                         const char* value) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT char* tavlo_streaming_tagger_media_provider(const tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_streaming_tagger_set_media_provider(tavlo_streaming_tagger_t* tagger,
                                                            const char* value) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT int64_t tavlo_streaming_tagger_media_volume(const tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_streaming_tagger_set_media_volume(tavlo_streaming_tagger_t* tagger,
                                                          int64_t value) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT int64_t tavlo_streaming_tagger_media_length(const tavlo_streaming_tagger_t* tagger) TAVLO_C_NOEXCEPT;
TAVLO_EXPORT void tavlo_streaming_tagger_set_media_length(tavlo_streaming_tagger_t* tagger,
                                                          int64_t value) TAVLO_C_NOEXCEPT;

#undef TAVLO_C_NOEXCEPT
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TAVLO_TAVLO_H_ */
