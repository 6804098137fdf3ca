// The socket transport's fan-out against plain TCP: one source streams
// 63,488-byte chunks to N = 1, 4 and 8 peer processes over loopback, and in
// the same run one sender writes one 63,488-byte buffer to N loopback TCP
// connections, each read by a process of its own. Both figures are chunks
// per second that reached EVERY receiver (the slowest receiver's count over
// the window), and the ratio is the engine's over raw TCP's.
//
// The engine side: a serving peer (engine, libarbor-net, demo.source
// unpaced) and N receiving peers, each dialling "demo.source -> net. ->
// bench.count" on it by its loopback endpoint, so that the one source root
// feeds one LAN pipe node with N peers: one copy into the fan-out record,
// then one LANNetWrite per peer. "dropped" is the media frames the serving
// transport dropped over its byte budget during the window, summed over
// peers: a high figure says the source outran the slowest peer.
//
// Google Benchmark, as the other programs here, but with one iteration per
// case and manual time: the work happens in other processes
// (arbor_bench_fanout_peer, every role in fanout_peer.cc), so the iteration
// is "start the processes, warm up, count over a fixed window, stop them",
// and the reported time is the window. The framework still gives the
// machine's context (CPUs, load average) and --benchmark_repetitions=<n>
// with medians. Every child is killed and reaped when its case ends, however
// it ends (ChildProcess), and dies by itself if this program does.
//
// Counters: "value" is the engine's chunks per second, "anchor" raw TCP's,
// both from the same case, so scripts/bench.sh pairs them per repetition.
#include <benchmark/benchmark.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "bench_common.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// How long a process may take to start and reach its first chunk or link.
constexpr milliseconds kStartLimit{20000};
// Streaming before the window opens: connections and queues settle.
const milliseconds kWarmup{bench_scale(1000, 100)};
// The measured window.
const milliseconds kWindow{bench_scale(3000, 200)};
// How long a process may take to answer one question.
constexpr milliseconds kAnswerLimit{2000};

using Child = std::unique_ptr<ChildProcess>;

Child Start(std::vector<std::string> args) {
  args.insert(args.begin(), ARBOR_BENCH_FANOUT_PEER_PATH);
  return std::make_unique<ChildProcess>(args);
}

// What one side did in the window. error is empty when it was measured.
struct Window {
  double seconds = 0;
  double per_second = 0;  // chunks that reached every receiver
  uint64_t dropped = 0;   // the engine's media frames dropped over the budget
  std::string error;
};

std::string Failure(const char* step, const ChildProcess& child) {
  return std::string(step) + ": " + child.Output();
}

// Asks each child "<verb> <tag>" (all first, then reads the answers, so
// they are taken as close together as the children answer) and returns the
// first number of each answer in *first and the second in *second (when
// asked). false when a child did not answer in time.
bool Ask(const std::vector<ChildProcess*>& children, const char* verb, int tag,
         std::vector<uint64_t>* first, std::vector<uint64_t>* second = nullptr) {
  const std::string question = std::string(verb) + " " + std::to_string(tag);
  for (ChildProcess* child : children) child->Send(question);
  for (ChildProcess* child : children) {
    const std::string line = child->WaitForLine(question + " ", kAnswerLimit);
    if (line.empty()) return false;
    std::istringstream numbers(line.substr(question.size() + 1));
    uint64_t a = 0, b = 0;
    numbers >> a >> b;
    first->push_back(a);
    if (second != nullptr) second->push_back(b);
  }
  return true;
}

