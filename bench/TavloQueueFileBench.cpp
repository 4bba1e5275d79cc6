// The queue file's cost: loading, saving and encoding a queue of 500 requests of 35
// parameters, each figure beside the floor it cannot beat and beside libplist, which the
// library used before, and the memory a save leaves behind beside the file's size.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <plist/plist.h>

#include "linux/TavloPosixFileSystem.h"
#include "archive/TavloArchiveCache.h"
#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "request/TavloRecordClasses.h"
#include "support/TavloLibplistKeyedArchiver.h"
#include "support/TavloSampleQueue.h"

namespace {

using Queue = std::vector<std::shared_ptr<TavloCodable>>;
constexpr std::size_t kRequests = 500;
constexpr std::size_t kParameters = 35;

struct Scenario {
  const char* name;
  Queue queue;
  std::string bytes;  // the queue's file, as the archiver writes it
  std::string path;   // where the benchmarks write and read it
  // The agent's saves: a cache kept from one to the next, and between two saves one hit
  // sent from the head and one appended, as a queue moves in steady use. The queue is a
  // window onto a ring of twice its length, so an appended hit was never in the cache.
  Queue ring;
  std::size_t head = 0;
  Queue window;
  std::unique_ptr<TavloArchiveCache> cache = std::make_unique<TavloArchiveCache>();
  const Queue& nextWindow() {
    window.clear();
    for (std::size_t i = 0; i < kRequests; ++i) window.push_back(ring[(head + i) % ring.size()]);
    window.push_back(queue.back());  // the clear-cache marker
    head = (head + 1) % ring.size();
    return window;
  }
};

std::string folder;
std::map<std::string, Scenario>& scenarios() {
  static std::map<std::string, Scenario> all;
  return all;
}

// write(2), fsync(2), rename(2): the least an atomic replacement of the file costs.
void plainAtomicWrite(const std::string& path, const std::string& bytes) {
  const std::string temporary = path + ".plain";
  const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (descriptor < 0) std::abort();
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t written = ::write(descriptor, bytes.data() + done, bytes.size() - done);
    if (written <= 0) std::abort();
    done += static_cast<std::size_t>(written);
  }
  if (::fsync(descriptor) != 0 || ::close(descriptor) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0) {
    std::abort();
  }
}

void loadOurs(benchmark::State& state, Scenario* s) {
  for (auto _ : state) {
    auto queue = TavloKeyedUnarchiver::unarchivedArrayWithData(s->bytes, TavloRecordClasses());
    if (!queue || queue->size() != kRequests + 1) state.SkipWithError("the queue did not load");
    benchmark::DoNotOptimize(queue);
  }
}
void loadPlainRead(benchmark::State& state, Scenario* s) {
  TavloPosixFileSystem files;
  for (auto _ : state) {
    std::string contents;
    if (files.readFile(s->path, contents, TavloKeyedUnarchiver::maxArchiveBytes)) state.SkipWithError("no file");
    benchmark::DoNotOptimize(contents);
  }
}
void loadLibplist(benchmark::State& state, Scenario* s) {
  for (auto _ : state) {
    plist_t tree = nullptr;
    plist_from_bin(s->bytes.data(), static_cast<uint32_t>(s->bytes.size()), &tree);
    if (tree == nullptr) state.SkipWithError("libplist could not parse the file");
    plist_free(tree);
  }
}
void saveOurs(benchmark::State& state, Scenario* s) {
  TavloPosixFileSystem files;
  for (auto _ : state) {
    const std::string bytes = TavloKeyedArchiver::archivedDataWithRootArray(s->queue);
    if (files.writeFileAtomically(s->path, bytes, 0600)) state.SkipWithError("the file was not written");
  }
}
void saveOursCached(benchmark::State& state, Scenario* s) {
  TavloPosixFileSystem files;
  for (auto _ : state) {
    const std::string bytes = TavloKeyedArchiver::archivedDataWithRootArray(s->nextWindow(), *s->cache);
    if (files.writeFileAtomically(s->path, bytes, 0600)) state.SkipWithError("the file was not written");
  }
}
// The library's own atomic write of the same bytes: it also flushes the folder.
void saveSeamOnly(benchmark::State& state, Scenario* s) {
  TavloPosixFileSystem files;
  for (auto _ : state) {
    if (files.writeFileAtomically(s->path, s->bytes, 0600)) state.SkipWithError("the file was not written");
  }
}
void savePlain(benchmark::State& state, Scenario* s) {
  for (auto _ : state) plainAtomicWrite(s->path, s->bytes);
}
void encodeOurs(benchmark::State& state, Scenario* s) {
  for (auto _ : state) benchmark::DoNotOptimize(TavloKeyedArchiver::archivedDataWithRootArray(s->queue));
}
void encodeOursCached(benchmark::State& state, Scenario* s) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(TavloKeyedArchiver::archivedDataWithRootArray(s->nextWindow(), *s->cache));
  }
}
void encodeCopy(benchmark::State& state, Scenario* s) {
  for (auto _ : state) benchmark::DoNotOptimize(std::string(s->bytes));
}
void encodeLibplist(benchmark::State& state, Scenario* s) {
  for (auto _ : state) benchmark::DoNotOptimize(TavloLibplistKeyedArchiver::archivedDataWithRootArray(s->queue));
}

