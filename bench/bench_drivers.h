// bench_drivers.h - the three device classes the benchmark paths dial:
// complete cdef tables (bench_drivers.cc, slot by slot), registered by
// bench_drivers_register() and reached by the engine only through them.
//
//  bench.source  a source. The hop's option (opN) chooses how it runs:
//                  "run"   asks for a read thread; every Read copies one
//                          prepared chunk of kBenchChunk bytes into the
//                          engine's buffer at once (unpaced): the one copy a
//                          real source makes.
//                  "idle"  asks for a read thread; Read waits until the
//                          device is closed, then fails: a live session with
//                          nothing to carry.
//                  "fed"   asks for no read thread: the root is fed by
//                          whoever posts to it (nobody, in these benchmarks).
//                Anything else fails the Open.
//  bench.pass    a transform whose Convert copies its input whole into the
//                engine's output buffer: the one copy a transform makes.
//  bench.sink    counts the chunks and bytes it is given and touches
//                nothing else.
//
// Counters are process-wide and read with relaxed loads; the waits below
// block up to their limit and return whether the count was reached. Any
// thread may call them.
#ifndef ARBOR_BENCH_BENCH_DRIVERS_H
#define ARBOR_BENCH_BENCH_DRIVERS_H

#include <cstdint>

// The chunk bench.source hands out: what the engine's read buffer holds.
inline constexpr uint32_t kBenchChunk = 63488;

// Registers the three classes (SysRegisterDev), after SysInit.
void bench_drivers_register();

struct BenchTotals {
  uint64_t sink_writes, sink_bytes;
  uint64_t opens, closes;  // successful Opens and Closes, all classes
  uint64_t source_reads;   // chunks bench.source handed out ("run")
};
BenchTotals bench_totals();

// Blocks until bench.sink has had `writes` writes in all, or ms pass.
bool bench_wait_sink_writes(uint64_t writes, int ms);
// Blocks until `closes` Closes (all classes, in all) have happened.
bool bench_wait_closes(uint64_t closes, int ms);
// Blocks until `opens` Opens (all classes, in all) have happened.
bool bench_wait_opens(uint64_t opens, int ms);

#endif  // ARBOR_BENCH_BENCH_DRIVERS_H
