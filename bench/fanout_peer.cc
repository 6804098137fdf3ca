// arbor_bench_fanout_peer - the processes that the fan-out benchmark
// (fanout_bench.cc) starts: the engine's serving peer and its receiving
// peers, and the raw TCP sender and receivers it is measured against. One
// role per process, driven by lines on standard input, answering on
// standard output. All traffic is on 127.0.0.1.
//
//   serve              the engine, libarbor-net and demo.source; the LAN on
//                      127.0.0.1, a free port. Prints "listening <port>".
//                      "stats <tag>" prints "stats <tag> <frames-out>
//                      <media-dropped>", summed over its peers.
//   receive <port>     the engine, libarbor-net and a counting sink; adds
//                      the peer 127.0.0.1:<port>, dials "demo.source -> net.
//                      -> bench.count" on it with the source unpaced
//                      (kSourceOption), prints "receiving" once the first
//                      chunk has arrived. "count <tag>" prints
//                      "count <tag> <chunks>".
//   raw-send <n>       listens on 127.0.0.1, a free port; prints "listening
//                      <port>", accepts n connections, prints "sending",
//                      then writes one 63,488-byte buffer to each
//                      connection in turn (blocking writes), round after
//                      round.
//   raw-receive <port> connects to 127.0.0.1:<port>, reads and discards,
//                      prints "connected". "count <tag>" prints "count <tag>
//                      <whole chunks read>".
//
// Every role stops at "quit" or at the end of its input, exits with status
// 0, or 1 after a line "FAILED: <step>". Whatever the benchmark does, a
// role also dies with its parent (PR_SET_PDEATHSIG) and at the latest after
// kLifetime (alarm), so nothing it starts outlives a run.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "arbor/cdef.h"
#include "arbor/device_class.h"
#include "arbor/net.h"
#include "arbor/rsc.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "demo_drivers.h"

namespace {

// The chunk the benchmark carries: what the engine's read buffer holds.
constexpr uint32_t kChunk = DEMO_MAX_CHUNK;
// demo.source's option: the highest rate it accepts, so that it never
// sleeps at this chunk size, and whole chunks.
constexpr const char* kSourceOption = "100000/63488";
// The most a process lives, whatever its parent does: longer than one
// benchmark case (start, warm-up, window, stop) takes.
constexpr unsigned kLifetimeSeconds = 120;
// How long one step (a link, a connection, the first chunk) may take.
constexpr auto kStepLimit = std::chrono::seconds(20);
// The AS code the receiving peer dials with.
constexpr int32_t kDialAsc = 200;
// Most peers summed up by "stats"; the benchmark uses at most 8.
constexpr int32_t kMaxPeers = 64;
constexpr const char* kLoopback = "127.0.0.1";

int Fail(const char* step) {
  std::printf("FAILED: %s\n", step);
  std::fflush(stdout);
  return 1;
}

// Polls cond every millisecond up to kStepLimit; true when it held.
template <typename Cond>
bool WaitFor(Cond cond) {
  const auto end = std::chrono::steady_clock::now() + kStepLimit;
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Answers the parent's lines until "quit" or end of input: each line whose
// first word is `verb` gets answer(tag) printed as "<verb> <tag> <answer>".
template <typename Answer>
void Serve(const char* verb, Answer answer) {
  const std::string prefix = std::string(verb) + " ";
  for (std::string line; std::getline(std::cin, line) && line != "quit";) {
    if (line.rfind(prefix, 0) != 0) continue;
    const std::string tag = line.substr(prefix.size());
    std::printf("%s %s %s\n", verb, tag.c_str(), answer().c_str());
    std::fflush(stdout);
  }
}

// ------------------------------------------------------------ the engine

// bench.count: a sink that only counts what it is given, so that the
// receiving side costs what the engine and the transport cost.
std::atomic<uint64_t> counted{0};
std::atomic<int32_t> count_next_xfd{1};

int32_t count_set_callback(DeviceCallback) { return 0; }
const char* count_retrieve() { return "bench.count"; }
const char* count_object_info() { return "Type=bench;Role=sink;"; }
int32_t count_open(const char*, const char*, uint32_t*) { return count_next_xfd++; }
int32_t count_close(int32_t) { return 0; }
int32_t count_do_event(const char*, int32_t, const char*) { return 0; }
int32_t count_write(int32_t, const void*, uint32_t size, uint32_t) {
  counted.fetch_add(1, std::memory_order_relaxed);
  return static_cast<int32_t>(size);
}

cdef count_class = {
    .Reserved = nullptr,
    .SetCallback = count_set_callback,
    .Retrieve = count_retrieve,
    .GetObjectInfo = count_object_info,
    .Open = count_open,
    .Close = count_close,
    .DoEvent = count_do_event,
    .Write = count_write,
    .Read = nullptr,
    .Convert = nullptr,
};

int LanOn() {
  static const char kOptions[] = "listen=127.0.0.1;";
  return LanNetworking(1, reinterpret_cast<intptr_t>(kOptions), 0, 0);
}

// The serving side's transport counters, summed over its peers.
std::string ServerStats() {
  uint16_t ids[kMaxPeers];
  const int32_t n = arbor_net_peers(ids, kMaxPeers);
  uint64_t frames = 0, dropped = 0;
  for (int32_t i = 0; i < n && i < kMaxPeers; ++i) {
    arbor_net_peer_info info{};
    if (arbor_net_peer_stats(ids[i], &info) != 0) continue;
    frames += info.frames_out;
    dropped += info.media_dropped;
  }
  return std::to_string(frames) + " " + std::to_string(dropped);
}

int RunServe() {
  demo_drivers_set_verbose(0);
  SysInit(nullptr);
  SysRegisterDev(demo_source_class());
  if (LanOn() < 0) return Fail("LanNetworking");
  std::printf("listening %d\n", arbor_net_lan_port());
  std::fflush(stdout);
  Serve("stats", ServerStats);
  SysExit();
  return 0;
}

int RunReceive(int port) {
  SysInit(nullptr);
  SysRegisterDev(&count_class);
  if (LanOn() < 0) return Fail("LanNetworking");
  const int16_t peer = SysAddLanEP(reinterpret_cast<intptr_t>(kLoopback), port, 0, 0);
  if (peer <= 0) return Fail("SysAddLanEP");
  const bool up = WaitFor([peer] {
    arbor_net_peer_info info{};
    return arbor_net_peer_stats(static_cast<uint16_t>(peer), &info) == 0 &&
           info.link_up != 0;
  });
  if (!up) return Fail("link to the serving peer");
  char dial[256];
  std::snprintf(dial, sizeof dial,
                "id=%d;ftN0=demo.source;opN0=%s;ftN1=net.;ftN2=bench.count;", peer,
                kSourceOption);
  char sid[RSC_SID_SLOT] = "";
  RSCDial(kDialAsc, sid, dial, static_cast<const char*>(nullptr));
  if (sid[0] == '\0') return Fail("RSCDial");
  if (!WaitFor([] { return counted.load() > 0; })) return Fail("first chunk");
  std::printf("receiving\n");
  std::fflush(stdout);
  Serve("count", [] { return std::to_string(counted.load(std::memory_order_relaxed)); });
  SysExit();
  return 0;
}

// ------------------------------------------------------------ raw TCP

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Writes all of data to fd, blocking. false when the connection failed or
// was shut down.
bool SendAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) {
      if (n < 0 && errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

int RunRawSend(int n) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener, n) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    return Fail("listen");
  std::printf("listening %d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  std::vector<int> peers;
  const auto end = std::chrono::steady_clock::now() + kStepLimit;
  while (static_cast<int>(peers.size()) < n) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    pollfd ready{listener, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0)
      return Fail("accept");
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) peers.push_back(fd);
  }
  ::close(listener);
  std::printf("sending\n");
  std::fflush(stdout);

