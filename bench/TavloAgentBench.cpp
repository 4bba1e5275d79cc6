// What the agent's queue promises, measured from outside: the first call with a full queue
// file, shutdown, a process killed while it sends, a flood of hits. Each figure is
// printed beside its floor (or its budget) in the same run.
//
//   tavlo_agent_bench                      every figure (about two minutes)
//   TAVLO_BENCH_KILLS=10 tavlo_agent_bench fewer kills of a draining process
#include <benchmark/benchmark.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/TavloAgent.h"
#include "linux/TavloCurlHttpClient.h"
#include "platform/TavloLogger.h"
#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "request/TavloRecordClasses.h"
#include "support/TavloTestPlatform.h"
#include "TavloLocalServer.h"

extern char** environ;

namespace {

constexpr int kParametersPerHit = 35;

// A streaming hit as a player makes it: 35 parameters, authorised for `collector`.
std::shared_ptr<TavloRequest> streamingHit(const std::string& level, const std::string& collector) {
  TavloParameters parameters{{"c", level}};
  for (int i = 1; parameters.size() < kParametersPerHit; ++i) {
    parameters["ml" + std::to_string(i)] = "Programme " + std::to_string(i) + " of the evening schedule";
  }
  auto request = TavloRequest::TavloRequestWithParameters(
      std::make_shared<const TavloParameters>(std::move(parameters)), TavloRequestTypeStreaming, TavloSendingModeLive,
      "S1", std::make_shared<TavloTaggerID>("S1", 0, true), 1700000000);
  request->setAuth(TavloAuth::TavloAuthWithSession(
      TavloSession::TavloSessionWithSerial("S1", "77"),
      TavloAccess::TavloAccessWithSerial("S1", TavloAccessModeFull, collector + "/m/web/"), false));
  return request;
}

void writeQueueFile(const std::string& dataDirectory, const std::string& prefix, int count,
                    const std::string& collector) {
  std::vector<std::shared_ptr<TavloCodable>> requests;
  for (int i = 0; i < count; ++i) requests.push_back(streamingHit(prefix + std::to_string(i), collector));
  std::filesystem::create_directories(dataDirectory + "/TestApp/TavloCache");
  std::ofstream(dataDirectory + "/TestApp/TavloCache/requests.ser", std::ios::binary)
      << TavloKeyedArchiver::archivedDataWithRootArray(requests);
}

size_t requestsInFile(const std::string& dataDirectory) {
  std::ifstream in(dataDirectory + "/TestApp/TavloCache/requests.ser", std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const auto objects = TavloKeyedUnarchiver::unarchivedArrayWithData(bytes, TavloRecordClasses());
  return objects ? objects->size() : 0;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

void report(benchmark::State& state, double figure, double floor, const char* unit) {
  state.counters[std::string("figure_") + unit] = figure;
  state.counters[std::string("floor_") + unit] = floor;
  if (floor > 0) state.counters["ratio"] = figure / floor;
}

long statusField(const char* name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(name, 0) == 0) return std::atol(line.c_str() + std::strlen(name));
  }
  return 0;
}

// The application's first tagger call makes the agent: with a full queue file present it
// must not take longer than with none, since the file is read on the agent's own thread.
void BM_FirstCallWithAFullQueueFile(benchmark::State& state) {
  std::vector<double> full, none;
  for (auto _ : state) {
    for (int withFile = 0; withFile < 2; ++withFile) {
      TavloTestPlatform test = TavloMakeTestPlatform();
      if (withFile) writeQueueFile(test.directory->path(), "old", 500, "http://127.0.0.1:1");
      test.reachability->setFlags(0);
      const auto start = std::chrono::steady_clock::now();
      auto agent = TavloAgent::make(test.platform, nullptr, std::make_shared<TavloNotificationCenter>());
      const double micros = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
      (withFile ? full : none).push_back(micros);
      agent->shutdown();
    }
  }
  report(state, median(full), median(none), "us");
}
BENCHMARK(BM_FirstCallWithAFullQueueFile)->Iterations(30)->Unit(benchmark::kMicrosecond);

// 300 hits handed over offline, then shutdown: how many the file lacks afterwards.
void BM_ShutdownKeepsEveryHit(benchmark::State& state) {
  size_t lost = 0;
  for (auto _ : state) {
    TavloTestPlatform test = TavloMakeTestPlatform();
    test.reachability->setFlags(0);
    auto agent = TavloAgent::make(test.platform, nullptr, std::make_shared<TavloNotificationCenter>());
    for (int i = 0; i < 300; ++i) agent->addRequestToQueue(streamingHit(std::to_string(i), "http://127.0.0.1:1"));
    agent->shutdown();
    lost += 300 - requestsInFile(test.directory->path());
  }
  report(state, static_cast<double>(lost), 0, "hits_lost");
}
BENCHMARK(BM_ShutdownKeepsEveryHit)->Iterations(100)->Unit(benchmark::kMillisecond);

// A process draining 500 queued hits to a collector is killed at a random moment, then
// started again to finish. Every hit must arrive; a hit may arrive twice only when it was
// on the wire at the kill.
int runDrainChild(const std::string& dataDirectory, const std::string& collector) {
  TavloApplicationInfo application;
  application.bundleName = "TestApp";
  application.bundleVersion = "1.0";
  TavloPlatform platform = TavloPlatform::linuxDefaults(application);
  platform.files = std::make_shared<TavloPosixFileSystem>(dataDirectory);
  platform.endpoints = TavloEndpoints::allAt(collector);
  platform.reachabilitySource = std::make_shared<TavloSettableReachabilitySource>();
  auto agent = TavloAgent::make(platform, nullptr, std::make_shared<TavloNotificationCenter>());
  const bool drained = agent->waitUntilQueueEmpty(300);
  agent->shutdown();
  return drained ? 0 : 1;
}

pid_t spawnDrainChild(const std::string& self, const std::string& dataDirectory, const std::string& collector) {
  std::vector<std::string> arguments{self, "--drain-child", dataDirectory, collector};
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawn(&child, self.c_str(), nullptr, nullptr, argv.data(), environ) != 0) return -1;
  return child;
}

