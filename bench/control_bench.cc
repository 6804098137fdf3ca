// P4 and P5, the control plane and what sessions cost: sessions dialled,
// started and hung up as a host does it (RSCDial, the SessionStart notice
// under the dial's AS code, RSCHangup), the stop with sessions live, and
// the memory of idle sessions and of a long churn.
//
// Chains (bench_drivers.h), by the argument "chain":
//   0 own root, read thread  bench.source (idle) -> bench.sink, exclusively:
//                            every session opens its own source, whose
//                            read thread waits in Read until the Close.
//   1 own root               bench.source (fed) -> bench.sink, exclusively:
//                            its own source, no read thread.
//   2 shared root            bench.source (idle) -> bench.sink: the
//                            sessions share one source and its read thread;
//                            each has a sink of its own.
//
// A session counts as started when the host has heard its SessionStart,
// and as ended when every device its dial opened is closed again.
//
//  BM_DialHangup    sessions per second: rounds of `window` sessions, each
//                   round dialled, heard started, hung up and seen closed.
//  BM_Stop          SysExit with `sessions` live sessions: milliseconds
//                   from the call to its return.
//  BM_IdleSessions  bytes per idle session: resident memory (and, beside
//                   it, the heap's bytes in use) after `sessions` sessions
//                   were started, in rounds of 64, less what the process
//                   held before, divided by the count. Each case runs in a
//                   process of its own (scripts/bench.sh), so nothing of an
//                   earlier case is in the figure.
//  BM_Churn         resident memory across `sessions` sessions dialled and
//                   hung up in rounds of 64: the growth over the second half
//                   of the churn, in KiB, read off the least-squares line
//                   through the resident size after each of its rounds. A
//                   one-time cost (pools, caches, the heap's first shape)
//                   shows in the first half, reported beside it; a leak
//                   grows in both.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "arbor/rsc.h"
#include "arbor/sys.h"
#include "bench_common.h"
#include "bench_drivers.h"

namespace {

constexpr const char* kChains[] = {
    "ftN0=bench.source;opN0=idle;ftN1=bench.sink;exclusively=1;",
    "ftN0=bench.source;opN0=fed;ftN1=bench.sink;exclusively=1;",
    "ftN0=bench.source;opN0=idle;ftN1=bench.sink;",
};
constexpr int kChainCount = 3;
// How long a whole round of dials or hang-ups may take, however large.
constexpr int kRoundLimitMs = 60000;

// The engine started with the bench drivers and the host's notices; the
// log tally lives as long as the engine.
class Engine {
 public:
  Engine() {
    SysInit(nullptr);
    bench_drivers_register();
    SessionNotices::get().listen();
  }
  ~Engine() { stop(); }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  void stop() {
    if (running_) SysExit();
    running_ = false;
  }

