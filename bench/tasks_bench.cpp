// The cost of one short run of a tool with its output captured.
#include <benchmark/benchmark.h>

#include "tasks/KdTaskEx.h"

namespace {

void BM_DataFromTrue(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(KdTaskEx::dataFromTask("/bin/true", {}, nullptr));
}
BENCHMARK(BM_DataFromTrue)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_DataFromEcho(benchmark::State& state) {
  for (auto _ : state) {
    auto data = KdTaskEx::dataFromTask("/bin/echo", {"hello"}, nullptr);
    if (!data || *data != "hello\n") state.SkipWithError("unexpected output");
  }
}
BENCHMARK(BM_DataFromEcho)->UseRealTime()->Unit(benchmark::kMicrosecond);

// The same with a time-out: adds the timer thread.
void BM_DataFromEchoWithTimeout(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(KdTaskEx::dataFromTask("/bin/echo", {"hello"}, 30.0));
}
BENCHMARK(BM_DataFromEchoWithTimeout)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_RunTaskTrue(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(KdTaskEx::runTask("/bin/true"));
}
BENCHMARK(BM_RunTaskTrue)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