  // One buffer for every connection and every round, as the engine's read
  // buffer is one for every peer.
  std::vector<uint8_t> chunk(kChunk, 0x5a);
  std::thread sender([&peers, &chunk] {
    for (;;)
      for (const int fd : peers)
        if (!SendAll(fd, chunk.data(), chunk.size())) return;
  });
  for (std::string line; std::getline(std::cin, line) && line != "quit";) {
  }
  for (const int fd : peers) ::shutdown(fd, SHUT_RDWR);  // ends a blocked send
  sender.join();
  for (const int fd : peers) ::close(fd);
  return 0;
}

int RunRawReceive(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(port);
  if (fd < 0 ||
      ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return Fail("connect");
  std::printf("connected\n");
  std::fflush(stdout);
  std::atomic<uint64_t> bytes{0};
  // Reads as the transport does: into one buffer of a frame's greatest size.
  std::thread reader([fd, &bytes] {
    std::vector<uint8_t> buffer(12 + 65535);
    for (;;) {
      const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      bytes.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
    }
  });
  Serve("count", [&bytes] {
    return std::to_string(bytes.load(std::memory_order_relaxed) / kChunk);
  });
  ::shutdown(fd, SHUT_RDWR);  // ends a blocked recv
  reader.join();
  ::close(fd);
  return 0;
}

// Dies with the parent and after kLifetimeSeconds in any case.
void BoundLifetime() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() == 1) _exit(1);  // the parent went before prctl took effect
  alarm(kLifetimeSeconds);        // SIGALRM's default action ends the process
}

}  // namespace

int main(int argc, char** argv) {
  BoundLifetime();
  setvbuf(stdout, nullptr, _IOLBF, 0);
  const std::string role = argc > 1 ? argv[1] : "";
  const int number = argc > 2 ? std::atoi(argv[2]) : 0;
  if (role == "serve" && argc == 2) return RunServe();
  if (role == "receive" && argc == 3 && number > 0) return RunReceive(number);
  if (role == "raw-send" && argc == 3 && number > 0) return RunRawSend(number);
  if (role == "raw-receive" && argc == 3 && number > 0) return RunRawReceive(number);
  std::fprintf(stderr,
               "usage: %s serve | receive <port> | raw-send <connections> | "
               "raw-receive <port>\n",
               argv[0]);
  return 2;
}
