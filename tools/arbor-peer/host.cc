// host.cc - arbor-peer as a host of the engine (host.h): signals, the
// engine's log, start and stop, the LAN side and its peers.
#include "host.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>

#include "arbor/observe.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "catalogue.h"
#include "demo_drivers.h"
#include "devices.h"
#ifdef ARBOR_PEER_HAVE_SAMPLE_DRIVERS
#include "sample_drivers.h"
#endif
#include "sessions.h"

namespace arbor_peer {

namespace {

// Error lines of the engine kept for explaining a failure.
constexpr size_t kKeptErrors = 16;
constexpr size_t kMaxPeersListed = 256;
constexpr size_t kPresenceTextMax = 2048;

struct LogState {
  std::mutex mutex;
  bool show = false;
  std::deque<std::string> errors;  // guarded by mutex
};

LogState& Log() {
  static LogState* state = new LogState;  // never destroyed: engine threads log until exit
  return *state;
}

// "2024-05-01 12:00:00.123456 L0 [4711] file.cc:80 Function: message" ->
// "message".
std::string MessageOf(const char* line, size_t length) {
  const std::string text(line, length);
  const size_t tid = text.find("] ");
  const size_t colon = tid == std::string::npos ? std::string::npos : text.find(": ", tid + 2);
  return colon == std::string::npos ? text : text.substr(colon + 2);
}

void LogSink(void*, int level, const char* line, size_t length) {
  LogState& state = Log();
  bool show = false;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    show = state.show;
    if (level == 0) {
      state.errors.push_back(MessageOf(line, length));
      if (state.errors.size() > kKeptErrors) state.errors.pop_front();
    }
  }
  if (show) std::fprintf(stderr, "%.*s\n", static_cast<int>(length), line);
}

// The first kept engine error that begins with prefix, without it; "".
std::string EngineErrorStarting(const std::string& prefix) {
  LogState& state = Log();
  std::lock_guard<std::mutex> lock(state.mutex);
  for (const std::string& line : state.errors)
    if (line.starts_with(prefix)) return line.substr(prefix.size());
  return "";
}

void ClearEngineErrors() {
  LogState& state = Log();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.errors.clear();
}

sigset_t StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// Why the LAN could not listen on lan.listen:lan.port, found by trying the
// same bind here; "" when this bind works (the cause lies elsewhere).
std::string ExplainListen(const LanConfig& lan) {
  sockaddr_storage address{};
  socklen_t size = 0;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
  if (inet_pton(AF_INET, lan.listen.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(lan.port));
    size = sizeof *v4;
  } else if (inet_pton(AF_INET6, lan.listen.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(lan.port));
    size = sizeof *v6;
  } else {
    return "--listen " + lan.listen +
           " is not an IP address; give one such as 127.0.0.1 (this host only) or 0.0.0.0";
  }
  const int fd = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return "";
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const int rc = bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  const int err = errno;
  close(fd);
  if (rc == 0) return "";
  const std::string where = lan.listen + ":" + std::to_string(lan.port);
  switch (err) {
    case EADDRINUSE:
      return "cannot listen on " + where +
             ": the port is in use; choose another with --port (0 picks a free one) or stop "
             "the program that holds it";
    case EADDRNOTAVAIL:
      return "cannot listen on " + where + ": " + lan.listen +
             " is not an address of this host; give one of its addresses to --listen";
    case EACCES:
      return "cannot listen on " + where +
             ": ports below 1024 need privileges; choose one above 1023 with --port";
    default:
      return "cannot listen on " + where + ": " + std::strerror(err);
  }
}

}  // namespace

int Error(const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "arbor-peer: %s\n", text.c_str());
  return kExitFailed;
}

