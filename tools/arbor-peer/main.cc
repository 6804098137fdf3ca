// main.cc - arbor-peer, one program with four subcommands (serve, dial,
// peers, top) over the engine, the socket transport and the sample
// drivers. This file holds the command line (CLI11) and nothing else: each
// subcommand lives in a file of its own (commands.h).
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "commands.h"
#include "host.h"

namespace {

using namespace arbor_peer;

constexpr const char* kDeviceHelp = R"(Devices: --source/--sink/--transform [NAME=]KIND[:ARG], NAME defaulting to KIND.
  demo source   paced chunks stamped with a sequence and a time; ARG <chunks-per-second>/<bytes>
                (default 50/1024)                          e.g. --source test=demo:200/1024
  file source   reads the file of ARG <path>[|loop][|<chunk-bytes>][|<chunks-per-second>/s]
                                                           e.g. --source clip=file:"/srv/a.h264|loop"
  null sink     counts and drops                           e.g. --sink null
  file sink     writes every chunk to the file ARG         e.g. --sink out=file:/tmp/out.bin
  demo sink     like file, ARG defaulting to /dev/null
  gst           a GStreamer pipeline (builds with GStreamer only): a source ends in
                "appsink name=arbor", a sink begins with "appsrc name=arbor"
                e.g. --source video=gst:"videotestsrc is-live=true ! x264enc ! appsink name=arbor"
Names: letters, digits, '_', '.', '-'; no name may lie inside another.)";

constexpr const char* kChainHelp = R"(Chain: hops from the peer's source to this side's sink, "->" between them, with
exactly one network hop "net": "test -> net -> null". A hop may carry an option
after a ':' ("test:500/1024 -> net -> null"), which replaces the device's own.)";

void AddLanOptions(CLI::App* app, LanConfig* lan, const char* listen_help) {
  app->add_option("--listen", lan->listen, listen_help)->capture_default_str();
  app->add_option("--presence-interface", lan->presence_interface,
                  "Announce and hear peers by UDP multicast on this interface (or one of its "
                  "IPv4 addresses). Presence is off without it");
  app->add_option("--presence-port", lan->presence_port, "UDP port of presence (default 47477)")
      ->check(CLI::Range(1, 65535));
  app->add_option("--presence-interval", lan->presence_interval_ms,
                  "Milliseconds between announcements (default 1000)")
      ->check(CLI::Range(50, 60000));
  app->add_option("--key", lan->key,
                  "The LAN key (8 to 256 characters), the same on every peer; without it the LAN "
                  "is open to any host that reaches the port");
}

// One line for a value that would break the option text of the LAN.
bool CheckLan(const LanConfig& lan) {
  for (const auto& [what, value] : {std::pair{"--listen", &lan.listen},
                                    std::pair{"--presence-interface", &lan.presence_interface},
                                    std::pair{"--key", &lan.key}}) {
    if (!PlainText(*value)) {
      Error(std::string(what) + " must not hold ';', '=', '\\' or control characters");
      return false;
    }
  }
  return true;
}

bool CheckName(const std::string& name, const char* what) {
  std::string error;
  if (ValidDeviceName(name, &error)) return true;
  Error(std::string(what) + " \"" + name + "\": use 1 to 63 letters, digits, '_', '.' or '-'");
  return false;
}

std::string HostName() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  std::string clean;
  for (const char* p = name; *p != '\0' && clean.size() < kMaxNameLength; ++p)
    clean += (std::isalnum(static_cast<unsigned char>(*p)) || *p == '-' || *p == '_') ? *p : '-';
  return clean.empty() || clean.starts_with("net") ? "arbor-peer" : clean;
}

