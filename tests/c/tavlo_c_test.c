/* The C interface as a C program sees it: only tavlo.h, only the shared library, C11.

   Nothing listens at the endpoints (http://127.0.0.1:1), so every hit stays queued: the
   program checks handles, NULL handling, strings, callbacks and the library's queue, not
   what a server would receive (tests/c/TavloCApiTest.cpp does that). The queue file and
   the device identifier go to a private folder removed at the end.

   Prints each failed check, then "N passed, M failed"; exits 1 when any failed. */
#define _POSIX_C_SOURCE 200809L
#define _XOPEN_SOURCE 700

#include <errno.h>
#include <ftw.h>
#include <limits.h>
#include <math.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "tavlo/tavlo.h"

static int passed;
static int failed;

#define CHECK(condition) check((condition) ? 1 : 0, #condition, __LINE__)

static void check(int ok, const char* what, int line) {
  if (ok) {
    ++passed;
  } else {
    ++failed;
    fprintf(stderr, "tavlo_c_test.c:%d: FAILED: %s\n", line, what);
  }
}

/* Whether a string the library returned is `expected` (NULL: no value); frees it. */
static int is(char* returned, const char* expected) {
  int same;
  if (returned == NULL || expected == NULL) {
    same = returned == NULL && expected == NULL;
  } else {
    same = strcmp(returned, expected) == 0;
  }
  tavlo_free(returned);
  return same;
}

/* The player a streaming tagger asks for positions. Its callbacks run on the thread that
   notifies an event and on the library's own thread, hence the lock. */
struct player {
  pthread_mutex_t lock;
  pthread_cond_t released_changed;
  int64_t position;
  int position_calls;
  int releases;
  void* last_user_data;
};

static uint8_t player_position(void* user_data, int64_t* position) {
  struct player* player = user_data;
  pthread_mutex_lock(&player->lock);
  ++player->position_calls;
  player->last_user_data = user_data;
  *position = player->position;
  pthread_mutex_unlock(&player->lock);
  return 1;
}

static void player_release(void* user_data) {
  struct player* player = user_data;
  pthread_mutex_lock(&player->lock);
  ++player->releases;
  pthread_cond_broadcast(&player->released_changed);
  pthread_mutex_unlock(&player->lock);
}

/* The releases counted, once at least one came or ten seconds passed: a position call
   running on the library's thread when the tagger goes defers the release until it ends. */
static int player_releases_after_release(struct player* player) {
  struct timespec deadline;
  int releases;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 10;
  pthread_mutex_lock(&player->lock);
  while (player->releases == 0) {
    if (pthread_cond_timedwait(&player->released_changed, &player->lock, &deadline) == ETIMEDOUT) break;
  }
  releases = player->releases;
  pthread_mutex_unlock(&player->lock);
  return releases;
}

static int player_position_calls(struct player* player) {
  int calls;
  pthread_mutex_lock(&player->lock);
  calls = player->position_calls;
  pthread_mutex_unlock(&player->lock);
  return calls;
}

struct configuration {
  int calls;
  void* user_data;
};

static void configure_medium(void* user_data, tavlo_streaming_config_t* config) {
  struct configuration* configuration = user_data;
  ++configuration->calls;
  configuration->user_data = user_data;
  tavlo_streaming_config_set_level(config, 1, "films");
  tavlo_streaming_config_set_level(config, 5, "fifth");
  tavlo_set_logging_mode(tavlo_logging_none); /* the refusal is meant */
  CHECK(tavlo_streaming_config_set_level(config, 6, "sixth") == 0);
  tavlo_set_logging_mode(tavlo_logging_error);
  tavlo_streaming_config_set_media_genre(config, "drama");
  tavlo_streaming_config_set_media_provider(config, "provider");
  tavlo_streaming_config_set_customer_data(config, "viewer 9");
}

