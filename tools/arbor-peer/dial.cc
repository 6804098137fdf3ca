// dial.cc - `arbor-peer dial`: finds a peer (by presence name or endpoint),
// checks the chain against what both sides offer, dials it, streams into a
// local sink with one progress line, hangs up and prints a summary.
//
// How the dial learns how its session goes: the chunks its sink takes (the
// named device's counters), the engine's session observer (begin, end,
// fail of the sid on this side), and the serving peer's notices under the
// dial's AS code (RUN_FAIL, SessionDelete, with the reason in coz), which
// say why the far side gave up when this side holds no tree yet.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <random>

#include "arbor/asc.h"
#include "arbor/net.h"
#include "arbor/observe.h"
#include "arbor/rsc.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "catalogue.h"
#include "commands.h"
#include "devices.h"
#include "host.h"
#include "sessions.h"

namespace arbor_peer {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTickMs = 100;
constexpr auto kProgressEvery = std::chrono::milliseconds(250);
constexpr auto kRateWindow = std::chrono::seconds(1);
constexpr int kCatalogueWaitMs = 3000;
constexpr auto kCloseWait = std::chrono::seconds(5);
// A link to the serving peer that stays down this long ends the dial.
constexpr auto kLinkLoss = std::chrono::seconds(2);
// The engine encodes a dial with its own keys into 1024 bytes.
constexpr int32_t kDialTextMax = 900;
constexpr size_t kMaxNotices = 64;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// --------------------------------------------------- The peer's notices

struct Notice {
  std::string command, sid, reason;
};

struct Notices {
  std::mutex mutex;
  std::vector<Notice> list;  // guarded by mutex
};

Notices& TheNotices() {
  static Notices* notices = new Notices;  // the handler may run until SysExit returns
  return *notices;
}

// Session notices the serving peer sends under the dial's code. Returns 0,
// so the engine's own handler acts on them as well.
int32_t OnDialNotice(uint32_t, uint32_t size, const char* data) {
  if (data == nullptr || size == 0) return 0;
  const std::string text(data, size);
  const std::string command = DictValue(text, "MainCmd");
  if (command != "RUN_FAIL" && command != "SessionDelete") return 0;
  Notices& notices = TheNotices();
  std::lock_guard<std::mutex> lock(notices.mutex);
  if (notices.list.size() < kMaxNotices)
    notices.list.push_back({command, DictValue(text, "sidN"), DictValue(text, "coz")});
  return 0;
}

std::vector<Notice> TakeNotices() {
  Notices& notices = TheNotices();
  std::lock_guard<std::mutex> lock(notices.mutex);
  std::vector<Notice> taken;
  taken.swap(notices.list);
  return taken;
}

// ------------------------------------------------------ Finding the peer

// The peer's id once its link is up, or 0 with *error (or *signal set).
uint16_t ConnectEndpoint(const Endpoint& to, double wait, std::string* error, int* signal) {
  const int16_t id = SysAddLanEP(reinterpret_cast<intptr_t>(to.host.c_str()), to.port, 0, 0);
  const std::string where = to.host + ":" + std::to_string(to.port);
  if (id <= 0) {
    *error = "cannot add the peer " + where + ": " + LastEngineError();
    return 0;
  }
  const auto end = Clock::now() + std::chrono::duration<double>(wait);
  while (Clock::now() < end) {
    arbor_net_peer_info info{};
    if (arbor_net_peer_stats(static_cast<uint16_t>(id), &info) == 0 && info.link_up)
      return static_cast<uint16_t>(id);
    if ((*signal = WaitSignal(kTickMs / 2)) != 0) return 0;
  }
  *error = "could not connect to " + where + " within " + std::to_string(static_cast<int>(wait)) +
           " s; is `arbor-peer serve --port " + std::to_string(to.port) +
           "` running there, and reachable?";
  return 0;
}

uint16_t FindByName(const std::string& name, const LanConfig& lan, double wait,
                    std::string* error, int* signal) {
  const auto end = Clock::now() + std::chrono::duration<double>(wait);
  std::string heard;
  bool named_but_down = false;
  while (Clock::now() < end) {
    heard.clear();
    for (const PeerView& peer : ListPeers()) {
      if (!peer.name.empty()) heard += (heard.empty() ? "" : ", ") + peer.name;
      if (peer.name != name) continue;
      if (peer.info.link_up) return peer.id;
      named_but_down = true;
    }
    if ((*signal = WaitSignal(kTickMs / 2)) != 0) return 0;
  }
  const std::string secs = std::to_string(static_cast<int>(wait));
  if (named_but_down)
    *error = "heard peer \"" + name + "\" but could not connect to it within " + secs +
             " s; check that its port is reachable from here";
  else
    *error = "no peer named \"" + name + "\" heard by presence on " + lan.presence_interface +
             " within " + secs + " s (heard: " + (heard.empty() ? "none" : heard) +
             "); check its --name, and that both sides share the network and --presence-port";
  return 0;
}

// ------------------------------------------------------- Checking hops

// Every hop after the network hop must be a device of this side, every hop
// before it one of the peer's (when the peer said what it has).
bool CheckHops(const std::vector<Hop>& hops, const Catalogue* remote, const std::string& peer,
               std::string* error) {
  bool local = false;
  for (const Hop& hop : hops) {
    if (hop.net) {
      local = true;
      continue;
    }
    if (local && FindDevice(hop.name) == nullptr) {
      std::string mine;
      for (const DeviceSpec& spec : Devices()) mine += (mine.empty() ? "" : ", ") + spec.name;
      *error = "no device \"" + hop.name + "\" on this side of the chain (after \"net\"); this "
               "side has: " + mine + "; fix --chain or add it with --sink " + hop.name + "=null";
      return false;
    }
    if (!local && remote != nullptr && remote->KindOf(hop.name).empty()) {
      *error = "peer " + peer + " has no device \"" + hop.name + "\"; it offers: " +
               remote->Names() + "; fix --chain";
      return false;
    }
  }
  return true;
}

// The dial text for the chain on peer, or "" when it does not fit.
std::string DialText(uint16_t peer, const std::vector<Hop>& hops) {
  Dict dict = DictCreate(nullptr, 0);
  if (dict == nullptr) return "";
  DictSetInt(dict, "id", peer);
  for (size_t i = 0; i < hops.size(); ++i) {
    DictSetStr(dict, ("ftN" + std::to_string(i)).c_str(), hops[i].name.c_str());
    if (!hops[i].option.empty())
      DictSetStr(dict, ("opN" + std::to_string(i)).c_str(), hops[i].option.c_str());
  }
  char buffer[kDialTextMax];
  const int32_t length = DictEncode(buffer, sizeof buffer, dict);
  DictDestroy(dict);
  return length > 0 ? std::string(buffer, static_cast<size_t>(length)) : "";
}

// A session id of this process's own. The engine's sids come from the time
// in seconds and a counter that starts alike in every process, so two
// dialling processes on one host would share a sid within a second, and the
// serving peer, which knows a session by its sid, would end both at the
// first hang-up.
std::string NewSid() {
  static constexpr char kChars[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  std::random_device random;
  std::uniform_int_distribution<size_t> pick(0, sizeof kChars - 2);
  std::string sid;
  for (int i = 0; i < 16; ++i) sid += kChars[pick(random)];
  return sid;
}

// ------------------------------------------------------------ Reporting

std::string Rate(double bytes_per_second) {
  char text[32];
  if (bytes_per_second >= 1e6)
    std::snprintf(text, sizeof text, "%.2f MB/s", bytes_per_second / 1e6);
  else
    std::snprintf(text, sizeof text, "%.1f kB/s", bytes_per_second / 1e3);
  return text;
}

struct Sample {
  Clock::time_point when;
  uint64_t chunks = 0, bytes = 0;
};

void ShowProgress(double elapsed, const Sample& then, const Sample& now, const SinkCounters& c,
                  bool stamped) {
  const double dt = Seconds(now.when - then.when);
  const double chunk_rate = dt > 0 ? static_cast<double>(now.chunks - then.chunks) / dt : 0;
  const double byte_rate = dt > 0 ? static_cast<double>(now.bytes - then.bytes) / dt : 0;
  char line[256];
  int n = std::snprintf(line, sizeof line, "\r%6.1f s  %7.1f chunks/s  %12s  %llu chunks", elapsed,
                        chunk_rate, Rate(byte_rate).c_str(),
                        static_cast<unsigned long long>(c.chunks));
  if (stamped && n > 0 && static_cast<size_t>(n) < sizeof line) {
    const double mean_ms =
        c.stamped ? static_cast<double>(c.latency_sum_ns) / static_cast<double>(c.stamped) / 1e6 : 0;
    std::snprintf(line + n, sizeof line - static_cast<size_t>(n),
                  "  drops %llu  latency %.2f ms", static_cast<unsigned long long>(c.gaps), mean_ms);
  }
  std::fprintf(stderr, "%s\033[K", line);
  std::fflush(stderr);
}

struct Result {
  bool failed = false;
  std::string reason;  // why it failed, or how it ended
  double streamed = 0;
};

void PrintSummary(const std::string& chain, const std::string& peer, const SinkCounters& c,
                  bool stamped, const Result& r) {
  std::printf("summary: %s from %s\n", chain.c_str(), peer.c_str());
  std::printf("  result    %s%s\n", r.failed ? "FAILED: " : "ok, ", r.reason.c_str());
  std::printf("  streamed  %.2f s\n", r.streamed);
  std::printf("  chunks    %llu\n", static_cast<unsigned long long>(c.chunks));
  std::printf("  bytes     %llu\n", static_cast<unsigned long long>(c.bytes));
  if (r.streamed > 0 && c.chunks > 1) {
    // From the first chunk to the last: chunks - 1 intervals.
    const double per_second = static_cast<double>(c.chunks - 1) / r.streamed;
    std::printf("  rate      %.1f chunks/s, %s\n", per_second,
                Rate(per_second * static_cast<double>(c.bytes) / static_cast<double>(c.chunks))
                    .c_str());
  }
  if (stamped) {
    std::printf("  drops     %llu\n", static_cast<unsigned long long>(c.gaps));
    std::printf("  reordered %llu\n", static_cast<unsigned long long>(c.out_of_order));
    if (c.stamped != 0)
      std::printf("  latency   mean %.3f ms, max %.3f ms\n",
                  static_cast<double>(c.latency_sum_ns) / static_cast<double>(c.stamped) / 1e6,
                  static_cast<double>(c.latency_max_ns) / 1e6);
  } else {
    std::printf("  drops     unknown (the source stamps no sequence)\n");
  }
  std::fflush(stdout);
}

}  // namespace

int RunDial(const DialOptions& options) {
  std::string error;
  std::vector<Hop> hops;
  if (!ParseChain(options.chain, &hops, &error)) {
    Error(error);
    return kExitUsage;
  }
  Endpoint to;
  if (!options.to.empty() && !ParseEndpoint(options.to, &to, &error)) {
    Error(error);
    return kExitUsage;
  }
  std::vector<DeviceSpec> sinks = options.sinks;
  if (sinks.empty()) sinks.push_back(DeviceSpec{Role::kSink, "null", "null", ""});
  for (const DeviceSpec& spec : sinks)
    if (!AddDevice(spec, &error)) return Error(error);
  if (!CheckHops(hops, nullptr, "", &error)) return Error(error);
  const std::string chain = ChainText(hops);
  const std::string sink = hops.back().name;

  StartEngine(options.name);
  SysRegistASLan(kDialAsc, nullptr, reinterpret_cast<AsHandler>(OnDialNotice));
  if (!StartLan(options.lan, &error)) {
    StopEngine();
    return Error(error);
  }

  // The peer.
  int signal = 0;
  const uint16_t peer = options.peer_name.empty()
                            ? ConnectEndpoint(to, options.wait, &error, &signal)
                            : FindByName(options.peer_name, options.lan, options.wait, &error,
                                         &signal);
  if (peer == 0) {
    StopEngine();
    return Error(signal != 0 ? std::string("interrupted (") + SignalName(signal) +
                                   ") before the peer was found"
                             : error);
  }
  std::string label = options.to;
  for (const PeerView& p : ListPeers())
    if (p.id == peer) label = PeerLabel(p);

  // What the peer offers, when it says; the chain is checked against it.
  Catalogue remote;
  const bool known = AskCatalogue(peer, kCatalogueWaitMs, &remote);
  if (known && !remote.name.empty() && label.find(" (") == std::string::npos)
    label += " (" + remote.name + ")";
  if (!CheckHops(hops, known ? &remote : nullptr, label, &error)) {
    StopEngine();
    return Error(error);
  }
  const bool stamped = known && remote.KindOf(hops.front().name) == "demo";
  CheckStamps(sink, stamped);

  const std::string text = DialText(peer, hops);
  if (text.empty()) {
    StopEngine();
    return Error("the chain is too long for one dial; shorten its names or options");
  }
  const std::string sid = NewSid();
  if (ExecDial(kDialAsc, sid.c_str(), text.c_str()) < 0) {
    StopEngine();
    return Error("the engine refused the dial of \"" + chain + "\" (" + LastEngineError() + ")");
  }
  std::printf("dialled %s on %s: session %s\n", chain.c_str(), label.c_str(), sid.c_str());
  std::fflush(stdout);

  // Stream until the time is up, a signal comes, or the session ends.
  const bool progress = options.progress && isatty(STDERR_FILENO);
  const auto dialled = Clock::now();
  Clock::time_point first{}, last_progress{}, link_down_since{};
  Sample window_start{dialled, 0, 0};
  Result result;
  bool running = true, began = false, peer_ended = false;
  while (running) {
    signal = WaitSignal(kTickMs);
    const auto now = Clock::now();
    const SinkCounters c = Counters(sink);
    if (!began && c.chunks > 0) {
      began = true;
      first = now;
      window_start = Sample{now, c.chunks, c.bytes};
    }
    // The peer's own notice says best why it gave up; this side's observer
    // tells what remains (a sink that could not be opened here).
    for (const Notice& n : TakeNotices()) {
      if (n.sid != sid || peer_ended) continue;
      result = Result{true, n.command == "RUN_FAIL"
                                ? "the peer could not set the session up: \"" + n.reason +
                                      "\"; check the names and options of the chain's hops "
                                      "on that peer"
                                : "the peer ended the session: \"" + n.reason + "\""};
      peer_ended = true;
    }
    for (const SessionEvent& e : TakeSessionEvents()) {
      if (e.sid != sid || e.kind == ARBOR_SESSION_BEGIN || peer_ended) continue;
      result = Result{true, std::string(e.kind == ARBOR_SESSION_FAIL ? "the session could not "
                                                                       "be set up here: "
                                                                     : "the session ended: ") +
                                "\"" + e.reason + "\""};
      peer_ended = true;
    }
    arbor_net_peer_info info{};
    const bool up = arbor_net_peer_stats(peer, &info) == 0 && info.link_up;
    if (up) link_down_since = {};
    else if (link_down_since == Clock::time_point{}) link_down_since = now;
    if (!up && now - link_down_since >= kLinkLoss && !peer_ended) {
      result = Result{true, "lost the link to " + label};
      peer_ended = true;
    }
    if (peer_ended) {
      running = false;
    } else if (signal != 0) {
      result = Result{false, std::string("interrupted (") + SignalName(signal) + ")"};
      running = false;
    } else if (!began && now - dialled >= std::chrono::duration<double>(options.setup)) {
      result = Result{true, "nothing arrived within " +
                                std::to_string(static_cast<int>(options.setup)) +
                                " s of the dial; check that the source works on " + label +
                                " (serve with --log-level 2 shows why)"};
      running = false;
    } else if (began && options.seconds > 0 &&
               now - first >= std::chrono::duration<double>(options.seconds)) {
      result = Result{false, "streamed for the time asked"};
      running = false;
    }
    if (progress && began && (now - last_progress >= kProgressEvery || !running)) {
      const Sample sample{now, c.chunks, c.bytes};
      ShowProgress(Seconds(now - first), window_start, sample, c, stamped);
      if (now - window_start.when >= kRateWindow) window_start = sample;
      last_progress = now;
    }
  }
  if (progress && began) std::fprintf(stderr, "\n");

  // Hang up (a session already gone makes this a no-op) and let the sink
  // close.
  RSCHangup(0, sid.c_str());
  const auto close_by = Clock::now() + kCloseWait;
  while (OpenDevices() != 0 && Clock::now() < close_by) WaitSignal(kTickMs / 5);
  StopEngine();

  const SinkCounters totals = Counters(sink);
  result.streamed = static_cast<double>(totals.last_ns - totals.first_ns) / 1e9;
  if (!result.failed && totals.chunks == 0) {
    result.failed = true;
    result.reason = "nothing arrived";
  }
  PrintSummary(chain, label, totals, stamped, result);
  if (result.failed) return Error("dial failed: " + result.reason);
  return kExitOk;
}

}  // namespace arbor_peer
