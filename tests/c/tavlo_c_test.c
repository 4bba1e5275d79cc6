/* The C interface as a C program sees it: only tavlo.h, only the shared library, C11. A
   collector of its own on 127.0.0.1 takes the hits, whose queries show what the C calls
   set; the library's files go to a private folder. Prints each failed check, then
   "N passed, M failed"; exits 1 when any failed. */
#define _XOPEN_SOURCE 700

#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "tavlo/tavlo.h"

static int passed, failed;

#define CHECK(condition) check((condition) ? 1 : 0, #condition, __LINE__)

static void check(int ok, const char* what, int line) {
  if (!ok) printf("tavlo_c_test.c:%d: FAILED: %s\n", line, what);
  passed += ok;
  failed += !ok;
}

/* Whether a string the library returned is `expected` (NULL: no value); frees it. */
static int is(char* returned, const char* expected) {
  const int same = returned == NULL || expected == NULL ? returned == expected : strcmp(returned, expected) == 0;
  tavlo_free(returned);
  return same;
}

/* The collector answers hits (/m/web/...) "OK" and anything else, the authorisation, with
   full access at itself. It keeps each request's head with the query between '&'s:
   "GET /m/web/serial&c=home&p=page&HTTP/1.1...". The library makes one exchange at a time. */
static int listener;
static char base_url[64];
static pthread_mutex_t heads_lock = PTHREAD_MUTEX_INITIALIZER;
static char heads[128][2048];
static int head_count;

static void* collect(void* unused) {
  int connection;
  while ((connection = accept(listener, NULL, NULL)) >= 0) {
    char head[2048] = "", body[128], answer[256], *query, *end;
    size_t got = 0;
    ssize_t n;
    while (got < sizeof head - 1 && strstr(head, "\r\n\r\n") == NULL &&
           (n = read(connection, head + got, sizeof head - 1 - got)) > 0) {
      head[got += (size_t)n] = '\0';
    }
    snprintf(body, sizeof body, "access=full|host=%s/m/web/|cmsVI=3", base_url);
    snprintf(answer, sizeof answer, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n%s",
             strncmp(head, "GET /m/web/", 11) == 0 ? "OK" : body);
    if ((query = strchr(head, '?')) != NULL && (end = strstr(query, " HTTP/")) != NULL) *query = *end = '&';
    pthread_mutex_lock(&heads_lock);
    if (head_count < 128) memcpy(heads[head_count++], head, sizeof head);
    pthread_mutex_unlock(&heads_lock);
    n = write(connection, answer, strlen(answer));
    close(connection);
  }
  return unused;
}

/* The heads of the hits of `serial`, in the order they arrived, once the queue is empty. */
static int hits_of(const char* serial, const char* found[], int most) {
  char line[64];
  int i, count = 0;
  CHECK(tavlo_wait_for_pending_hits(30) == 1);
  snprintf(line, sizeof line, "GET /m/web/%s&", serial);
  pthread_mutex_lock(&heads_lock);
  for (i = 0; i < head_count; ++i) {
    if (strncmp(heads[i], line, strlen(line)) == 0 && count < most) found[count++] = heads[i];
  }
  pthread_mutex_unlock(&heads_lock);
  return count;
}

/* Whether `head` holds each of `texts`. */
static int has(const char* head, const char* const texts[]) {
  for (; *texts != NULL; ++texts) if (strstr(head, *texts) == NULL) return 0;
  return 1;
}
#define HAS(head, ...) has(head, (const char* const[]){__VA_ARGS__, NULL})

/* Asked for positions on the notifying thread and on the library's own: hence the lock. */
struct player { pthread_mutex_t lock; int64_t position; int calls, releases; };
#define PLAYER(position) {PTHREAD_MUTEX_INITIALIZER, position, 0, 0}

static uint8_t player_position(void* user_data, int64_t* position) {
  struct player* player = user_data;
  pthread_mutex_lock(&player->lock);
  ++player->calls;
  *position = player->position;
  pthread_mutex_unlock(&player->lock);
  return 1;
}

static void player_release(void* user_data) { ++((struct player*)user_data)->releases; }

/* The library's log, as the C callback gets it: each line goes on to standard error
   (which the checks below read) after its level, "[2] (ERROR) : ...". */
static int log_releases;
static void log_line(void* user_data, int level, const char* line) {
  dprintf(STDERR_FILENO, "[%d] %s\n", level, line);
  (void)user_data;
}
static void log_release(void* user_data) { ++*(int*)user_data; }

