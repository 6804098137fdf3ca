// host.h - what every subcommand of arbor-peer does as a host of the
// engine: exit codes and error lines, the signals that stop it, the
// engine's log, starting and stopping the engine and its LAN side, and the
// table of LAN peers.
//
// Threads: everything here is called from the main thread, but for
// LastEngineError (any thread). SIGINT and SIGTERM are blocked in every
// thread (BlockSignals, before the engine starts any), so only WaitSignal
// ever takes them.
#ifndef ARBOR_TOOLS_PEER_HOST_H
#define ARBOR_TOOLS_PEER_HOST_H

#include <cstdint>
#include <string>
#include <vector>

#include "arbor/net.h"
#include "options.h"

namespace arbor_peer {

// Exit statuses a script can trust.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // the run failed; the reason was printed
inline constexpr int kExitUsage = 2;   // the command line was wrong

// Prints "arbor-peer: <text>" as one line on standard error and returns
// kExitFailed.
int Error(const std::string& text);

// Blocks SIGINT and SIGTERM in the calling thread and every thread started
// after it, and ignores SIGPIPE. Call first thing in main.
void BlockSignals();

// Waits up to ms for SIGINT or SIGTERM: the signal taken, or 0.
int WaitSignal(int ms);

// "SIGINT", "SIGTERM".
const char* SignalName(int signal);

// The engine's log: its lines go to standard error only when level is 0 or
// more (the threshold then; the demo drivers also say what they do), and
// are kept quiet otherwise. Either way the last error line is kept.
void SetupLog(int level);

// The message of the engine's last error line, without its time and place;
// "" when there was none.
std::string LastEngineError();

// Starts the engine (SysInit), registers the named devices, the session
// observer and the device catalogue (answering as peer_name). Cannot fail.
void StartEngine(const std::string& peer_name);

// Switches the LAN on. false with *error saying what to change (the port in
// use, an address not of this host, a bad interface).
bool StartLan(const LanConfig& lan, std::string* error);

// Announces this peer by presence (only when presence is on): its name and
// the names of its sources.
void Announce(const std::string& name);

// Stops the engine (SysExit), then the observer, which first delivers the
// ends of the sessions the stop took down: no engine thread is left.
void StopEngine();

// One known LAN peer.
struct PeerView {
  uint16_t id = 0;
  arbor_net_peer_info info{};
  std::string presence;  // the text it announced; "" for none
  std::string name;      // the presence text's Name; "" for none
};

std::vector<PeerView> ListPeers();

// "127.0.0.1:7000": where a peer listens (its address alone when unknown).
std::string PeerAddress(const PeerView& peer);

// PeerAddress with the peer's name when it has one: "127.0.0.1:7000 (cam)".
std::string PeerLabel(const PeerView& peer);

// The value of key in a dictionary text, or "".
std::string DictValue(const std::string& text, const char* key);

}  // namespace arbor_peer

#endif  // ARBOR_TOOLS_PEER_HOST_H
