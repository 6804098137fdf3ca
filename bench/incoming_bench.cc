// The receiving road's throughput: media frames from a LAN peer enter by
// rsc_lan_data_incoming (one record, one queue copy), cross the command
// queue to its consumer, and Tree_inflate walks the far-side tree to a
// device sink. Each iteration hands in a batch of frames and waits until
// the sink has had the last one, so the figures are frames and bytes per
// second of the whole road, the queue hand-over included.
//
// The library runs for real (SysInit with the scripted transport); the tree
// is built by the SessionCreate a peer would send. Logging is at level 0.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "init/sys_state.h"
#include "sink_count.h"

namespace {

constexpr uint32_t kPeer = 5;
constexpr uint32_t kPipe = 1030;
constexpr uint64_t kBatch = 256;

int32_t sink_open(const char*, const char*, uint32_t* threading) {
  *threading = 0;
  return 1;
}
int32_t sink_close(int32_t) { return 0; }
int32_t sink_set_callback(DeviceCallback) { return 0; }

cdef make_sink() {
  cdef cls{};
  cls.SetCallback = sink_set_callback;
  cls.Retrieve = [] { return "bench.sink"; };
  cls.GetObjectInfo = [] { return "Type=bench;"; };
  cls.Open = sink_open;
  cls.Close = sink_close;
  cls.Write = sink_write;
  return cls;
}
cdef sink_class = make_sink();

void BM_LanMediaIncoming(benchmark::State& state) {
  LOG_SetLevel(0);
  SysInit(nullptr);
  sys_.lan_state = 0;
  SysRegisterDev(&sink_class);
  const std::string create =
      "MainCmd=SessionCreate;sidN=b1;ftN0=net.;FD0=" + std::to_string(kPipe) +
      ";ftN1=bench.sink;";
  asdispatch(get_lan_cdef(), kPeer, 100, create.data(),
             static_cast<uint32_t>(create.size()));
  const auto size = static_cast<uint32_t>(state.range(0));
  const std::string frame(size, 'f');
  count.writes = 0;
  for (auto _ : state) {
    count.target = count.writes.load() + kBatch;
    for (uint64_t i = 0; i < kBatch; ++i)
      rsc_lan_data_incoming(kPeer, kPipe, QVTP_RTP, frame.data(), size);
    count.wait_for_target();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kBatch));
  state.SetBytesProcessed(
      static_cast<int64_t>(state.iterations() * kBatch * size));
  SysExit();
}
BENCHMARK(BM_LanMediaIncoming)->Arg(188)->Arg(1400)->Arg(16384)->UseRealTime();

}  // namespace