static void test_version(void) {
  CHECK(strcmp(tavlo_version(), TAVLO_EXPECTED_VERSION) == 0); /* project()'s version, from CMake */
  CHECK(tavlo_version() == tavlo_version());
}

/* Before the first tagger, as the platform must be. */
static void test_platform(void) {
  const char* refused[] = {"", "ftp://host", "http://", "http://a b", "127.0.0.1:1", "http://h\r\n"};
  size_t i;
  tavlo_platform_t* platform = tavlo_platform_create();
  CHECK(platform != NULL);
  tavlo_set_logging_mode(tavlo_logging_none); /* the refusals below are meant */
  for (i = 0; i < sizeof refused / sizeof refused[0]; ++i) {
    CHECK(tavlo_platform_set_endpoints_base_url(platform, refused[i]) == 0);
  }
  CHECK(tavlo_platform_set_endpoints_base_url(platform, NULL) == 0);
  CHECK(tavlo_platform_set_application(platform, "Bad\r\nName", "1.0") == 0);
  tavlo_set_logging_mode(tavlo_logging_error);
  CHECK(tavlo_platform_set_application(platform, "TavloCTest", "1.0") == 1);
  CHECK(tavlo_platform_set_endpoints_base_url(platform, "http://127.0.0.1:1/") == 1);
  CHECK(tavlo_platform_install(platform) == 1);
  CHECK(tavlo_platform_install(platform) == 1); /* still before the first tagger */
  tavlo_platform_destroy(platform);
  CHECK(tavlo_pending_hit_count() == 0);
}

static void test_null_handles(void) {
  int64_t mode;
  struct player player = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0, 0, 0, NULL};
  tavlo_set_logging_mode(tavlo_logging_none); /* every call below logs an error line */
  mode = tavlo_logging_mode();

  CHECK(tavlo_platform_set_application(NULL, "a", "1") == 0);
  CHECK(tavlo_platform_set_endpoints_base_url(NULL, "http://h") == 0);
  CHECK(tavlo_platform_install(NULL) == 0);
  CHECK(tavlo_tagger_serial(NULL) == NULL);
  CHECK(tavlo_tagger_customer_data(NULL) == NULL);
  CHECK(tavlo_tagger_can_send(NULL) == 0);
  CHECK(tavlo_tagger_level(NULL, 1) == NULL);
  CHECK(tavlo_tagger_set_level(NULL, 1, "x") == 0);
  CHECK(tavlo_tagger_media_content_id(NULL) == NULL);
  CHECK(tavlo_tagger_media_diff_mode(NULL) == NULL);
  CHECK(tavlo_tagger_media_channel(NULL) == NULL);
  CHECK(tavlo_tagger_net_measurement(NULL) == NULL);
  tavlo_tagger_set_media_content_id(NULL, "x");
  tavlo_tagger_set_media_diff_mode(NULL, "x");
  tavlo_tagger_set_media_channel(NULL, "x");
  tavlo_tagger_set_net_measurement(NULL, "x");
  CHECK(tavlo_tagger_use_idfa(NULL) == 0);
  tavlo_tagger_set_use_idfa(NULL, 1);
  CHECK(tavlo_tagger_logging_mode(NULL) == -1);
  tavlo_tagger_set_logging_mode(NULL, tavlo_logging_info);
  CHECK(tavlo_logging_mode() == mode);
  CHECK(tavlo_audience_tagger_as_tagger(NULL) == NULL);
  tavlo_audience_tagger_send_hit(NULL, "a", "b", "c", "d");
  CHECK(tavlo_streaming_config_set_level(NULL, 1, "x") == 0);
  tavlo_streaming_config_set_customer_data(NULL, "x");
  tavlo_streaming_config_set_media_genre(NULL, "x");
  tavlo_streaming_config_set_media_provider(NULL, "x");
  CHECK(tavlo_streaming_tagger_as_tagger(NULL) == NULL);
  tavlo_streaming_tagger_notify_event(NULL, tavlo_streaming_event_play);
  tavlo_streaming_tagger_notify_event_at(NULL, tavlo_streaming_event_play, 1);
  tavlo_streaming_tagger_set_position_callback(NULL, player_position, player_release, &player);
  CHECK(player.releases == 1 && player.position_calls == 0);
  CHECK(tavlo_streaming_tagger_sending_mode(NULL) == -1);
  CHECK(tavlo_streaming_tagger_set_sending_mode(NULL, tavlo_sending_mode_live) == 0);
  CHECK(tavlo_streaming_tagger_current_mode(NULL) == -1);
  CHECK(tavlo_streaming_tagger_streaming_type(NULL) == -1);
  CHECK(tavlo_streaming_tagger_level(NULL, 1) == NULL);
  CHECK(tavlo_streaming_tagger_media_name(NULL) == NULL);
  CHECK(tavlo_streaming_tagger_media_url(NULL) == NULL);
  CHECK(tavlo_streaming_tagger_media_genre(NULL) == NULL);
  CHECK(tavlo_streaming_tagger_media_provider(NULL) == NULL);
  CHECK(tavlo_streaming_tagger_media_volume(NULL) == 0);
  CHECK(tavlo_streaming_tagger_media_length(NULL) == 0);
  tavlo_streaming_tagger_set_media_name(NULL, "x");
  tavlo_streaming_tagger_set_media_url(NULL, "x");
  tavlo_streaming_tagger_set_media_genre(NULL, "x");
  tavlo_streaming_tagger_set_media_provider(NULL, "x");
  tavlo_streaming_tagger_set_media_volume(NULL, 1);
  tavlo_streaming_tagger_set_media_length(NULL, 1);
  tavlo_audience_tagger_release(NULL);
  tavlo_streaming_tagger_release(NULL);
  tavlo_platform_destroy(NULL);
  tavlo_free(NULL);
  CHECK(tavlo_pending_hit_count() == 0);
  tavlo_set_logging_mode(tavlo_logging_error);
}