/* Before the first tagger, as the platform must be. Refusals change nothing: the hits
   reach the collector, from TavloCTest/1.0, through an authorisation endpoint of its own
   (the collector's answer names where hits go), and the library's files go to the data
   directory chosen. */
static void test_platform(void) {
  const char* urls[] = {NULL,         "",          "ftp://h",        "http://",    "http:///path",   "https:",
                        "http://a b", "http://h\n", "127.0.0.1:8080", "http://h\"", "http://h/\x7f", "//h"};
  const char* refused_paths[] = {"", "relative/data", "/data\n"};
  const char* refused_proxies[] = {"", "http://proxy :3128", "http://proxy\x7f"};
  tavlo_platform_t* platform = tavlo_platform_create();
  char url[80], data[96];
  size_t i;
  snprintf(url, sizeof url, "HTTP://%s//", base_url + strlen("http://")); /* any case; trailing slashes go */
  CHECK(tavlo_platform_set_endpoints_base_url(platform, "http://unused.invalid") == 1);
  CHECK(tavlo_platform_set_endpoints(platform, url, NULL, NULL, NULL) == 1);
  CHECK(tavlo_platform_set_endpoints(platform, "http://unused.invalid", "http://h", "ftp://h", NULL) == 0); /* all or none */
  CHECK(tavlo_platform_set_application(platform, "TavloCTest", "1.0") == 1);
  for (i = 0; i < sizeof urls / sizeof urls[0]; ++i) {
    CHECK(tavlo_platform_set_endpoints_base_url(platform, urls[i]) == 0);
    CHECK(urls[i] == NULL || tavlo_platform_set_endpoints(platform, NULL, NULL, NULL, urls[i]) == 0);
  }
  CHECK(tavlo_platform_set_application(platform, "App", "1\r\nX-Injected: 1") == 0); /* into the User-Agent */
  snprintf(data, sizeof data, "%s/data", getenv("XDG_DATA_HOME"));
  for (i = 0; i < sizeof refused_paths / sizeof refused_paths[0]; ++i) {
    CHECK(tavlo_platform_set_data_directory(platform, refused_paths[i]) == 0);
    CHECK(tavlo_platform_set_proxy(platform, refused_proxies[i]) == 0);
  }
  CHECK(tavlo_platform_set_data_directory(platform, data) == 1);
  CHECK(tavlo_platform_set_ca_certificates(platform, "/etc/ssl/x.pem\n", NULL) == 0);
  CHECK(tavlo_platform_set_ca_certificates(platform, "/nonexistent.pem", "/nonexistent") == 1);
  CHECK(tavlo_platform_set_ca_certificates(platform, NULL, NULL) == 1); /* the environment's again */
  CHECK(tavlo_platform_set_proxy(platform, "http://127.0.0.1:1") == 1 && tavlo_platform_set_proxy(platform, NULL) == 1);
  CHECK(tavlo_platform_set_log_syslog(platform, 3) == 0 && tavlo_platform_set_log_syslog(platform, LOG_LOCAL0) == 1);
  tavlo_platform_set_log_callback(platform, log_line, log_release, &log_releases);
  tavlo_platform_set_log_callback(platform, log_line, log_release, &log_releases); /* the first is released */
  tavlo_platform_set_log_callback(platform, NULL, log_release, &log_releases); /* the second, and at once */
  CHECK(log_releases == 3);
  tavlo_platform_set_log_callback(platform, log_line, log_release, &log_releases);
  CHECK(tavlo_platform_install(platform) == 1);
  CHECK(tavlo_platform_install(platform) == 1); /* still before the first tagger */
  tavlo_platform_destroy(platform);             /* installing copied it */
  CHECK(log_releases == 3);                     /* the library holds the callback */
}

/* Every function given NULL answers its neutral value and logs an error line that names
   it (the log is emptied after each); a position callback's release runs at once. */
