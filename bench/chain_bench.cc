// P1, the media path of one peer: a threaded source through a pass-through
// transform to K device sinks, built as a host builds it. The library is
// started for real (SysInit), the bench drivers are registered, and the
// host dials K local sessions of the chain
//
//     bench.source (opN0=run) -> bench.pass -> bench.sink
//
// with RSCDial. The K sessions share the source's root and the transform's
// node, and each has a sink of its own, so the source's read thread reads a
// chunk, the transform's Convert copies it once, and each of the K sinks is
// written. The figure is chunks per second that reached every sink, over a
// window that opens once all K sessions were reported started and the
// stream has settled.
//
// Copies per chunk: the source's Read into the engine's read buffer, and
// the transform's Convert into the buffer the engine gives it. scripts/
// bench.sh sets that against a hot memcpy of the same chunk measured in the
// same run (the bound is half its rate), and at K = 8 against GStreamer's
// tee.
#include <benchmark/benchmark.h>

#include <string>
#include <thread>
#include <vector>

#include "arbor/rsc.h"
#include "arbor/sys.h"
#include "bench_common.h"
#include "bench_drivers.h"

namespace {

constexpr const char* kChain =
    "ftN0=bench.source;opN0=run;ftN1=bench.pass;ftN2=bench.sink;";
constexpr int kStartLimitMs = 10000;

void BM_ChainToSinks(benchmark::State& state) {
  const auto sinks = static_cast<uint64_t>(state.range(0));
  const auto settle = std::chrono::milliseconds(bench_scale(300, 20));
  const auto window = std::chrono::milliseconds(bench_scale(1000, 100));
  LogTally log;
  SysInit(nullptr);
  bench_drivers_register();
  SessionNotices::get().listen();
  const uint64_t started0 = SessionNotices::get().started();
  std::vector<std::string> sids;
  for (uint64_t i = 0; i < sinks; ++i) {
    char sid[RSC_SID_SLOT] = "";
    RSCDial(kBenchAsc, sid, kChain, static_cast<const char*>(nullptr));
    if (sid[0] != '\0') sids.emplace_back(sid);
  }
  double rate = 0, seconds = 0;
  std::string error;
  if (sids.size() != sinks) {
    error = "a dial was refused";
  } else if (!SessionNotices::get().wait_started(started0 + sinks, kStartLimitMs)) {
    error = "the sessions were not reported started";
  } else {
    std::this_thread::sleep_for(settle);
    const uint64_t before = bench_totals().sink_writes;
    const auto opened = BenchClock::now();
    std::this_thread::sleep_for(window);
    const uint64_t after = bench_totals().sink_writes;
    seconds = seconds_since(opened);
    rate = static_cast<double>(after - before) / static_cast<double>(sinks) / seconds;
    if (after == before) error = "no chunk reached the sinks";
  }
  for (const std::string& sid : sids) RSCHangup(0, sid.c_str());
  SysExit();
  if (!error.empty()) return bench_fail(state, error);
  for (auto _ : state) state.SetIterationTime(seconds);
  state.counters["value"] = rate;
  state.counters["bytes_per_s"] = rate * kBenchChunk * static_cast<double>(sinks);
}

BENCHMARK(BM_ChainToSinks)
    ->ArgName("sinks")
    ->Arg(1)
    ->Arg(2)
    ->Arg(8)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