static void test_logging_mode(void) {
  const int64_t modes[] = {tavlo_logging_info, tavlo_logging_warning, tavlo_logging_none, -1, INT64_MAX};
  size_t i;
  for (i = 0; i < sizeof modes / sizeof modes[0]; ++i) {
    tavlo_set_logging_mode(modes[i]);
    CHECK(tavlo_logging_mode() == modes[i]);
  }
  tavlo_set_logging_mode(tavlo_logging_error);
}

static void test_audience_tagger(void) {
  tavlo_audience_tagger_t* first = tavlo_audience_tagger_with_serial("c-serial", "viewer 42");
  tavlo_audience_tagger_t* second = tavlo_audience_tagger_with_serial("c-serial", "viewer 42");
  tavlo_audience_tagger_t* again;
  tavlo_tagger_t* tagger = tavlo_audience_tagger_as_tagger(first);
  char buffer[] = "living room";
  int level;

  CHECK(first != NULL && second != NULL && first != second);
  CHECK(is(tavlo_tagger_serial(tagger), "c-serial"));
  CHECK(is(tavlo_tagger_customer_data(tagger), "viewer 42"));
  CHECK(tavlo_tagger_can_send(tagger) == 0);
  CHECK(tavlo_tagger_logging_mode(tagger) == tavlo_logging_error);

  CHECK(tavlo_tagger_set_level(tagger, 1, buffer) == 1);
  buffer[0] = 'X'; /* the library kept its own copy */
  CHECK(is(tavlo_tagger_level(tavlo_audience_tagger_as_tagger(second), 1), "living room"));
  tavlo_set_logging_mode(tavlo_logging_none);
  CHECK(tavlo_tagger_set_level(tagger, 12, "x") == 0);
  CHECK(tavlo_tagger_level(tagger, 0) == NULL);
  tavlo_set_logging_mode(tavlo_logging_error);
  for (level = 2; level <= 11; ++level) CHECK(tavlo_tagger_level(tagger, level) == NULL);
  tavlo_tagger_set_level(tagger, 2, "");
  CHECK(is(tavlo_tagger_level(tagger, 2), ""));
  tavlo_tagger_set_media_content_id(tagger, "content");
  tavlo_tagger_set_media_diff_mode(tagger, "diffusion");
  tavlo_tagger_set_media_channel(tagger, "channel");
  tavlo_tagger_set_net_measurement(tagger, "net");
  CHECK(is(tavlo_tagger_media_content_id(tagger), "content"));
  CHECK(is(tavlo_tagger_media_diff_mode(tagger), "diffusion"));
  CHECK(is(tavlo_tagger_media_channel(tagger), "channel"));
  CHECK(is(tavlo_tagger_net_measurement(tagger), "net"));
  tavlo_tagger_set_media_channel(tagger, NULL);
  CHECK(is(tavlo_tagger_media_channel(tagger), NULL));
  tavlo_tagger_set_use_idfa(tagger, 2);
  CHECK(tavlo_tagger_use_idfa(tagger) == 1);
  tavlo_tagger_set_use_idfa(tagger, 0);
  CHECK(tavlo_tagger_use_idfa(tagger) == 0);

  tavlo_audience_tagger_send_hit(first, "home", NULL, NULL, NULL);
  tavlo_audience_tagger_send_hit(second, "catalogue", "films", "\xC3\xA9t\xC3\xA9", "\xFF not UTF-8");
  tavlo_audience_tagger_release(first);
  tavlo_audience_tagger_release(second);

  again = tavlo_audience_tagger_with_serial("c-serial", "viewer 42");
  CHECK(is(tavlo_tagger_level(tavlo_audience_tagger_as_tagger(again), 1), "living room"));
  tavlo_audience_tagger_release(again);

  /* Nothing answers at 127.0.0.1:1: the hits wait in the queue. */
  CHECK(tavlo_wait_for_pending_hits(0.2) == 0);
  CHECK(tavlo_pending_hit_count() >= 2);
  CHECK(tavlo_wait_for_pending_hits(-1) == 0);
  CHECK(tavlo_wait_for_pending_hits(NAN) == 0);
}