std::string selfPath() { return std::filesystem::read_symlink("/proc/self/exe"); }

void BM_KilledWhileSendingResendsOnlyTheHitInFlight(benchmark::State& state) {
  std::mt19937 random(42);
  size_t lost = 0, extraDuplicates = 0, kills = 0;
  for (auto _ : state) {
    TavloLocalServer collector;
    std::mutex protector;
    std::multiset<std::string> received;
    collector.handle("/m/web/", [&](const TavloLocalServerRequest& request) {
      const auto start = request.query.find("c=");
      std::lock_guard lock(protector);
      received.insert(request.query.substr(start, request.query.find('&', start) - start));
      return TavloLocalServerResponse::with(200);
    });
    TavloTemporaryDirectory directory;
    writeQueueFile(directory.path(), "h", 500, collector.baseURL());
    const size_t killAfter = std::uniform_int_distribution<size_t>(1, 499)(random);
    const pid_t first = spawnDrainChild(selfPath(), directory.path(), collector.baseURL());
    collector.waitForRequests(killAfter, std::chrono::seconds(120));
    kill(first, SIGKILL);
    waitpid(first, nullptr, 0);
    ++kills;
    const pid_t second = spawnDrainChild(selfPath(), directory.path(), collector.baseURL());
    waitpid(second, nullptr, 0);
    collector.stop();
    std::set<std::string> distinct(received.begin(), received.end());
    lost += 500 - distinct.size();
    const size_t duplicates = received.size() - distinct.size();
    extraDuplicates += duplicates > 1 ? duplicates - 1 : 0;
  }
  state.counters["kills"] = static_cast<double>(kills);
  state.counters["hits_lost"] = static_cast<double>(lost);
  report(state, static_cast<double>(extraDuplicates), 0, "duplicates_beyond_the_one_in_flight");
}

// 100,000 hits from 8 threads while the collector cannot be reached: peak memory beside
// that of a full queue reached by 500 hits, and the 20 MB budget. Medians of three runs:
// with a thread each, the callers spread the hits over glibc's per-thread arenas, and
// the peak varies with how those happen to fragment.
long peakGrowthKiB(int hits) {
  TavloTestPlatform test = TavloMakeTestPlatform();
  test.reachability->setFlags(0);
  std::ofstream("/proc/self/clear_refs") << "5";  // restarts the peak count
  const long before = statusField("VmHWM:");
  auto agent = TavloAgent::make(test.platform, nullptr, std::make_shared<TavloNotificationCenter>());
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t; i < hits; i += 8) agent->addRequestToQueue(streamingHit(std::to_string(i), "http://x"));
    });
  }
  for (auto& thread : threads) thread.join();
  agent->TEST_waitForHandOver(60);
  const long growth = statusField("VmHWM:") - before;
  agent->shutdown();
  return growth;
}

// Each run in a fresh process: arenas warmed by an earlier run would hide the growth.
double peakGrowthMBInAFreshProcess(int hits) {
  int pipeEnds[2];
  if (pipe(pipeEnds) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
  std::string self = selfPath(), flag = "--flood-child", count = std::to_string(hits);
  char* argv[] = {self.data(), flag.data(), count.data(), nullptr};
  pid_t child = 0;
  const bool spawned = posix_spawn(&child, self.c_str(), &actions, nullptr, argv, environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  close(pipeEnds[1]);
  std::string output;
  char buffer[64];
  for (ssize_t n; (n = read(pipeEnds[0], buffer, sizeof buffer)) > 0;) output.append(buffer, static_cast<size_t>(n));
  close(pipeEnds[0]);
  if (spawned) waitpid(child, nullptr, 0);
  return std::atof(output.c_str()) / 1024;
}

void BM_AFloodOfHitsStaysWithinAFewMegabytes(benchmark::State& state) {
  std::vector<double> fullQueue, flood;
  for (auto _ : state) {
    fullQueue.push_back(peakGrowthMBInAFreshProcess(500));
    flood.push_back(peakGrowthMBInAFreshProcess(100000));
  }
  state.counters["full_queue_MB"] = median(fullQueue);
  report(state, median(flood), 20, "peak_MB_vs_budget");
}
BENCHMARK(BM_AFloodOfHitsStaysWithinAFewMegabytes)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--drain-child") return runDrainChild(argv[2], argv[3]);
  if (argc == 3 && std::string(argv[1]) == "--flood-child") {
    std::printf("%ld\n", peakGrowthKiB(std::atoi(argv[2])));
    return 0;
  }
  const char* kills = std::getenv("TAVLO_BENCH_KILLS");
  benchmark::RegisterBenchmark("BM_KilledWhileSendingResendsOnlyTheHitInFlight",
                               BM_KilledWhileSendingResendsOnlyTheHitInFlight)
      ->Iterations(kills ? std::max(1, std::atoi(kills)) : 100)
      ->Unit(benchmark::kSecond);
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeError);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
