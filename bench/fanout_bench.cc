// The socket transport's fan-out against plain TCP: one source streams
// 63,488-byte chunks to N = 1, 4 and 8 peer processes over loopback, and in
// the same run one sender writes one 63,488-byte buffer to N loopback TCP
// connections, each read by a process of its own. Both figures are chunks
// per second that reached EVERY receiver (the slowest receiver's count over
// each window), and the ratio is the engine's over raw TCP's.
//
// The engine side: a serving peer (engine, libarbor-net, demo.source
// unpaced) and N receiving peers, each dialling "demo.source -> net. ->
// bench.count" on it by its loopback endpoint, so that the one source root
// feeds one LAN pipe node with N peers: one copy into the fan-out record,
// then one LANNetWrite per peer. "dropped" is the media frames the serving
// transport dropped over its byte budget during the windows, summed over
// peers: a high figure says the source outran the slowest peer.
//
// The two sides take turns. Both groups of processes are started, and
// stopped (SIGSTOP) at once; then kRounds rounds each continue one group,
// let it settle, count over a window and stop it again, raw TCP first in
// odd rounds and the engine first in even ones. A side's figure is its
// windows' counts over their summed length. On a shared machine whose speed
// drifts over seconds (other tenants, the host's own load), a drift then
// falls on both sides, where one window per side measured one after the
// other gave ratios that moved by a third from run to run.
//
// Google Benchmark, as the other programs here, but with one iteration per
// case and manual time: the work happens in other processes
// (arbor_bench_fanout_peer, every role in fanout_peer.cc), so the iteration
// is "start the processes, take the turns, stop them", and the reported
// time is the engine's windows. The framework still gives the machine's
// context (CPUs, load average) and --benchmark_repetitions=<n> with
// medians. Every child is killed and reaped when its case ends, however it
// ends (ChildProcess), and dies by itself if this program does.
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
// Streaming after a side is continued, before its window opens: its
// connections and queues pick up again.
const milliseconds kSettle{bench_scale(500, 50)};
// One measured window.
const milliseconds kWindow{bench_scale(1000, 100)};
// Windows per side.
const int kRounds = bench_scale(3, 1);
// How long a process may take to answer one question.
constexpr milliseconds kAnswerLimit{2000};

using Child = std::unique_ptr<ChildProcess>;

Child StartChild(std::vector<std::string> args) {
  args.insert(args.begin(), ARBOR_BENCH_FANOUT_PEER_PATH);
  return std::make_unique<ChildProcess>(args);
}

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

// The port in a "listening <port>" line, or 0.
int PortOf(const std::string& line) {
  return line.empty() ? 0 : std::atoi(line.c_str() + std::string("listening ").size());
}

// One side of the comparison: a sender and its receivers, streaming or
// stopped, and what its windows counted so far. Every child is killed and
// reaped with the side.
class Side {
 public:
  explicit Side(bool engine) : engine_(engine) {}

  // SIGKILL to every child at once, then each is reaped. Nothing of a case
  // is kept, so a polite stop would buy nothing; an engine that sees a
  // link drop before its own signal lands may still log a level-0 line or
  // two, which says nothing about the figures.
  ~Side() {
    for (const Child& child : receivers_) child->Signal();
    if (sender_) sender_->Signal();
    for (const Child& child : receivers_) child->Kill();
    if (sender_) sender_->Kill();
  }
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;

  // Starts the processes of n receivers and waits until every receiver
  // has data, then stops them all. false (with error()) when a process did
  // not come up.
  bool Start(int n) {
    sender_ = engine_ ? StartChild({"serve"}) : StartChild({"raw-send", std::to_string(n)});
    const int port = PortOf(sender_->WaitForLine("listening ", kStartLimit));
    if (port <= 0) return Failed("sender", *sender_);
    for (int i = 0; i < n; ++i)
      receivers_.push_back(StartChild({engine_ ? "receive" : "raw-receive", std::to_string(port)}));
    for (const Child& child : receivers_)
      if (child->WaitForLine(engine_ ? "receiving" : "connected", kStartLimit).empty())
        return Failed("receiver", *child);
    if (!engine_ && sender_->WaitForLine("sending", kStartLimit).empty())
      return Failed("sender", *sender_);
    Pause(true);
    return true;
  }

