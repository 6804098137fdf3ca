// The cost of one send on each road. The scripted transport copies every
// payload it records, so the figures include that copy and are indicative
// only: what they compare is the library's share (header, NUL strip, table
// look-up, packing, re-encoding) between roads and sizes.
#include <benchmark/benchmark.h>

#include <string>

#include "arbor/send.h"
#include "init/sys_state.h"
#include "rsc/neigh_table.h"
#include "scripted_transport.h"

namespace {

constexpr uint32_t kOldPeer = 9;

// Sends the same frame over and over; the transport's records are dropped
// every 1024 sends, outside the timing, so memory stays flat.
void bench_send(benchmark::State& state, uint32_t qvid, int32_t asc,
                uint32_t flags, const std::string& frame) {
  sys_.wan_state = QVNETS_SUCCESS;
  sys_.lan_state = 0;
  neigh_table_add(kOldPeer);
  uint32_t sent = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(sendasc(qvid, asc, frame.data(),
                                     static_cast<uint32_t>(frame.size()),
                                     flags));
    if (++sent % 1024 == 0) {
      state.PauseTiming();
      scripted_reset();
      state.ResumeTiming();
    }
  }
  scripted_reset();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(frame.size()));
}

std::string media(benchmark::State& state) {
  return std::string(static_cast<size_t>(state.range(0)), 'm');
}

std::string control(benchmark::State& state) {
  std::string text = "MainCmd=QV_RES_REQ;value=";
  text.resize(static_cast<size_t>(state.range(0)) - 1, 'v');
  return text + ";";
}

void BM_LanMedia(benchmark::State& state) {
  bench_send(state, 7, 1024, 0x40000, media(state));
}
void BM_WanMedia(benchmark::State& state) {
  bench_send(state, 0, 1030, 0x40000, media(state));
}
void BM_WanControl(benchmark::State& state) {
  bench_send(state, 0, 100, ARBOR_SEND_CONTROL, control(state));
}
void BM_LanControlCurrentPeer(benchmark::State& state) {
  bench_send(state, 7, 100, ARBOR_SEND_CONTROL, control(state));
}
void BM_LanControlOldPeer(benchmark::State& state) {
  bench_send(state, kOldPeer, 100, ARBOR_SEND_CONTROL, control(state));
}

BENCHMARK(BM_LanMedia)->Arg(188)->Arg(1400)->Arg(16384);
BENCHMARK(BM_WanMedia)->Arg(188)->Arg(1400)->Arg(16384);
BENCHMARK(BM_WanControl)->Arg(64)->Arg(1024)->Arg(16384);
BENCHMARK(BM_LanControlCurrentPeer)->Arg(64)->Arg(1024);
BENCHMARK(BM_LanControlOldPeer)->Arg(64)->Arg(1024);

}  // namespace