// Each figure, then its floors: the first benchmark of a figure is ours, saving as the
// agent does (through its cache, one hit in and one out between saves).
struct Figure {
  const char* name;
  std::vector<std::pair<const char*, void (*)(benchmark::State&, Scenario*)>> variants;
};
const std::vector<Figure> kFigures = {
    {"load (parse + decode)", {{"ours", loadOurs}, {"plain read of the file", loadPlainRead},
                               {"libplist plist_from_bin", loadLibplist}}},
    {"save (encode + atomic write, fsync)", {{"ours", saveOursCached}, {"write + fsync + rename", savePlain},
                                             {"the seam's write alone", saveSeamOnly},
                                             {"ours without the agent's cache", saveOurs},
                                             {"libplist tree + plist_to_bin", encodeLibplist}}},
    {"encode", {{"ours", encodeOursCached}, {"copy of the bytes", encodeCopy},
                {"ours without the agent's cache", encodeOurs}, {"libplist tree + plist_to_bin", encodeLibplist}}},
};

// Collects the medians and prints, after the usual output, each figure beside its floors.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median" && !run.error_occurred) {
        medians_[run.run_name.function_name] = run.GetAdjustedRealTime();  // microseconds
      }
    }
  }
  void summary() const {
    std::printf("\n%-44s | %12s | %-30s | %12s | %s\n", "figure (median of the repetitions)", "ours",
                "floor", "floor", "ours / floor");
    for (const auto& [key, scenario] : scenarios()) {
      for (const Figure& figure : kFigures) {
        const std::string base = std::string(scenario.name) + "/" + figure.name + "/";
        const auto ours = medians_.find(base + "ours");
        if (ours == medians_.end()) continue;
        for (std::size_t i = 1; i < figure.variants.size(); ++i) {
          const auto floor = medians_.find(base + figure.variants[i].first);
          if (floor == medians_.end()) continue;
          std::printf("%-44s | %9.3f ms | %-30s | %9.3f ms | %6.2fx\n",
                      i == 1 ? (std::string(scenario.name) + ": " + figure.name).c_str() : "", ours->second / 1000,
                      figure.variants[i].first, floor->second / 1000, ours->second / floor->second);
        }
      }
    }
  }

 private:
  std::map<std::string, double> medians_;
};

// Heap in use (mallinfo2) and resident memory, in bytes.
struct Memory {
  double inUse;
  double resident;
};
Memory memoryNow() {
  const struct mallinfo2 info = mallinfo2();
  long pages = 0;
  long resident = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  return {static_cast<double>(info.uordblks + info.hblkhd), static_cast<double>(resident) * sysconf(_SC_PAGESIZE)};
}

