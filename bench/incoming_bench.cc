// P2, the receiving road: media frames from a LAN peer to a device sink.
// The library runs for real (SysInit, the LAN switched on with
// LanNetworking) over the scripted transport, which here plays the socket
// transport's reading thread: a LAN peer's "SessionCreate" for the chain
// "net. (pipe 1030) -> bench.sink" arrives as a control text, and then each
// frame arrives as the transport hands one over, through on_lan_callback
// and rsc_lan_data_incoming (a record: copy 1), the command queue (its
// payload: copy 2), and Tree_inflate on the queue's consumer, whose walk
// writes the sink.
//
// Each batch hands in 256 frames and waits until the sink has had the last
// one, so the figure is frames per second of the whole road, the hand-over
// to the consumer included. scripts/bench.sh sets it against the bare
// two-copy queue of anchors_bench.cc at the same frame size, measured in
// the same run.
#include <benchmark/benchmark.h>

#include <string>

#include "arbor/sys.h"
#include "arbor/transport.h"
#include "bench_common.h"
#include "bench_drivers.h"
#include "arbor/scripted_transport.h"

namespace {

constexpr uint32_t kPeer = 5;
constexpr uint32_t kPipe = 1030;
constexpr uint64_t kBatch = 256;
constexpr int kLimitMs = 10000;

void BM_LanMediaIncoming(benchmark::State& state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  const auto window = std::chrono::milliseconds(bench_scale(1000, 50));
  LogTally log;
  SysInit(nullptr);
  bench_drivers_register();
  std::string error;
  const std::string create = "MainCmd=SessionCreate;sidN=bench1;ftN0=net.;FD0=" +
                             std::to_string(kPipe) + ";ftN1=bench.sink;";
  const uint64_t opens = bench_totals().opens;
  if (LanNetworking(1, 0, 0, 0) < 0) {
    error = "LanNetworking refused";
  } else if (scripted_lan_control(kPeer, 100, create.c_str(), 0) != 0 ||
             !bench_wait_opens(opens + 1, kLimitMs)) {
    error = "the peer's session was not built";
  }
  double seconds = 0, rate = 0;
  if (error.empty()) {
    const std::string frame(size, 'f');
    uint64_t target = bench_totals().sink_writes;
    auto send_batch = [&] {
      for (uint64_t i = 0; i < kBatch; ++i)
        scripted_lan_frame(kPeer, kPipe, QVTP_RTP, frame.data(), size);
      target += kBatch;
      return bench_wait_sink_writes(target, kLimitMs);
    };
    bool flowing = send_batch();  // warm-up: the pools fill
    uint64_t frames = 0;
    const auto start = BenchClock::now();
    const auto end = start + window;
    while (flowing && BenchClock::now() < end) {
      flowing = send_batch();
      frames += kBatch;
    }
    seconds = seconds_since(start);
    rate = static_cast<double>(frames) / seconds;
    if (!flowing) error = "frames stopped reaching the sink";
  }
  LanNetworking(0, 0, 0, 0);
  SysExit();
  scripted_reset();
  if (!error.empty()) return bench_fail(state, error);
  for (auto _ : state) state.SetIterationTime(seconds);
  state.counters["value"] = rate;
  state.counters["bytes_per_s"] = rate * size;
}

BENCHMARK(BM_LanMediaIncoming)
    ->ArgName("bytes")
    ->Arg(188)
    ->Arg(1400)
    ->Arg(63488)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