 private:
  LogTally log_;
  bool running_ = true;
};

// Dials n sessions of chain and waits until all were heard started; their
// sids in *sids. "" when all started, else what went wrong.
std::string dial_started(const char* chain, uint64_t n, std::vector<std::string>* sids) {
  SessionNotices& notices = SessionNotices::get();
  const uint64_t started = notices.started();
  for (uint64_t i = 0; i < n; ++i) {
    char sid[RSC_SID_SLOT] = "";
    RSCDial(kBenchAsc, sid, chain, static_cast<const char*>(nullptr));
    if (sid[0] == '\0') return "a dial was refused";
    sids->emplace_back(sid);
  }
  if (!notices.wait_started(started + n, kRoundLimitMs))
    return "sessions were not reported started (" + std::to_string(notices.failed()) +
           " failed)";
  return "";
}

// Hangs up every sid and waits until every device opened so far is closed.
std::string hang_up_closed(std::vector<std::string>* sids) {
  const uint64_t opened = bench_totals().opens;
  for (const std::string& sid : *sids) RSCHangup(0, sid.c_str());
  sids->clear();
  if (!bench_wait_closes(opened, kRoundLimitMs)) return "devices were not closed after hang-up";
  return "";
}

// One round trip: dial `n`, hear them start, hang up, see them closed.
std::string round_trip(const char* chain, uint64_t n) {
  std::vector<std::string> sids;
  std::string error = dial_started(chain, n, &sids);
  const std::string closed = hang_up_closed(&sids);
  return error.empty() ? closed : error;
}

void BM_DialHangup(benchmark::State& state) {
  const char* chain = kChains[state.range(0)];
  const auto window = static_cast<uint64_t>(state.range(1));
  const uint64_t total = bench_scale<uint64_t>(20000, 256);
  Engine engine;
  std::string error = round_trip(chain, window);  // warm-up
  uint64_t done = 0;
  const auto start = BenchClock::now();
  while (error.empty() && done < total) {
    error = round_trip(chain, window);
    done += window;
  }
  const double seconds = seconds_since(start);
  engine.stop();
  if (!error.empty()) return bench_fail(state, error);
  for (auto _ : state) state.SetIterationTime(seconds);
  state.counters["value"] = static_cast<double>(done) / seconds;
}

void BM_Stop(benchmark::State& state) {
  const char* chain = kChains[state.range(0)];
  const auto sessions = bench_scale<uint64_t>(static_cast<uint64_t>(state.range(1)), 20);
  Engine engine;
  std::vector<std::string> sids;
  std::string error = dial_started(chain, sessions, &sids);
  const auto start = BenchClock::now();
  engine.stop();
  const double seconds = seconds_since(start);
  if (!error.empty()) return bench_fail(state, error);
  const uint64_t left = bench_totals().opens - bench_totals().closes;
  if (left != 0) return bench_fail(state, std::to_string(left) + " devices left open by the stop");
  for (auto _ : state) state.SetIterationTime(seconds);
  state.counters["value"] = seconds * 1e3;
}

void BM_IdleSessions(benchmark::State& state) {
  const char* chain = kChains[state.range(0)];
  const auto sessions = bench_scale<uint64_t>(static_cast<uint64_t>(state.range(1)), 50);
  constexpr uint64_t kRound = 64;
  Engine engine;
  // One round first: the one-time costs, and the command queue's reused
  // items and the pools as a steady stream of rounds keeps them.
  std::string error = round_trip(chain, kRound);
  std::vector<std::string> sids;
  sids.reserve(sessions);  // the benchmark's own memory, before the baseline
  const uint64_t rss0 = rss_bytes(), heap0 = heap_bytes();
  const auto start = BenchClock::now();
  // Sessions arrive in rounds, each heard started before the next is
  // dialled, as a host's requests come in over time: the figure is what
  // the sessions hold, not the peak of a queue of ten thousand dials.
  for (uint64_t done = 0; error.empty() && done < sessions; done += kRound)
    error = dial_started(chain, std::min(kRound, sessions - done), &sids);
  const double seconds = seconds_since(start);
  // The activations that follow the last notices drain from the queue.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const uint64_t rss1 = rss_bytes(), heap1 = heap_bytes();
  if (error.empty()) error = hang_up_closed(&sids);
  engine.stop();
  if (!error.empty()) return bench_fail(state, error);
  for (auto _ : state) state.SetIterationTime(seconds);
  const auto n = static_cast<double>(sessions);
  state.counters["value"] = (static_cast<double>(rss1) - static_cast<double>(rss0)) / n;
  state.counters["heap_per_session"] =
      (static_cast<double>(heap1) - static_cast<double>(heap0)) / n;
}

// The slope of the least-squares line through (x, y), in y per x.
double slope(const std::vector<double>& x, const std::vector<double>& y) {
  const auto n = static_cast<double>(x.size());
  double sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    sx += x[i];
    sy += y[i];
    sxx += x[i] * x[i];
    sxy += x[i] * y[i];
  }
  const double d = n * sxx - sx * sx;
  return d != 0 ? (n * sxy - sx * sy) / d : 0;
}

void BM_Churn(benchmark::State& state) {
  const char* chain = kChains[state.range(0)];
  const auto sessions = bench_scale<uint64_t>(static_cast<uint64_t>(state.range(1)), 640);
  constexpr uint64_t kRound = 64;
  Engine engine;
  std::string error;
  uint64_t done = 0, rss_tenth = 0, heap_tenth = 0, rss_half = 0;
  std::vector<double> at, rss;  // the second half, after every round
  at.reserve(sessions / kRound);
  rss.reserve(sessions / kRound);
  const auto start = BenchClock::now();
  while (error.empty() && done < sessions) {
    error = round_trip(chain, kRound);
    done += kRound;
    if (rss_tenth == 0 && done >= sessions / 10) {
      rss_tenth = rss_bytes();
      heap_tenth = heap_bytes();
    }
    if (done >= sessions / 2) {
      if (rss_half == 0) rss_half = rss_bytes();
      at.push_back(static_cast<double>(done));
      rss.push_back(static_cast<double>(rss_bytes()));
    }
  }
  const double seconds = seconds_since(start);
  const uint64_t heap_end = heap_bytes();
  engine.stop();
  if (!error.empty()) return bench_fail(state, error);
  for (auto _ : state) state.SetIterationTime(seconds);
  auto kib = [](uint64_t to, uint64_t from) {
    return (static_cast<double>(to) - static_cast<double>(from)) / 1024;
  };
  // The trend over the second half, not its two ends: threads and roots
  // that wait for their sweep come and go by the dozen from one round to
  // the next, which moves a single reading by hundreds of KiB.
  state.counters["value"] = slope(at, rss) * static_cast<double>(sessions / 2) / 1024;
  state.counters["rss_first_half_kib"] = kib(rss_half, rss_tenth);
  state.counters["heap_growth_kib"] = kib(heap_end, heap_tenth);
  state.counters["sessions_per_s"] = static_cast<double>(done) / seconds;
}

void chains(benchmark::internal::Benchmark* b, std::vector<int64_t> counts) {
  b->ArgNames({"chain", "sessions"});
  for (int chain = 0; chain < kChainCount; ++chain)
    for (int64_t count : counts) b->Args({chain, count});
}

BENCHMARK(BM_DialHangup)
    ->Apply([](benchmark::internal::Benchmark* b) {
      chains(b, {1, 64});
      b->ArgNames({"chain", "window"});
    })
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Stop)
    ->Apply([](benchmark::internal::Benchmark* b) { chains(b, {1000}); })
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IdleSessions)
    ->Apply([](benchmark::internal::Benchmark* b) { chains(b, {1000, 10000}); })
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Churn)
    ->Apply([](benchmark::internal::Benchmark* b) { chains(b, {100000}); })
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