// What a save leaves behind once it has returned, measured before any benchmark runs.
void memoryAfterSave(Scenario& s, std::vector<std::string>& lines) {
  TavloPosixFileSystem files;
  const auto line = [&](const char* who, Memory before, Memory after) {
    char text[256];
    std::snprintf(text, sizeof text, "%-44s | %9.3f MB in use, %9.3f MB resident | file %7.3f MB",
                  (std::string(s.name) + ": memory after a save, " + who).c_str(), (after.inUse - before.inUse) / 1e6,
                  (after.resident - before.resident) / 1e6, static_cast<double>(s.bytes.size()) / 1e6);
    lines.emplace_back(text);
  };
  const auto measure = [&](const char* who, auto encode) {
    const Memory before = memoryNow();
    if (files.writeFileAtomically(s.path, encode(s.queue), 0600)) std::abort();
    line(who, before, memoryNow());
  };
  measure("ours without a cache", [](const Queue& q) { return TavloKeyedArchiver::archivedDataWithRootArray(q); });
  measure("libplist", [](const Queue& q) { return TavloLibplistKeyedArchiver::archivedDataWithRootArray(q); });
  // The agent keeps its cache between saves: all it holds counts, after a hundred saves,
  // each one hit in and one out.
  const Memory before = memoryNow();
  auto cache = std::make_unique<TavloArchiveCache>();
  for (int i = 0; i < 100; ++i) {
    if (files.writeFileAtomically(s.path, TavloKeyedArchiver::archivedDataWithRootArray(s.nextWindow(), *cache), 0600)) {
      std::abort();
    }
  }
  line("ours, with the agent's cache", before, memoryNow());
  char text[256];
  std::snprintf(text, sizeof text, "%-44s | %9.3f MB", (std::string(s.name) + ": the agent's cache holds").c_str(),
                static_cast<double>(cache->memoryBytes()) / 1e6);
  lines.emplace_back(text);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  // The files go where TAVLO_BENCH_DIR says, else under the system's temporary folder:
  // fsync costs what that folder's device makes it cost.
  const char* where = std::getenv("TAVLO_BENCH_DIR");
  std::string pattern = (where ? std::string(where) : std::filesystem::temp_directory_path().string()) +
                        "/tavlo-bench-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  folder = pattern;
  for (const bool unique : {false, true}) {
    Scenario& s = scenarios()[unique ? "b" : "a"];
    s.name = unique ? "500 requests, unique values" : "500 requests, realistic values";
    s.queue = TavloSampleQueue(kRequests, kParameters, unique);
    s.ring = TavloSampleQueue(2 * kRequests, kParameters, unique);
    s.ring.pop_back();  // its clear-cache marker: the window ends with the queue's
    s.bytes = TavloKeyedArchiver::archivedDataWithRootArray(s.queue);
    s.path = folder + (unique ? "/unique.ser" : "/realistic.ser");
    plainAtomicWrite(s.path, s.bytes);
  }
  std::vector<std::string> memoryLines;
  for (auto& [key, s] : scenarios()) memoryAfterSave(s, memoryLines);

  for (auto& [key, s] : scenarios()) {
    for (const Figure& figure : kFigures) {
      for (const auto& [variant, function] : figure.variants) {
        const std::string name = std::string(s.name) + "/" + figure.name + "/" + variant;
        benchmark::RegisterBenchmark(name.c_str(), function, &s)
            ->Unit(benchmark::kMicrosecond)
            ->MinTime(0.05)
            ->Repetitions(7)
            ->ReportAggregatesOnly(true);
      }
    }
  }
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.summary();
  std::printf("\n");
  for (const std::string& line : memoryLines) std::printf("%s\n", line.c_str());
  std::filesystem::remove_all(folder);
  benchmark::Shutdown();
  return 0;
}