void BlockSignals() {
  const sigset_t set = StopSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

int WaitSignal(int ms) {
  const sigset_t set = StopSignals();
  const timespec limit{ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
  const int taken = sigtimedwait(&set, nullptr, &limit);
  return taken > 0 ? taken : 0;
}

const char* SignalName(int signal) {
  return signal == SIGINT ? "SIGINT" : signal == SIGTERM ? "SIGTERM" : "signal";
}

void SetupLog(int level) {
  LogState& state = Log();
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    state.show = level >= 0;
  }
  LOG_SetSink(LogSink, nullptr);
  LOG_SetLevel(level >= 0 ? level : 0);
  demo_drivers_set_verbose(level >= 1 ? 1 : 0);
#ifdef ARBOR_PEER_HAVE_SAMPLE_DRIVERS
  sample_drivers_set_verbose(level >= 1 ? 1 : 0);
#endif
}

std::string LastEngineError() {
  LogState& state = Log();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.errors.empty() ? "" : state.errors.back();
}

void StartEngine(const std::string& peer_name) {
  SysInit(nullptr);
  RegisterAll();
  WatchSessions();
  ServeCatalogue(peer_name);
}

bool StartLan(const LanConfig& lan, std::string* error) {
  ClearEngineErrors();
  const std::string options = LanOptionText(lan);
  if (LanNetworking(1, reinterpret_cast<intptr_t>(options.c_str()), 0, 0) >= 0) return true;
  std::string why = EngineErrorStarting("InitLAN: ");
  const bool listen_problem = why.empty() || why.starts_with("cannot listen") ||
                              why.starts_with("listen=");
  if (listen_problem) {
    const std::string probed = ExplainListen(lan);
    if (!probed.empty()) why = probed;
  }
  if (why.empty()) why = "the LAN did not start (run again with --log-level 2 to see why)";
  *error = why;
  return false;
}

void Announce(const std::string& name) {
  std::string sources;
  for (const DeviceSpec& spec : Devices())
    if (spec.role == Role::kSource) sources += (sources.empty() ? "" : ",") + spec.name;
  const std::string text = "Name=" + name + ";Tool=arbor-peer;Sources=" + sources + ";";
  LanPresent(text.c_str(), static_cast<uint32_t>(text.size()));
}

void StopEngine() {
  SysExit();
  // The observer outlives SysExit, so the sessions the stop ended are heard;
  // clearing it delivers them before it returns.
  StopWatchingSessions();
}

std::vector<PeerView> ListPeers() {
  uint16_t ids[kMaxPeersListed];
  const int32_t known = arbor_net_peers(ids, static_cast<int32_t>(kMaxPeersListed));
  std::vector<PeerView> peers;
  for (int32_t i = 0; i < known && i < static_cast<int32_t>(kMaxPeersListed); ++i) {
    PeerView peer;
    peer.id = ids[i];
    if (arbor_net_peer_stats(peer.id, &peer.info) != 0) continue;  // gone meanwhile
    char text[kPresenceTextMax + 1] = "";
    if (arbor_net_peer_presence(peer.id, text, sizeof text) > 0) peer.presence = text;
    peer.name = DictValue(peer.presence, "Name");
    peers.push_back(std::move(peer));
  }
  return peers;
}

std::string PeerAddress(const PeerView& peer) {
  // Appended piece by piece: GCC 12 at -O3 reports a false -Wrestrict on
  // `":" + std::to_string(...)`.
  std::string address = peer.info.address;
  if (peer.info.listen_port != 0) address.append(":").append(std::to_string(peer.info.listen_port));
  return address;
}

std::string PeerLabel(const PeerView& peer) {
  std::string label = PeerAddress(peer);
  if (!peer.name.empty()) label.append(" (").append(peer.name).append(")");
  return label;
}

std::string DictValue(const std::string& text, const char* key) {
  if (text.empty()) return "";
  Dict dict = DictCreate(text.c_str(), static_cast<int32_t>(text.size()));
  if (dict == nullptr) return "";
  const char* value = DictGetStr(dict, key);
  std::string result = value != nullptr ? value : "";
  DictDestroy(dict);
  return result;
}

}  // namespace arbor_peer