static void test_streaming_tagger(void) {
  struct configuration configuration = {0, NULL};
  struct player player = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 42, 0, 0, NULL};
  tavlo_streaming_tagger_t* streaming;
  tavlo_streaming_tagger_t* blank;
  size_t queued = tavlo_pending_hit_count();
  int mode;

  streaming =
      tavlo_streaming_tagger_with_serial("c-serial", "a film", 80, "http://media.test/film.m3u8", 5400,
                                         tavlo_streaming_type_delegate_position, configure_medium, &configuration);
  CHECK(streaming != NULL);
  CHECK(configuration.calls == 1);
  CHECK(configuration.user_data == &configuration);
  CHECK(tavlo_tagger_can_send(tavlo_streaming_tagger_as_tagger(streaming)) == 1);
  CHECK(is(tavlo_tagger_customer_data(tavlo_streaming_tagger_as_tagger(streaming)), "viewer 9"));
  CHECK(is(tavlo_streaming_tagger_level(streaming, 1), "films"));
  CHECK(is(tavlo_streaming_tagger_level(streaming, 2), NULL));
  CHECK(is(tavlo_streaming_tagger_level(streaming, 5), "fifth"));
  CHECK(is(tavlo_streaming_tagger_media_genre(streaming), "drama"));
  CHECK(is(tavlo_streaming_tagger_media_provider(streaming), "provider"));
  CHECK(is(tavlo_streaming_tagger_media_name(streaming), "a film"));
  CHECK(is(tavlo_streaming_tagger_media_url(streaming), "http://media.test/film.m3u8"));
  CHECK(tavlo_streaming_tagger_media_volume(streaming) == 80);
  CHECK(tavlo_streaming_tagger_media_length(streaming) == 5400);
  CHECK(tavlo_streaming_tagger_streaming_type(streaming) == tavlo_streaming_type_delegate_position);

  CHECK(tavlo_streaming_tagger_sending_mode(streaming) == tavlo_sending_mode_live);
  tavlo_set_logging_mode(tavlo_logging_none);
  CHECK(tavlo_streaming_tagger_set_sending_mode(streaming, 7) == 0);
  tavlo_set_logging_mode(tavlo_logging_error);
  CHECK(tavlo_streaming_tagger_set_sending_mode(streaming, tavlo_sending_mode_timestamped) == 1);
  CHECK(tavlo_streaming_tagger_sending_mode(streaming) == tavlo_sending_mode_timestamped);
  mode = tavlo_streaming_tagger_current_mode(streaming);
  CHECK(mode == tavlo_sending_mode_timestamped || mode == tavlo_sending_mode_disconnected);

  tavlo_streaming_tagger_set_position_callback(streaming, player_position, player_release, &player);
  tavlo_streaming_tagger_notify_event(streaming, tavlo_streaming_event_play);
  CHECK(player_position_calls(&player) >= 1);
  pthread_mutex_lock(&player.lock);
  CHECK(player.last_user_data == &player);
  pthread_mutex_unlock(&player.lock);
  tavlo_streaming_tagger_notify_event_at(streaming, tavlo_streaming_event_pause, 50);
  tavlo_streaming_tagger_notify_event_at(streaming, tavlo_streaming_event_stop, tavlo_streaming_unknown_position);
  tavlo_streaming_tagger_release(streaming);
  CHECK(player_releases_after_release(&player) == 1);

  /* Time-stamped: the play makes no hit; the pause and the stop do. */
  CHECK(tavlo_wait_for_pending_hits(0.2) == 0);
  CHECK(tavlo_pending_hit_count() >= queued + 2);

  configuration.calls = 0;
  tavlo_set_logging_mode(tavlo_logging_none);
  blank = tavlo_streaming_tagger_with_serial("  ", "a film", 0, NULL, 0, tavlo_streaming_type_no_position,
                                             configure_medium, &configuration);
  tavlo_set_logging_mode(tavlo_logging_error);
  CHECK(blank != NULL);
  CHECK(configuration.calls == 0);
  CHECK(tavlo_tagger_can_send(tavlo_streaming_tagger_as_tagger(blank)) == 0);
  tavlo_streaming_tagger_notify_event_at(blank, tavlo_streaming_event_play, 0);
  tavlo_streaming_tagger_release(blank);
}