static void null_given(int neutral, const char* function, int line) {
  char expected[128], logged[4096] = "";
  const ssize_t got = pread(STDERR_FILENO, logged, sizeof logged - 1, 0);
  snprintf(expected, sizeof expected, "%s - No ", function);
  check(neutral && got > 0 && strstr(logged, expected) != NULL && ftruncate(STDERR_FILENO, 0) == 0, function, line);
}
#define GIVES(neutral, function, ...) null_given((function(__VA_ARGS__)) == (neutral), #function, __LINE__)
#define DOES_NOTHING(function, ...) (function(__VA_ARGS__), null_given(1, #function, __LINE__))
#define PROPERTY(neutral, prefix, name, value) \
  (GIVES(neutral, prefix##name, NULL), DOES_NOTHING(prefix##set_##name, NULL, value))

static void test_null_handles(void) {
  struct player player = PLAYER(0);
  char logged[256] = "";
  CHECK(ftruncate(STDERR_FILENO, 0) == 0);
  tavlo_platform_set_log_callback(NULL, log_line, log_release, &log_releases);
  CHECK(log_releases == 4 && pread(STDERR_FILENO, logged, sizeof logged - 1, 0) > 0 &&
        strstr(logged, "[2] (ERROR) : tavlo_platform_set_log_callback - No platform given") == logged);
  CHECK(ftruncate(STDERR_FILENO, 0) == 0);
  GIVES(0, tavlo_platform_set_endpoints, NULL, "http://h", NULL, NULL, NULL);
  GIVES(0, tavlo_platform_set_data_directory, NULL, "/data");
  GIVES(0, tavlo_platform_set_ca_certificates, NULL, NULL, NULL);
  GIVES(0, tavlo_platform_set_proxy, NULL, NULL);
  GIVES(0, tavlo_platform_set_log_syslog, NULL, 0);
  GIVES(0, tavlo_platform_set_application, NULL, "a", "1");
  GIVES(0, tavlo_platform_set_endpoints_base_url, NULL, "http://h");
  GIVES(0, tavlo_platform_install, NULL);
  GIVES(NULL, tavlo_tagger_serial, NULL);
  GIVES(NULL, tavlo_tagger_customer_data, NULL);
  GIVES(0, tavlo_tagger_can_send, NULL);
  GIVES(NULL, tavlo_tagger_level, NULL, 1);
  GIVES(0, tavlo_tagger_set_level, NULL, 1, "x");
  PROPERTY(NULL, tavlo_tagger_, media_content_id, "x"); /* one of each family made by one macro */
  PROPERTY(0, tavlo_tagger_, use_idfa, 1);
  PROPERTY(-1, tavlo_tagger_, logging_mode, tavlo_logging_none);
  GIVES(NULL, tavlo_audience_tagger_as_tagger, NULL);
  DOES_NOTHING(tavlo_audience_tagger_send_hit, NULL, "a", "b", "c", "d");
  GIVES(0, tavlo_streaming_config_set_level, NULL, 1, "x");
  DOES_NOTHING(tavlo_streaming_config_set_customer_data, NULL, "x");
  DOES_NOTHING(tavlo_streaming_config_set_media_genre, NULL, "x");
  DOES_NOTHING(tavlo_streaming_config_set_media_provider, NULL, "x");
  GIVES(NULL, tavlo_streaming_tagger_as_tagger, NULL);
  DOES_NOTHING(tavlo_streaming_tagger_notify_event, NULL, tavlo_streaming_event_play);
  DOES_NOTHING(tavlo_streaming_tagger_notify_event_at, NULL, tavlo_streaming_event_play, 1);
  DOES_NOTHING(tavlo_streaming_tagger_set_position_callback, NULL, player_position, player_release, &player);
  CHECK(player.releases == 1 && player.calls == 0);
  PROPERTY(-1, tavlo_streaming_tagger_, sending_mode, tavlo_sending_mode_live);
  GIVES(-1, tavlo_streaming_tagger_current_mode, NULL);
  GIVES(-1, tavlo_streaming_tagger_streaming_type, NULL);
  GIVES(NULL, tavlo_streaming_tagger_level, NULL, 1);
  PROPERTY(NULL, tavlo_streaming_tagger_, media_name, "x");
  PROPERTY(0, tavlo_streaming_tagger_, media_volume, 1);
  tavlo_streaming_tagger_release(NULL); /* like free(), silently */
  CHECK(lseek(STDERR_FILENO, 0, SEEK_END) == 0 && tavlo_pending_hit_count() == 0);
}

/* Whether `relative` exists in the data directory test_platform chose. */
static int exists_under_data(const char* relative) {
  char path[256];
  struct stat status;
  snprintf(path, sizeof path, "%s/data/%s", getenv("XDG_DATA_HOME"), relative);
  return stat(path, &status) == 0;
}

static void test_audience_tagger(void) {
  tavlo_audience_tagger_t* first = tavlo_audience_tagger_with_serial("c-audience", "viewer-7");
  tavlo_audience_tagger_t* second = tavlo_audience_tagger_with_serial("c-audience", "viewer-7");
  tavlo_tagger_t* tagger = tavlo_audience_tagger_as_tagger(first);
  tavlo_platform_t* late = tavlo_platform_create();
  const char* hits[3] = {"", "", ""}; /* "" for hits that never came */
  char value[16];
  int level;

  CHECK(tavlo_platform_install(late) == 0); /* the library has started: too late */
  tavlo_platform_destroy(late);
  CHECK(first != second && is(tavlo_tagger_serial(tagger), "c-audience") &&
        is(tavlo_tagger_customer_data(tagger), "viewer-7"));
  CHECK(tavlo_tagger_set_level(tagger, 10, "") == 1 && is(tavlo_tagger_level(tagger, 10), "")); /* a value */
  CHECK(tavlo_tagger_set_level(tagger, 10, NULL) == 1 && is(tavlo_tagger_level(tagger, 10), NULL));
  for (level = 1; level <= 11; ++level) { /* one buffer for all: each value is copied */
    snprintf(value, sizeof value, "L%d", level);
    CHECK(tavlo_tagger_set_level(tagger, level, value) == 1);
  }
  CHECK(tavlo_tagger_set_level(tagger, 0, "x") == 0 && tavlo_tagger_set_level(tagger, 12, "x") == 0);
  CHECK(tavlo_tagger_level(tagger, INT_MIN) == NULL && tavlo_tagger_level(tagger, 12) == NULL);
  tavlo_tagger_set_media_content_id(tagger, "D1");
  tavlo_tagger_set_media_diff_mode(tagger, "D2");
  tavlo_tagger_set_media_channel(tagger, "D3");
  tavlo_tagger_set_net_measurement(tagger, "D4");
  CHECK(is(tavlo_tagger_media_channel(tagger), "D3"));
  tavlo_tagger_set_use_idfa(tagger, 2); /* any non-zero is true */
  CHECK(tavlo_tagger_use_idfa(tagger) == 1);
  tavlo_tagger_set_logging_mode(tagger, INT64_MAX); /* a tagger's mode is the process's, all 64 bits */
  CHECK(tavlo_logging_mode() == INT64_MAX && tavlo_tagger_logging_mode(tagger) == INT64_MAX);
  tavlo_set_logging_mode(tavlo_logging_error);

  tavlo_audience_tagger_send_hit(first, "home", "page", "third", "fourth");
  tavlo_audience_tagger_send_hit(second, "films", "", NULL, "\xC3\xA9");
  tavlo_audience_tagger_release(first);
  tavlo_audience_tagger_release(second);
  CHECK(hits_of("c-audience", hits, 3) == 2);
  CHECK(HAS(hits[0], "&c=home&", "&p=page&", "&l3=third&", "&l4=fourth&", "&crmid=viewer-7&"));
  CHECK(HAS(hits[0], "&msCid=D1&", "&msDm=D2&", "&msCh=D3&", "&miCh=D4&", "&ml1=L1&", "&ml2=L2&", "&ml3=L3&"));
  CHECK(HAS(hits[0], "&ml4=L4&", "&ml5=L5&", "&ml6=L6&", "&ml7=L7&", "&ml8=L8&", "&ml9=L9&", "&ml10=L10&", "&ml11=L11&"));
  CHECK(HAS(hits[1], "&c=films&", "&l4=%C3%A9&") && !strstr(hits[1], "&p=") && !strstr(hits[1], "&l3="));
  CHECK(HAS(hits[0], "\r\nUser-Agent: TavloCTest/1.0 Tavlo SDK v" TAVLO_EXPECTED_VERSION " "));
  CHECK(exists_under_data("TavloCTest/TavloCache/requests.ser") && exists_under_data("tavlo/secure-store"));
}

static void configure_medium(void* user_data, tavlo_streaming_config_t* config) {
  const char* levels[] = {"S1", "S2", "S3", "S4", "S5"};
  int i;
  ++*(int*)user_data;
  CHECK(tavlo_streaming_config_set_level(config, 0, "x") == 0 && tavlo_streaming_config_set_level(config, 6, "x") == 0);
  for (i = 1; i <= 5; ++i) CHECK(tavlo_streaming_config_set_level(config, i, levels[i - 1]) == 1);
  tavlo_streaming_config_set_media_genre(config, "drama");
  tavlo_streaming_config_set_media_provider(config, "provider");
  tavlo_streaming_config_set_customer_data(config, "viewer-9");
}

static void test_streaming_tagger(void) {
  /* A mode, whether it is taken, the mode then: 0 time-stamped, 1 live, 2 disconnected. */
  const int modes[][3] = {{0, 1, 0}, {3, 0, 0}, {-1, 0, 0}, {2, 1, 2}, {1, 1, 1}};
  struct player replaced = PLAYER(0), unreleased = PLAYER(0), cleared = PLAYER(0), player = PLAYER(42);
  int configured = 0;
  tavlo_streaming_tagger_t* streaming =
      tavlo_streaming_tagger_with_serial("c-stream", "film", 80, "u", 5400,
                                         tavlo_streaming_type_delegate_position, configure_medium, &configured);
  const char* hits[2] = {"", ""};
  size_t i;

  CHECK(configured == 1 && tavlo_tagger_can_send(tavlo_streaming_tagger_as_tagger(streaming)) == 1);
  CHECK(is(tavlo_streaming_tagger_level(streaming, 1), "S1") && is(tavlo_streaming_tagger_level(streaming, 6), NULL));
  CHECK(is(tavlo_streaming_tagger_media_name(streaming), "film"));
  CHECK(tavlo_streaming_tagger_media_volume(streaming) == 80 && tavlo_streaming_tagger_media_length(streaming) == 5400);
  tavlo_streaming_tagger_set_media_name(streaming, "renamed");
  tavlo_streaming_tagger_set_media_volume(streaming, 60);

  for (i = 0; i < sizeof modes / sizeof modes[0]; ++i) {
    CHECK(tavlo_streaming_tagger_set_sending_mode(streaming, modes[i][0]) == modes[i][1]);
    CHECK(tavlo_streaming_tagger_sending_mode(streaming) == modes[i][2]);
  }

  /* The release runs exactly once: when replaced, at once for a callback that gives no
     positions, and with the tagger. A position call in progress on the library's thread
     would defer that last one, but none is: the first poll comes a second after the play. */
  tavlo_streaming_tagger_set_position_callback(streaming, player_position, player_release, &replaced);
  tavlo_streaming_tagger_set_position_callback(streaming, player_position, NULL, &unreleased);
  tavlo_streaming_tagger_set_position_callback(streaming, NULL, player_release, &cleared);
  CHECK(replaced.releases == 1 && cleared.releases == 1);
  tavlo_streaming_tagger_set_position_callback(streaming, player_position, player_release, &player);
  tavlo_streaming_tagger_notify_event(streaming, tavlo_streaming_event_play);
  tavlo_streaming_tagger_release(streaming);
  CHECK(player.releases == 1 && player.calls >= 1); /* the release follows the last call */
  CHECK(replaced.releases == 1 && cleared.releases == 1 && replaced.calls + unreleased.calls + cleared.calls == 0);
  CHECK(hits_of("c-stream", hits, 2) == 1);
  CHECK(HAS(hits[0], "&cmsPS=5&", "&cmsPO=42&", "&crmid=viewer-9&", "&cmsSN=renamed&", "&cmsME=u&"));
  CHECK(HAS(hits[0], "&cmsS3=S1&", "&cmsS2=S2&", "&cmsS1=S3&", "&cmsS4=S4&", "&cmsS5=S5&", "&dom=provider&"));
  CHECK(HAS(hits[0], "&cmsSD=60&", "&cmsDU=5400&", "&cmsGR=drama&"));
  { /* the hit's dump, whatever the threshold, reached the log callback as information */
    static char logged[1 << 16];
    CHECK(pread(STDERR_FILENO, logged, sizeof logged - 1, 0) > 0 && strstr(logged, "[0] ------------------------------\n"));
  }

  /* A blank medium: a tagger that never configures, sends nor takes a mode. */
  streaming = tavlo_streaming_tagger_with_serial("c-blank", "  ", 0, NULL, 0, tavlo_streaming_type_no_position,
                                                 configure_medium, &configured);
  CHECK(tavlo_streaming_tagger_set_sending_mode(streaming, tavlo_sending_mode_live) == 0 && configured == 1);
  tavlo_streaming_tagger_release(streaming);
}

/* Consent, delivery counts, the drop callback and flushing, after the taggers' hits. */
static int drops_seen;
static void count_drop(void* user_data, const char* serial, int64_t request_type, int reason, long http_status) {
  CHECK(user_data == &drops_seen && strcmp(serial, "c-delivery") == 0 && request_type == 0 &&
        reason == tavlo_drop_invalid_url && http_status == 0);
  ++drops_seen;
}

static void test_delivery(void) {
  static char huge[17 * 1024];
  tavlo_audience_tagger_t* tagger = tavlo_audience_tagger_with_serial("c-delivery", NULL);
  tavlo_stats_t* stats;
  tavlo_delivery_counts total;
  tavlo_flush_result flushed;
  const tavlo_delivery_counts* entry;
  size_t index;
  int found = 0;

  CHECK(tavlo_set_consent(3, 0) == 0 && tavlo_set_consent(-1, 1) == 0 && tavlo_consent() == tavlo_consent_granted);
  CHECK(strcmp(tavlo_drop_reason_name(tavlo_drop_http_status), "HTTP status") == 0 &&
        strcmp(tavlo_drop_reason_name(tavlo_drop_reason_count), "unknown") == 0);
  tavlo_set_drop_callback(count_drop, &drops_seen);
  memset(huge, 'x', sizeof huge - 1);
  tavlo_audience_tagger_send_hit(tagger, huge, NULL, NULL, NULL); /* too large for a URL: dropped at once */
  tavlo_audience_tagger_send_hit(tagger, "kept", NULL, NULL, NULL);
  tavlo_audience_tagger_release(tagger);
  flushed = tavlo_flush(30);
  /* What the library did before the flush began is not the flush's: each count is 0 or 1. */
  CHECK(flushed.sent <= 1 && flushed.dropped <= 1 && flushed.still_queued == 0 && drops_seen == 1);
  tavlo_set_drop_callback(NULL, NULL);

  stats = tavlo_stats();
  for (index = 0; index < tavlo_stats_count(stats); ++index) {
    entry = tavlo_stats_entry(stats, index);
    if (strcmp(entry->serial, "c-delivery") != 0) continue;
    found = 1;
    CHECK(entry->request_type == 0 && entry->queued == 1 && entry->sent == 1 && entry->dropped_in_all == 1 &&
          entry->dropped[tavlo_drop_invalid_url] == 1);
  }
  total = tavlo_stats_total(stats);
  CHECK(found && tavlo_stats_entry(stats, tavlo_stats_count(stats)) == NULL);
  CHECK(total.queued >= 1 + 3 && total.sent + total.dropped_in_all >= total.queued && *total.serial == '\0');
  tavlo_stats_free(stats);
}

static int remove_entry(const char* path, const struct stat* status, int type, struct FTW* where) {
  (void)status, (void)type, (void)where;
  return remove(path);
}

int main(void) {
  char home[] = "/tmp/tavlo-c-test-XXXXXX";
  char log_path[64]; /* the library's log: standard error goes there */
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
  socklen_t length = sizeof address;
  pthread_t collector;
  int log;

  listener = socket(AF_INET, SOCK_STREAM, 0);
  if (mkdtemp(home) == NULL || setenv("XDG_DATA_HOME", home, 1) != 0 || setenv("no_proxy", "127.0.0.1", 1) != 0 ||
      bind(listener, (struct sockaddr*)&address, sizeof address) != 0 || listen(listener, 8) != 0 ||
      getsockname(listener, (struct sockaddr*)&address, &length) != 0 ||
      snprintf(base_url, sizeof base_url, "http://127.0.0.1:%d", ntohs(address.sin_port)) < 0 ||
      pthread_create(&collector, NULL, collect, NULL) != 0 || snprintf(log_path, sizeof log_path, "%s/log", home) < 0 ||
      (log = open(log_path, O_RDWR | O_CREAT | O_APPEND, 0600)) < 0 || dup2(log, STDERR_FILENO) < 0) {
    perror("tavlo_c_test: no private folder, log file or collector");
    return 1;
  }

  CHECK(strcmp(tavlo_version(), TAVLO_EXPECTED_VERSION) == 0); /* project()'s version, from CMake */
  test_platform();
  test_null_handles();
  test_audience_tagger();
  test_streaming_tagger();
  test_delivery();

  tavlo_shutdown();
  tavlo_shutdown(); /* idempotent */

  nftw(home, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
  printf("%d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
