// The application log's costs: what a caller pays per line (formatting and an
// enqueue) and how many lines a second the writer keeps up with, roll-overs
// included. The log lives in a temporary home for the run.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>

#include "log/KdLog.h"
#include "platform/Platform.h"

namespace {

// Runs as an ordinary user even when started by root, whose "user" folders
// would be the console user's.
class BenchPlatform : public kd::ForwardingPlatform {
 public:
  BenchPlatform() : ForwardingPlatform(kd::nativePlatform()) {}
  std::uint32_t realUserId() override { return 1000; }
};

void BM_AppendLogFromMainThread(benchmark::State& state) {
  std::uint64_t bytes = 1234567890;
  for (auto _ : state) {
    KdLog::appendLog("Copied %@ to %@ (%llu bytes)", "A001C003_230101_R1AB.mov", "/Volumes/Shuttle",
                     bytes++);
  }
  KdLog::finishWriting();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AppendLogFromMainThread);

// A line now and then, as in a normal run: the writer is asleep when the line
// comes, so the caller also pays for waking it.
void BM_AppendLogSporadic(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    auto start = std::chrono::steady_clock::now();
    KdLog::appendLog("Checked card %d", i++);
    auto end = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
  KdLog::finishWriting();
}
BENCHMARK(BM_AppendLogSporadic)->UseManualTime();

// The formatting share of the caller's cost.
void BM_FormatOnly(benchmark::State& state) {
  std::uint64_t bytes = 1234567890;
  for (auto _ : state) {
    benchmark::DoNotOptimize(kd::format(KdLog::escapeTextForLogging("Copied %@ to %@ (%llu bytes)"),
                                        "A001C003_230101_R1AB.mov", "/Volumes/Shuttle", bytes++));
  }
}
BENCHMARK(BM_FormatOnly);

void BM_FastAppendShortLine(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) KdLog::fastAppendLog("Checked card %d", i++);
  KdLog::finishWriting();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FastAppendShortLine);

// Lines queued as fast as one thread can, then waited for: the rate is the
// writer's, since queueing outpaces writing. 100,000 lines are about 4.5 MB,
// so each round rolls over about nine times.
void BM_WriterSustained(benchmark::State& state) {
  const int lines = static_cast<int>(state.range(0));
  for (auto _ : state) {
    for (int i = 0; i < lines; ++i) KdLog::fastAppendLog("Checked card %d", i);
    KdLog::finishWriting();
  }
  state.SetItemsProcessed(state.iterations() * lines);
}
BENCHMARK(BM_WriterSustained)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::string home = (fs::temp_directory_path() / "kd-log-bench-XXXXXX").string();
  if (!mkdtemp(home.data())) return 1;
  setenv("HOME", home.c_str(), 1);
  setenv("XDG_STATE_HOME", (home + "/state").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (home + "/config").c_str(), 1);
  static BenchPlatform platform;
  kd::setPlatformForTesting(&platform);
  KdLog::sharedController().setAppName("LogBench");
  KdLog::createNewLog();

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  KdLog::finishWriting();
  std::error_code ec;
  fs::remove_all(home, ec);
  return 0;
}