static void test_foreground_and_shutdown(void) {
  tavlo_audience_tagger_t* late;
  size_t queued;
  tavlo_application_will_enter_foreground();
  tavlo_shutdown();
  tavlo_shutdown();
  queued = tavlo_pending_hit_count();
  CHECK(queued >= 1);
  late = tavlo_audience_tagger_with_serial("c-serial", NULL);
  CHECK(late != NULL);
  tavlo_audience_tagger_send_hit(late, "after shutdown", NULL, NULL, NULL);
  tavlo_audience_tagger_release(late);
  CHECK(tavlo_wait_for_pending_hits(0) == 0);
  CHECK(tavlo_pending_hit_count() == queued);
}

static int remove_entry(const char* path, const struct stat* status, int type, struct FTW* where) {
  (void)status;
  (void)type;
  (void)where;
  return remove(path);
}

int main(void) {
  char home[] = "/tmp/tavlo-c-test-XXXXXX";
  if (mkdtemp(home) == NULL || setenv("XDG_DATA_HOME", home, 1) != 0) {
    perror("tavlo_c_test: no private data folder");
    return 1;
  }

  test_version();
  test_platform();
  test_null_handles();
  test_logging_mode();
  test_audience_tagger();
  test_streaming_tagger();
  test_foreground_and_shutdown();

  nftw(home, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
  printf("%d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
