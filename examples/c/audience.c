/* A C application measuring three screens with an audience tagger.

     tavlo_c_audience_example http://127.0.0.1:8080

   Every endpoint, authorisation included, is taken at the given base URL. The program
   exits once its hits are all answered with status 200 (status 0), with status 1 once one
   was dropped or after 30 seconds of waiting, or
   at once when the URL is unusable (status 2). */
#include <stdio.h>

#include "tavlo/tavlo.h"

int main(int argc, char** argv) {
  tavlo_platform_t* platform;
  tavlo_audience_tagger_t* tagger;
  int configured;
  int sent;
  tavlo_stats_t* stats;
  tavlo_delivery_counts total;

  if (argc < 2) {
    fprintf(stderr, "usage: %s BASE_URL   (for example http://127.0.0.1:8080)\n", argv[0]);
    return 2;
  }

  /* Before the first tagger: say who we are and where hits go. */
  platform = tavlo_platform_create();
  configured = platform != NULL && tavlo_platform_set_application(platform, "TavloCAudienceExample", "1.0") &&
               tavlo_platform_set_endpoints_base_url(platform, argv[1]) && tavlo_platform_install(platform);
  tavlo_platform_destroy(platform); /* installing copied it */
  if (!configured) {
    fprintf(stderr, "%s: %s is not an http:// or https:// base URL\n", argv[0], argv[1]);
    return 2;
  }

  tagger = tavlo_audience_tagger_with_serial("example-serial", "viewer-42");
  if (tagger == NULL) {
    fprintf(stderr, "%s: no audience tagger\n", argv[0]);
    return 1;
  }
  tavlo_set_logging_mode(tavlo_logging_info); /* print everything the library does */
  tavlo_tagger_set_level(tavlo_audience_tagger_as_tagger(tagger), 1, "living-room");

  tavlo_audience_tagger_send_hit(tagger, "home", NULL, NULL, NULL);
  tavlo_audience_tagger_send_hit(tagger, "catalogue", "films", NULL, NULL);
  tavlo_audience_tagger_send_hit(tagger, "player", "films", "a-film-title", NULL);
  tavlo_audience_tagger_release(tagger); /* the library keeps the tagger itself */

  sent = tavlo_wait_for_pending_hits(30);
  if (!sent) printf("hits still pending after 30 seconds\n");
  /* Every hit answered with 200, none dropped (a server answering 404 drains the queue too). */
  stats = tavlo_stats();
  total = tavlo_stats_total(stats);
  tavlo_stats_free(stats);
  printf("%llu of %llu hits answered with 200, %llu dropped\n", (unsigned long long)total.sent,
         (unsigned long long)total.queued, (unsigned long long)total.dropped_in_all);
  tavlo_shutdown();
  return sent && total.dropped_in_all == 0 && total.sent == total.queued ? 0 : 1;
}
