// What a reachability question costs on Linux, each figure beside the old way in the
// same run:
//  - the process's threads with 1 and 10 watching handles, beside the threads before
//    any handle watched (each watching handle used to start a thread of its own);
//  - one currentFlags() of the any-route target while the watcher runs, beside one fresh
//    read of the kernel's links and routes, which is what every query used to cost;
//    medians over batches, and the kernel requests each makes.
// The thread figures come first: the watcher's thread lives as long as the process.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "linux/TavloNetlinkReachabilitySource.h"
#include "linux/TavloNetlinkSocket.h"

namespace {

using Clock = std::chrono::steady_clock;
using Target = TavloNetlinkReachabilitySource::Target;

size_t threadCount() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
  return count;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

std::shared_ptr<TavloReachabilityHandle> anyRoute(TavloNetlinkReachabilitySource& source) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  return source.handleForAddress(address);
}

// Nanoseconds per call of `query`, median of `batches` batches of `perBatch` calls.
template <typename Query>
double medianNanoseconds(int batches, int perBatch, Query&& query) {
  std::vector<double> perCall;
  for (int batch = 0; batch < batches; ++batch) {
    const auto start = Clock::now();
    for (int i = 0; i < perBatch; ++i) benchmark::DoNotOptimize(query());
    perCall.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count() / perBatch);
  }
  return median(perCall);
}

void BM_ThreadsWhileWatching(benchmark::State& state) {
  for (auto _ : state) {
    TavloNetlinkReachabilitySource source;
    const size_t before = threadCount();
    std::vector<std::shared_ptr<TavloReachabilityHandle>> watching;
    auto watchOneMore = [&] {
      watching.push_back(anyRoute(source));
      if (!watching.back()->startWatching([](uint32_t) {})) state.SkipWithError("cannot watch the network here");
    };
    watchOneMore();
    const size_t withOne = threadCount();
    while (watching.size() < 10) watchOneMore();
    const size_t withTen = threadCount();
    state.counters["threads_before"] = static_cast<double>(before);
    state.counters["threads_1_watching"] = static_cast<double>(withOne);
    state.counters["threads_10_watching"] = static_cast<double>(withTen);
    state.counters["threads_added_by_10"] = static_cast<double>(withTen - before);
    state.counters["threads_added_by_10_before"] = 10;  // a thread per watching handle
  }
}
BENCHMARK(BM_ThreadsWhileWatching)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_QueryWithWatcherBesideFreshRead(benchmark::State& state) {
  for (auto _ : state) {
    TavloNetlinkReachabilitySource source;
    auto watched = anyRoute(source);
    if (!watched->startWatching([](uint32_t) {})) state.SkipWithError("cannot watch the network here");
    auto asked = anyRoute(source);
    const Target target{TavloNetlinkReachabilitySource::TargetKind::AnyAddress, 0};

    const uint64_t requestsBefore = TavloNetlinkSocket::TEST_requestCount();
    const double watchedNs = medianNanoseconds(31, 10000, [&] { return asked->currentFlags(); });
    const uint64_t watchedRequests = TavloNetlinkSocket::TEST_requestCount() - requestsBefore;
    const double freshNs = medianNanoseconds(31, 50, [&] { return TavloNetlinkReachabilitySource::readFlags(target); });
    const uint64_t freshRequests = TavloNetlinkSocket::TEST_requestCount() - requestsBefore - watchedRequests;

    state.counters["query_ns"] = watchedNs;
    state.counters["query_ns_fresh_read"] = freshNs;
    state.counters["query_ratio_fresh_over_watched"] = watchedNs > 0 ? freshNs / watchedNs : 0;
    state.counters["requests_per_query"] = static_cast<double>(watchedRequests) / (31.0 * 10000);
    state.counters["requests_per_fresh_read"] = static_cast<double>(freshRequests) / (31.0 * 50);
  }
}
BENCHMARK(BM_QueryWithWatcherBesideFreshRead)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
