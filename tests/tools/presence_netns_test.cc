// arbor-peer finding peers by presence, with no endpoint given: `serve`
// announces itself in one network namespace, `peers` and `dial --peer` hear
// it from another. The case makes the two namespaces and their veth pair
// itself and deletes them when it ends, so no datagram reaches a real
// interface; it is skipped where namespaces cannot be made.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "peer_process.h"

namespace {

using namespace peer_process;

// Short presence intervals, so that a peer is heard within a second.
const std::string kInterval = "100";

// Namespaces a (10.79.0.1 on va) and b (10.79.0.2 on vb), joined by a veth
// pair; deleted, with the pair, by the destructor.
class Namespaces {
 public:
  Namespaces() {
    for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
      if (access(path, X_OK) == 0) ip_ = path;
    if (geteuid() != 0 || ip_.empty()) return;
    const std::string tag = std::to_string(getpid());
    a_ = "arbor-peer-a-" + tag;
    b_ = "arbor-peer-b-" + tag;
    made_a_ = Run("netns add " + a_);
    made_b_ = made_a_ && Run("netns add " + b_);
    ready_ = made_b_ && Run("-n " + a_ + " link add va type veth peer name vb netns " + b_) &&
             Run("-n " + a_ + " addr add 10.79.0.1/24 dev va") &&
             Run("-n " + b_ + " addr add 10.79.0.2/24 dev vb") &&
             Run("-n " + a_ + " link set lo up") && Run("-n " + b_ + " link set lo up") &&
             Run("-n " + a_ + " link set va up") && Run("-n " + b_ + " link set vb up");
  }
  ~Namespaces() {
    if (made_a_) Run("netns del " + a_);
    if (made_b_) Run("netns del " + b_);
  }
  Namespaces(const Namespaces&) = delete;
  Namespaces& operator=(const Namespaces&) = delete;

  bool ready() const { return ready_; }
  // arbor-peer with args, inside namespace a or b.
  std::vector<std::string> Peer(bool in_a, const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {ip_, "netns", "exec", in_a ? a_ : b_};
    const std::vector<std::string> peer = peer_process::Peer(args);
    argv.insert(argv.end(), peer.begin(), peer.end());
    return argv;
  }

 private:
  bool Run(const std::string& args) const {
    return std::system((ip_ + " " + args + " >/dev/null 2>&1").c_str()) == 0;
  }

  std::string ip_, a_, b_;
  bool made_a_ = false, made_b_ = false, ready_ = false;
};

TEST(ArborPeerPresence, PeersListsAServingPeerAndDialFindsItByName) {
  Namespaces ns;
  if (!ns.ready()) GTEST_SKIP() << "no network namespaces here (needs root, ip and veth)";
  ChildProcess serve(ns.Peer(true, {"serve", "--name", "alpha", "--listen", "10.79.0.1",
                                    "--presence-interface", "va", "--presence-interval",
                                    kInterval, "--no-control", "--source", "test=demo:200/1024"}));
  ASSERT_GT(StartServe(serve), 0) << serve.Output();

  // peers hears alpha, with what it offers, and says nothing itself.
  ChildProcess peers(ns.Peer(false, {"peers", "--json", "--listen", "10.79.0.2",
                                     "--presence-interface", "vb", "--presence-interval",
                                     kInterval}));
  ASSERT_EQ(peers.Wait(seconds(20)), 0) << peers.Output();
  ASSERT_EQ(Lines(peers).size(), 1u) << peers.Output();
  const nlohmann::json heard = nlohmann::json::parse(Lines(peers)[0], nullptr, false);
  ASSERT_TRUE(heard.is_array() && heard.size() == 1u) << peers.Output();
  EXPECT_EQ(heard[0]["name"], "alpha");
  EXPECT_EQ(heard[0]["address"], "10.79.0.1");
  EXPECT_NE(heard[0]["presence"].get<std::string>().find("Sources=test;"), std::string::npos);

  ChildProcess dial(ns.Peer(false, {"dial", "--peer", "alpha", "--listen", "10.79.0.2",
                                    "--presence-interface", "vb", "--presence-interval",
                                    kInterval, "--chain", "test -> net -> null", "--seconds",
                                    "1", "--no-progress"}));
  EXPECT_EQ(dial.Wait(seconds(30)), 0) << dial.Output();
  EXPECT_NE(dial.WaitForLine("dialled test -> net. -> null on 10.79.0.1:7000 (alpha)", seconds(0)),
            "")
      << dial.Output();
  EXPECT_GT(Summary(dial, "chunks"), 0) << dial.Output();

  // A name nobody announces: the dial says which names it heard.
  ChildProcess lost(ns.Peer(false, {"dial", "--peer", "beta", "--listen", "10.79.0.2",
                                    "--presence-interface", "vb", "--presence-interval",
                                    kInterval, "--chain", "test -> net -> null", "--wait", "1"}));
  EXPECT_EQ(lost.Wait(seconds(20)), 1) << lost.Output();
  ASSERT_EQ(Lines(lost).size(), 1u) << lost.Output();
  EXPECT_NE(Lines(lost)[0].find("no peer named \"beta\" heard by presence on vb within 1 s "
                                "(heard: alpha)"),
            std::string::npos)
      << lost.Output();

  Signal(serve, SIGTERM);
  EXPECT_EQ(serve.Wait(seconds(20)), 0) << serve.Output();
}

}  // namespace