// Streams for kWarmup, then counts over kWindow: the slowest receiver's
// chunks per second, and what the server (when given) dropped meanwhile.
Window Measure(const std::vector<ChildProcess*>& receivers, ChildProcess* server) {
  Window w;
  std::this_thread::sleep_for(kWarmup);
  std::vector<uint64_t> before, after, frames_before, frames_after, dropped_before,
      dropped_after;
  const auto opened = Clock::now();
  if (!Ask(receivers, "count", 1, &before) ||
      (server != nullptr && !Ask({server}, "stats", 1, &frames_before, &dropped_before))) {
    w.error = "no answer at the window's start";
    return w;
  }
  std::this_thread::sleep_for(kWindow);
  const auto closed = Clock::now();
  if (!Ask(receivers, "count", 2, &after) ||
      (server != nullptr && !Ask({server}, "stats", 2, &frames_after, &dropped_after))) {
    w.error = "no answer at the window's end";
    return w;
  }
  w.seconds = std::chrono::duration<double>(closed - opened).count();
  uint64_t slowest = std::numeric_limits<uint64_t>::max();
  for (size_t i = 0; i < receivers.size(); ++i) slowest = std::min(slowest, after[i] - before[i]);
  w.per_second = static_cast<double>(slowest) / w.seconds;
  if (server != nullptr) w.dropped = dropped_after[0] - dropped_before[0];
  return w;
}

// Ends a case: SIGKILL to every child at once, then each is reaped.
// Nothing of a case is kept, so a polite stop would buy nothing; an engine
// that sees a link drop before its own signal lands may still log a
// level-0 line or two, which says nothing about the figures.
void Stop(std::vector<Child>& receivers, Child& sender) {
  for (const Child& child : receivers) child->Signal();
  sender->Signal();
  for (Child& child : receivers) child->Kill();
  sender->Kill();
}

std::vector<ChildProcess*> Pointers(const std::vector<Child>& children) {
  std::vector<ChildProcess*> out;
  for (const Child& child : children) out.push_back(child.get());
  return out;
}

// The port in a "listening <port>" line, or 0.
int PortOf(const std::string& line) {
  return line.empty() ? 0 : std::atoi(line.c_str() + std::string("listening ").size());
}

Window MeasureEngine(int n) {
  Child server = Start({"serve"});
  const int port = PortOf(server->WaitForLine("listening ", kStartLimit));
  if (port <= 0) return {.error = Failure("serving peer", *server)};
  std::vector<Child> receivers;
  for (int i = 0; i < n; ++i) receivers.push_back(Start({"receive", std::to_string(port)}));
  Window w;
  for (Child& child : receivers)
    if (child->WaitForLine("receiving", kStartLimit).empty())
      w.error = Failure("receiving peer", *child);
  if (w.error.empty()) w = Measure(Pointers(receivers), server.get());
  Stop(receivers, server);
  return w;
}

Window MeasureRaw(int n) {
  Child sender = Start({"raw-send", std::to_string(n)});
  const int port = PortOf(sender->WaitForLine("listening ", kStartLimit));
  if (port <= 0) return {.error = Failure("raw sender", *sender)};
  std::vector<Child> receivers;
  for (int i = 0; i < n; ++i) receivers.push_back(Start({"raw-receive", std::to_string(port)}));
  Window w;
  for (Child& child : receivers)
    if (child->WaitForLine("connected", kStartLimit).empty())
      w.error = Failure("raw receiver", *child);
  if (w.error.empty() && sender->WaitForLine("sending", kStartLimit).empty())
    w.error = Failure("raw sender", *sender);
  if (w.error.empty()) w = Measure(Pointers(receivers), nullptr);
  Stop(receivers, sender);
  return w;
}

void BM_FanOut(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Window raw, engine;
  for (auto _ : state) {
    raw = MeasureRaw(n);
    if (raw.error.empty()) engine = MeasureEngine(n);
    const std::string& error = raw.error.empty() ? engine.error : raw.error;
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      return;
    }
    state.SetIterationTime(engine.seconds);
  }
  state.counters["engine_chunks/s"] = engine.per_second;
  state.counters["raw_tcp_chunks/s"] = raw.per_second;
  state.counters["ratio"] = raw.per_second > 0 ? engine.per_second / raw.per_second : 0;
  state.counters["dropped"] = static_cast<double>(engine.dropped);
  state.counters["value"] = engine.per_second;
  state.counters["anchor"] = raw.per_second;
}

BENCHMARK(BM_FanOut)
    ->ArgName("peers")
    ->Arg(1)
    ->Arg(4)
    ->Arg(8)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
