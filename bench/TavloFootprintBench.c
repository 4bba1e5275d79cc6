/* What the library costs a set-top process in resident memory: the process with the
   libraries Tavlo links (libstdc++, libcurl, libuuid) loaded, then with libtavlo.so loaded
   (dlopen), then with the library started (its first tagger: the agent, its threads, the
   network watch) and idle. Printed beside the budget: load and start together within 4 MB
   of the process before; the cost of the libraries themselves in a bare C process after.

     tavlo_footprint_bench [path/to/libtavlo.so]

   A plain C program that opens the library by path, so "before" really is without it.
   bench/footprint.sh runs it beside the stripped sizes of the library and of libcurl and
   libplist. Under qemu-user the figure would be the emulator's, so it is taken natively. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <ftw.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#ifndef TAVLO_LIBRARY_FILE
#define TAVLO_LIBRARY_FILE "libtavlo.so"
#endif

enum { kBudgetKiB = 4096 };

/* What the library links, which a set-top application that speaks HTTP in C++ has loaded
   already: the budget is for what Tavlo adds to such a process. */
static const char* const kDependencies[] = {"libstdc++.so.6", "libcurl.so.4", "libuuid.so.1"};

/* VmRSS of this process, in KiB; -1 when /proc cannot tell. */
static long residentKiB(void) {
  FILE* status = fopen("/proc/self/status", "r");
  if (status == NULL) return -1;
  char line[256];
  long kib = -1;
  while (fgets(line, sizeof line, status) != NULL) {
    if (strncmp(line, "VmRSS:", 6) == 0) {
      kib = strtol(line + 6, NULL, 10);
      break;
    }
  }
  fclose(status);
  return kib;
}

static int removeEntry(const char* path, const struct stat* info, int flag, struct FTW* walk) {
  (void)info;
  (void)flag;
  (void)walk;
  remove(path);
  return 0;
}

static void* symbol(void* library, const char* name) {
  void* found = dlsym(library, name);
  if (found == NULL) {
    fprintf(stderr, "tavlo_footprint_bench: %s is missing from the library\n", name);
    exit(1);
  }
  return found;
}

/* ISO C has no cast from dlsym's object pointer to a function pointer; POSIX promises the
   bytes are the function's address, so they are copied. */
#define TAVLO_LOAD(function, library, name)        \
  do {                                             \
    void* found = symbol(library, name);           \
    memcpy(&(function), &found, sizeof(function)); \
  } while (0)

int main(int argc, char** argv) {
  const char* path = argc > 1 ? argv[1] : TAVLO_LIBRARY_FILE;
  /* The queue file and the device identifier go to a folder of this run's own. */
  char data[] = "/tmp/tavlo-footprint-XXXXXX";
  if (mkdtemp(data) == NULL || setenv("XDG_DATA_HOME", data, 1) != 0) {
    perror("tavlo_footprint_bench: data folder");
    return 1;
  }

  /* Lazy binding, as the dynamic loader does for a program linked with the library: the
     pages a symbol lookup touches count when the library first needs the symbol. */
  const long before = residentKiB();
  for (size_t i = 0; i < sizeof kDependencies / sizeof kDependencies[0]; ++i) {
    if (dlopen(kDependencies[i], RTLD_LAZY | RTLD_GLOBAL) == NULL) {
      fprintf(stderr, "tavlo_footprint_bench: %s\n", dlerror());
      return 1;
    }
  }
  const long dependencies = residentKiB();
  void* library = dlopen(path, RTLD_LAZY | RTLD_LOCAL);
  if (library == NULL) {
    fprintf(stderr, "tavlo_footprint_bench: %s\n", dlerror());
    return 1;
  }
  const long loaded = residentKiB();

  void* (*platformCreate)(void);
  uint8_t (*setBaseUrl)(void*, const char*);
  uint8_t (*install)(const void*);
  void (*platformDestroy)(void*);
  void* (*tagger)(const char*, const char*);
  void (*release)(void*);
  void (*shutdown)(void);
  TAVLO_LOAD(platformCreate, library, "tavlo_platform_create");
  TAVLO_LOAD(setBaseUrl, library, "tavlo_platform_set_endpoints_base_url");
  TAVLO_LOAD(install, library, "tavlo_platform_install");
  TAVLO_LOAD(platformDestroy, library, "tavlo_platform_destroy");
  TAVLO_LOAD(tagger, library, "tavlo_audience_tagger_with_serial");
  TAVLO_LOAD(release, library, "tavlo_audience_tagger_release");
  TAVLO_LOAD(shutdown, library, "tavlo_shutdown");

  /* Nothing listens on the discard port: no hit could leave the machine, and none is sent. */
  void* platform = platformCreate();
  setBaseUrl(platform, "http://127.0.0.1:9");
  install(platform);
  platformDestroy(platform);
  void* first = tagger("footprint", NULL);
  /* Idle means after the start-up work: the threads have come up and gone to sleep. */
  const struct timespec settle = {0, 500 * 1000 * 1000};
  nanosleep(&settle, NULL);
  const long started = residentKiB();
  release(first);
  shutdown();
  nftw(data, removeEntry, 8, FTW_DEPTH | FTW_PHYS);

  if (before < 0 || dependencies < 0 || loaded < 0 || started < 0) {
    fprintf(stderr, "tavlo_footprint_bench: /proc/self/status has no VmRSS\n");
    return 1;
  }
  const long added = started - dependencies;
  printf("%-52s | %8s\n", "resident memory (VmRSS)", "KiB");
  printf("%-52s | %8ld\n", "process before the library", before);
  printf("%-52s | %+8ld\n", "libstdc++, libcurl (with TLS), libuuid loaded", dependencies - before);
  printf("%-52s | %+8ld\n", "libtavlo.so loaded", loaded - dependencies);
  printf("%-52s | %+8ld\n", "library started (first tagger), idle", started - loaded);
  printf("%-52s | %+8ld | budget %d: %s\n", "libtavlo loaded and started", added, kBudgetKiB,
         added <= kBudgetKiB ? "within" : "OVER");
  printf("%-52s | %+8ld\n", "the same with its libraries, in a bare C process", started - before);
  return 0;
}