bool ParseSpecs(const std::vector<std::string>& texts, Role role, std::vector<DeviceSpec>* out) {
  for (const std::string& text : texts) {
    DeviceSpec spec;
    std::string error;
    if (!ParseDeviceSpec(text, role, &spec, &error)) {
      Error(error);
      return false;
    }
    out->push_back(std::move(spec));
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  BlockSignals();
  setvbuf(stdout, nullptr, _IOLBF, 0);

  CLI::App app{"arbor-peer: run an Arbor peer, dial sessions between peers, watch them"};
  app.require_subcommand(1);
  int log_level = -1;
  app.add_option("--log-level", log_level,
                 "Show the engine's log up to this level (0 errors .. 3 tracing); quiet without it")
      ->check(CLI::Range(0, 3));

  // serve
  ServeOptions serve;
  serve.lan.port = kDefaultServePort;
  serve.name = HostName();
  std::vector<std::string> serve_sources, serve_sinks, serve_transforms;
  CLI::App* serve_cmd = app.add_subcommand(
      "serve", "Offer devices to other peers on the LAN until SIGINT or SIGTERM");
  serve_cmd->add_option("--source", serve_sources, "A source to offer (see Devices below)")
      ->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  serve_cmd->add_option("--sink", serve_sinks, "A sink to offer")
      ->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  serve_cmd->add_option("--transform", serve_transforms, "A transform to offer (gst only)")
      ->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  serve_cmd->add_option("--name", serve.name, "This peer's name in presence and for dialers")
      ->capture_default_str();
  serve_cmd->add_option("--port", serve.lan.port, "TCP port to listen on; 0 picks a free one")
      ->capture_default_str()->check(CLI::Range(0, 65535));
  AddLanOptions(serve_cmd, &serve.lan, "Address to listen on (0.0.0.0: every interface)");
  serve_cmd->add_option("--control-socket", serve.control_socket,
                        "Unix socket for `top` (default: serve-<port>.sock in "
                        "$XDG_RUNTIME_DIR/arbor-peer or /tmp/arbor-peer-<uid>)");
  serve_cmd->add_flag("--no-control", serve.no_control, "Open no control socket");
  serve_cmd->footer(std::string(kDeviceHelp) +
                    "\nWithout devices, serve offers --source test=demo.\n"
                    "Prints a line per peer that comes or goes and per session that begins, "
                    "ends or fails.");

  // dial
  DialOptions dial;
  dial.name = "dial";
  std::vector<std::string> dial_sinks, dial_transforms;
  CLI::App* dial_cmd = app.add_subcommand(
      "dial", "Dial a chain on a peer, stream into a local sink, hang up, summarise");
  dial_cmd->add_option("--to", dial.to, "The peer's endpoint, host:port");
  dial_cmd->add_option("--peer", dial.peer_name,
                       "The peer's presence name (needs --presence-interface)");
  dial_cmd->add_option("--chain", dial.chain, "The chain, e.g. \"test -> net -> null\"")
      ->required();
  dial_cmd->add_option("--sink", dial_sinks, "A local sink (default: --sink null)")
      ->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  dial_cmd->add_option("--transform", dial_transforms, "A local transform (gst only)")
      ->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  dial_cmd->add_option("--seconds", dial.seconds,
                       "Seconds to stream from the first chunk; 0: until Ctrl-C")
      ->capture_default_str()->check(CLI::Range(0.0, 1e7));
  dial_cmd->add_option("--wait", dial.wait, "Seconds to find and connect to the peer")
      ->capture_default_str()->check(CLI::Range(0.1, 3600.0));
  dial_cmd->add_option("--setup", dial.setup, "Seconds from the dial to the first chunk")
      ->capture_default_str()->check(CLI::Range(0.1, 3600.0));
  dial_cmd->add_option("--port", dial.lan.port, "This side's TCP port; 0 picks a free one")
      ->capture_default_str()->check(CLI::Range(0, 65535));
  AddLanOptions(dial_cmd, &dial.lan, "Address this side listens on");
  bool no_progress = false;
  dial_cmd->add_flag("--no-progress", no_progress,
                     "No progress line (it is shown only when standard error is a terminal)");
  dial_cmd->footer(std::string(kChainHelp) + "\n" + kDeviceHelp +
                   "\nExit status 0 when chunks arrived and the session ran until the hang-up; "
                   "1 otherwise, with the reason; 2 for a wrong command line.");

  // peers
  PeersOptions peers;
  CLI::App* peers_cmd =
      app.add_subcommand("peers", "List the peers that presence hears (this side stays silent)");
  peers_cmd->add_option("--intervals", peers.intervals, "Presence intervals to listen for")
      ->capture_default_str()->check(CLI::Range(1, 100));
  peers_cmd->add_flag("--json", peers.json, "One line of JSON");
  AddLanOptions(peers_cmd, &peers.lan, "Address this side listens on");

  // top
  TopOptions top;
  CLI::App* top_cmd =
      app.add_subcommand("top", "Watch a serving peer's sessions through its control socket");
  top_cmd->add_option("--control-socket", top.control_socket, "The serving peer's socket");
  top_cmd->add_option("--port", top.port, "Find the socket of the peer serving on this port")
      ->check(CLI::Range(1, 65535));
  top_cmd->add_flag("--json", top.json, "Print one snapshot as JSON and exit");
  top_cmd->add_option("--iterations", top.iterations, "Refreshes before exiting; 0: until Ctrl-C")
      ->capture_default_str()->check(CLI::Range(0, 1000000));
  top_cmd->add_option("--interval", top.interval, "Seconds between refreshes")
      ->capture_default_str()->check(CLI::Range(0.1, 3600.0));

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::string where;
    for (const CLI::App* sub : app.get_subcommands()) where = " " + sub->get_name();
    Error(std::string(e.what()) + "; see arbor-peer" + where + " --help");
    return kExitUsage;
  }

  if (log_level < 0) {
    if (const char* env = std::getenv("ARBOR_LOG_LEVEL"); env != nullptr && *env != '\0')
      log_level = std::atoi(env);
  }
  SetupLog(log_level);

  if (serve_cmd->parsed()) {
    if (!CheckLan(serve.lan) || !CheckName(serve.name, "--name")) return kExitUsage;
    if (!ParseSpecs(serve_sources, Role::kSource, &serve.devices) ||
        !ParseSpecs(serve_sinks, Role::kSink, &serve.devices) ||
        !ParseSpecs(serve_transforms, Role::kTransform, &serve.devices))
      return kExitUsage;
    return RunServe(serve);
  }
  if (dial_cmd->parsed()) {
    if (!CheckLan(dial.lan)) return kExitUsage;
    if (dial.to.empty() == dial.peer_name.empty()) {
      Error("dial needs one peer: --to host:port, or --peer NAME with --presence-interface");
      return kExitUsage;
    }
    if (!dial.peer_name.empty() && dial.lan.presence_interface.empty()) {
      Error("--peer finds the peer by presence, which is off; add --presence-interface, or "
            "give --to host:port");
      return kExitUsage;
    }
    if (!ParseSpecs(dial_sinks, Role::kSink, &dial.sinks) ||
        !ParseSpecs(dial_transforms, Role::kTransform, &dial.sinks))
      return kExitUsage;
    dial.progress = !no_progress;
    return RunDial(dial);
  }
  if (peers_cmd->parsed()) {
    if (!CheckLan(peers.lan)) return kExitUsage;
    return RunPeers(peers);
  }
  return RunTop(top);
}