  // Continues the side, lets it settle, counts over one window and stops
  // it again. false (with error()) when a process did not answer.
  bool Window() {
    Pause(false);
    std::this_thread::sleep_for(kSettle);
    std::vector<uint64_t> before, after, frames, dropped_before, dropped_after;
    const auto opened = Clock::now();
    if (!Ask(Receivers(), "count", ++tag_, &before) ||
        (engine_ && !Ask({sender_.get()}, "stats", tag_, &frames, &dropped_before)))
      return Fail("no answer at a window's start");
    std::this_thread::sleep_for(kWindow);
    const auto closed = Clock::now();
    if (!Ask(Receivers(), "count", ++tag_, &after) ||
        (engine_ && !Ask({sender_.get()}, "stats", tag_, &frames, &dropped_after)))
      return Fail("no answer at a window's end");
    Pause(true);
    seconds_ += std::chrono::duration<double>(closed - opened).count();
    uint64_t slowest = std::numeric_limits<uint64_t>::max();
    for (size_t i = 0; i < after.size(); ++i) slowest = std::min(slowest, after[i] - before[i]);
    chunks_ += slowest;
    if (engine_) dropped_ += dropped_after[0] - dropped_before[0];
    return true;
  }

  const std::string& error() const { return error_; }
  double seconds() const { return seconds_; }
  double per_second() const { return seconds_ > 0 ? static_cast<double>(chunks_) / seconds_ : 0; }
  uint64_t dropped() const { return dropped_; }

 private:
  bool Failed(const char* step, const ChildProcess& child) {
    error_ = std::string(engine_ ? "engine " : "raw TCP ") + Failure(step, child);
    return false;
  }
  bool Fail(const char* what) {
    error_ = std::string(engine_ ? "engine: " : "raw TCP: ") + what;
    return false;
  }
  void Pause(bool paused) {
    sender_->Pause(paused);
    for (const Child& child : receivers_) child->Pause(paused);
  }
  std::vector<ChildProcess*> Receivers() const {
    std::vector<ChildProcess*> out;
    for (const Child& child : receivers_) out.push_back(child.get());
    return out;
  }

  const bool engine_;
  Child sender_;
  std::vector<Child> receivers_;
  std::string error_;
  int tag_ = 0;
  double seconds_ = 0;
  uint64_t chunks_ = 0;   // the slowest receiver's, summed over the windows
  uint64_t dropped_ = 0;  // engine only
};

// Both sides started, then kRounds turns of a window each: the raw side
// first in odd rounds, the engine first in even ones. "" or what failed.
std::string TakeTurns(int n, Side& raw, Side& engine) {
  if (!raw.Start(n)) return raw.error();
  if (!engine.Start(n)) return engine.error();
  for (int round = 1; round <= kRounds; ++round) {
    Side& first = round % 2 == 1 ? raw : engine;
    Side& second = round % 2 == 1 ? engine : raw;
    if (!first.Window()) return first.error();
    if (!second.Window()) return second.error();
  }
  return "";
}

void BM_FanOut(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  double engine_rate = 0, raw_rate = 0, engine_seconds = 0;
  uint64_t dropped = 0;
  for (auto _ : state) {
    Side raw(false), engine(true);
    const std::string error = TakeTurns(n, raw, engine);
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      return;
    }
    engine_rate = engine.per_second();
    raw_rate = raw.per_second();
    engine_seconds = engine.seconds();
    dropped = engine.dropped();
    state.SetIterationTime(engine_seconds);
  }
  state.counters["engine_chunks/s"] = engine_rate;
  state.counters["raw_tcp_chunks/s"] = raw_rate;
  state.counters["ratio"] = raw_rate > 0 ? engine_rate / raw_rate : 0;
  state.counters["dropped"] = static_cast<double>(dropped);
  state.counters["value"] = engine_rate;
  state.counters["anchor"] = raw_rate;
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
