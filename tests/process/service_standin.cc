// arbor_test_service - a stand-in for the service in the cross-process WAN
// tests: just enough of it to sign peers in and relay one session.
//
//   arbor_test_service <port> [<certificate.pem> <key.pem>]
//
// Listens on 127.0.0.1:<port> (0: any free port), under TLS with the given
// certificate and key, and prints "listening <port>". Answers every sign-in
// (AS code 333) with an acceptance (334) that echoes its "SEQ", and prints
// "signed in <login>". Prints "from <login>: <text>" for every control text
// under AS code 100. Reads commands on standard input:
//   relay <source-login> <sink-login> <pipe>
//     sets up session kSid: "SessionCreate" to the source (demo.source, then
//     the WAN pipe) and to the sink (the pipe, then demo.sink); once the
//     source answers "SessionStart", "QVVPipeReady" to it; from then on every
//     media and in-band frame the source sends on the pipe goes to the sink
//     unchanged. A "SessionDelete" from either side goes to the other.
//   quit
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

#include "arbor/support.h"
#include "arbor/transport.h"
#include "service_stub.h"

namespace {

using nettest::ServiceStub;

constexpr char kSid[] = "v1";
constexpr uint16_t kAsSession = 100, kAsSignIn = 333, kAsSignedIn = 334;

// A control payload: the AS code, low byte first, then the text.
std::string Control(uint16_t asc, const std::string& text) {
  std::string payload(2, '\0');
  payload[0] = static_cast<char>(asc & 0xff);
  payload[1] = static_cast<char>(asc >> 8);
  return payload + text;
}

// The value of key in dictionary text, or "".
std::string Value(const std::string& text, const char* key) {
  Dict dict = DictCreate(text.data(), static_cast<int32_t>(text.size()));
  const char* value = dict != nullptr ? DictGetStr(dict, key) : nullptr;
  std::string out = value != nullptr ? value : "";
  DictDestroy(dict);
  return out;
}

// The stand-in's state: who signed in on which link, and the relay. Its
// frame hook runs on the stub's I/O thread, Relay on the main thread.
class Service {
 public:
  void Relay(ServiceStub& stub, const std::string& source, const std::string& sink,
             uint32_t pipe) {
    uint32_t from = 0, to = 0;
    {
      std::lock_guard hold(mutex_);
      from = link_of_[source];
      to = link_of_[sink];
      relay_ = {from, to, pipe};
    }
    const std::string p = std::to_string(pipe);
    stub.Send(from, 0, QVTP_CONTROL,
               Control(kAsSession, std::string("MainCmd=SessionCreate;sidN=") + kSid +
                                       ";ftN0=demo.source;opN0=500/1024;ftN1=net.;FD1=" + p +
                                       ";"));
    stub.Send(to, 0, QVTP_CONTROL,
               Control(kAsSession, std::string("MainCmd=SessionCreate;sidN=") + kSid +
                                       ";ftN0=net.;FD0=" + p +
                                       ";ftN1=demo.sink;opN1=/dev/null;"));
  }

  // Runs on the stub's I/O thread.
  void OnFrame(ServiceStub& stub, const ServiceStub::Frame& frame) {
    if (frame.pipe != 0) {
      Route route;
      {
        std::lock_guard hold(mutex_);
        route = relay_;
      }
      if (frame.from == route.from && frame.pipe == route.pipe)
        stub.Send(route.to, frame.pipe, static_cast<uint16_t>(frame.type), frame.payload);
      return;
    }
    if (frame.type != QVTP_CONTROL || frame.payload.size() < 2) return;
    const auto asc = static_cast<uint16_t>(static_cast<uint8_t>(frame.payload[0]) |
                                           static_cast<uint8_t>(frame.payload[1]) << 8);
    const std::string text = frame.payload.substr(2);
    if (asc == kAsSignIn) {
      const std::string login = Value(text, "id");
      {
        std::lock_guard hold(mutex_);
        link_of_[login] = frame.from;
        login_of_[frame.from] = login;
      }
      stub.Send(frame.from, 0, QVTP_CONTROL,
                 Control(kAsSignedIn, "SEQ=" + Value(text, "SEQ") + ";"));
      std::printf("signed in %s\n", login.c_str());
      return;
    }
    if (asc != kAsSession) return;
    Route route;
    std::string login;
    {
      std::lock_guard hold(mutex_);
      route = relay_;
      login = login_of_[frame.from];
    }
    std::printf("from %s: %s\n", login.c_str(), text.c_str());
    const std::string command = Value(text, "MainCmd");
    if (command == "SessionStart" && frame.from == route.from) {
      stub.Send(route.from, 0, QVTP_CONTROL,
                 Control(kAsSession, std::string("MainCmd=QVVPipeReady;sidN=") + kSid + ";"));
    } else if (command == "SessionDelete" && route.from != 0) {
      const uint32_t other = frame.from == route.from ? route.to : route.from;
      {
        std::lock_guard hold(mutex_);
        relay_ = Route{};
      }
      stub.Send(other, 0, QVTP_CONTROL,
                 Control(kAsSession, std::string("sidN=") + kSid +
                                         ";MainCmd=SessionDelete;coz=Peer_SessionDelete;"));
    }
  }

 private:
  struct Route {
    uint32_t from = 0, to = 0, pipe = 0;
  };

  std::mutex mutex_;
  std::map<std::string, uint32_t> link_of_;  // guarded by mutex_
  std::map<uint32_t, std::string> login_of_;  // guarded by mutex_
  Route relay_;                               // guarded by mutex_
};

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc != 2 && argc != 4) {
    std::fprintf(stderr, "usage: %s <port> [<certificate.pem> <key.pem>]\n", argv[0]);
    return 2;
  }
  const auto port = static_cast<uint16_t>(std::atoi(argv[1]));
  Service service;
  ServiceStub stub(argc == 4 ? nettest::ServerTlsContext(argv[2], argv[3]) : nullptr, port,
                   [&service](ServiceStub& s, const ServiceStub::Frame& f) { service.OnFrame(s, f); });
  std::printf("listening %u\n", stub.port());
  for (std::string line; std::getline(std::cin, line) && line != "quit";) {
    std::istringstream words(line);
    std::string verb, source, sink;
    uint32_t pipe = 0;
    if (words >> verb >> source >> sink >> pipe && verb == "relay") {
      service.Relay(stub, source, sink, pipe);
    } else {
      std::fprintf(stderr, "unknown command: %s\n", line.c_str());
    }
  }
  return 0;
}
