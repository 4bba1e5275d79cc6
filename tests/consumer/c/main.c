/* A C11 application built against an installed Tavlo through the C interface only. It
   sends no hit; it exits 0 only if the headers and the library fit together. */
#include <stdio.h>
#include <string.h>

#include <tavlo/tavlo.h>

int main(void) {
  tavlo_audience_tagger_t* tagger = tavlo_audience_tagger_with_serial("consumer-serial", NULL);
  const char* version = tavlo_version();
  const int ok = tagger != NULL && version != NULL && strchr(version, '.') != NULL;
  tavlo_audience_tagger_release(tagger);
  puts(ok ? "consumer: OK" : "consumer: FAILED");
  return ok ? 0 : 1;
}
