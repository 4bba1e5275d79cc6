/* A C service measuring three screens, set up as a system service is: no home folder,
   its own data directory, its own log, each endpoint named.

     tavlo_c_service_example BASE_URL [--syslog] [--ca-file FILE] [--proxy URL]

   The data directory is $STATE_DIRECTORY (what systemd's StateDirectory= gives a unit)
   when set. Log lines go to standard error with their level, or to syslog with --syslog.
   --ca-file names the CA bundle HTTPS servers are checked against, --proxy the proxy
   every request goes through. Flushes the queue before it stops, and exits 0 when every
   hit was answered with status 200, 1 when one was dropped or could not be sent within
   30 seconds, 2 when the arguments are unusable. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "tavlo/tavlo.h"

static void log_line(void* user_data, int level, const char* line) {
  static const char* const names[] = {"info", "warning", "error"};
  fprintf(stderr, "%s: tavlo %s: %s\n", (const char*)user_data,
          level >= tavlo_logging_info && level <= tavlo_logging_error ? names[level] : "other", line);
}

int main(int argc, char** argv) {
  const char* state = getenv("STATE_DIRECTORY");
  const char* ca_file = NULL;
  const char* proxy = NULL;
  int use_syslog = 0;
  int configured;
  int i;
  tavlo_platform_t* platform;
  tavlo_audience_tagger_t* tagger;
  tavlo_flush_result flushed;
  tavlo_stats_t* stats;
  tavlo_delivery_counts total;

  for (i = 2; i < argc; ++i) {
    if (strcmp(argv[i], "--syslog") == 0) {
      use_syslog = 1;
    } else if (strcmp(argv[i], "--ca-file") == 0 && i + 1 < argc) {
      ca_file = argv[++i];
    } else if (strcmp(argv[i], "--proxy") == 0 && i + 1 < argc) {
      proxy = argv[++i];
    } else {
      argc = 0; /* usage below */
    }
  }
  if (argc < 2) {
    fprintf(stderr, "usage: %s BASE_URL [--syslog] [--ca-file FILE] [--proxy URL]\n", argv[0]);
    return 2;
  }

  /* Before the first tagger. Every call answers 0 for a value it refuses. */
  platform = tavlo_platform_create();
  configured = platform != NULL && tavlo_platform_set_application(platform, "TavloCServiceExample", "1.0") &&
               /* authorisation, audience, streaming and second collection: here all at one place */
               tavlo_platform_set_endpoints(platform, argv[1], argv[1], argv[1], argv[1]) &&
               (state == NULL || tavlo_platform_set_data_directory(platform, state)) &&
               (ca_file == NULL || tavlo_platform_set_ca_certificates(platform, ca_file, NULL)) &&
               (proxy == NULL || tavlo_platform_set_proxy(platform, proxy)) &&
               (use_syslog ? tavlo_platform_set_log_syslog(platform, LOG_DAEMON)
                           : (tavlo_platform_set_log_callback(platform, log_line, NULL, argv[0]), 1)) &&
               tavlo_platform_install(platform);
  tavlo_platform_destroy(platform); /* installing copied it; the library keeps the log callback */
  if (!configured) {
    fprintf(stderr, "%s: unusable URL, data directory, CA file or proxy\n", argv[0]);
    return 2;
  }
  tavlo_set_logging_mode(tavlo_logging_warning);

  tagger = tavlo_audience_tagger_with_serial("example-serial", "viewer-42");
  if (tagger == NULL) return 1;
  tavlo_audience_tagger_send_hit(tagger, "home", NULL, NULL, NULL);
  tavlo_audience_tagger_send_hit(tagger, "catalogue", "films", NULL, NULL);
  tavlo_audience_tagger_send_hit(tagger, "player", "films", "a-film-title", NULL);
  tavlo_audience_tagger_release(tagger);

  /* A service that is about to stop sends what it can now, once, and says how it went. */
  flushed = tavlo_flush(30);
  stats = tavlo_stats();
  total = tavlo_stats_total(stats);
  tavlo_stats_free(stats);
  fprintf(stderr, "%s: %llu sent, %llu dropped, %llu still queued\n", argv[0], (unsigned long long)flushed.sent,
          (unsigned long long)flushed.dropped, (unsigned long long)flushed.still_queued);
  tavlo_shutdown();
  return flushed.still_queued == 0 && total.dropped_in_all == 0 && total.sent == total.queued ? 0 : 1;
}
