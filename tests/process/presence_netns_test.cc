// Presence between two peer processes that find each other with no endpoint
// given. Each case makes two network namespaces of its own joined by a veth
// pair (the closest thing to a two-host LAN), runs one arbor_test_peer in
// each with `ip netns exec`, and deletes both namespaces when it ends,
// whatever happened. All multicast stays on that veth pair: no datagram of
// these cases can reach a real interface. Skipped where namespaces cannot
// be made (not root, no `ip`, no veth support).
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "child_process.h"

namespace {

using std::chrono::seconds;

const std::string kPeer = ARBOR_TEST_PEER_PATH;

// Announcement interval and time-out of these cases: short, so that a
// departure is seen within a second, and the time-out still covers several
// lost datagrams.
const std::string kPresenceTiming = "presence_interval_ms=100;presence_timeout_ms=600;";

// The `ip` program, or "" when there is none.
std::string FindIp() {
  for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
    if (access(path, X_OK) == 0) return path;
  return "";
}

// Two namespaces, a and b, joined by the veth pair va (10.77.0.1/24, in a)
// and vb (10.77.0.2/24, in b). The destructor deletes what was made (the
// veth pair goes with its namespaces).
class NamespacePair {
 public:
  NamespacePair() {
    if (geteuid() != 0) {
      why_not_ = "making network namespaces needs root";
      return;
    }
    ip_ = FindIp();
    if (ip_.empty()) {
      why_not_ = "no `ip` program (iproute2)";
      return;
    }
    const std::string tag = std::to_string(getpid());
    a_ = "arbor-pres-a-" + tag;
    b_ = "arbor-pres-b-" + tag;
    made_a_ = Run("netns add " + a_);
    made_b_ = made_a_ && Run("netns add " + b_);
    if (!made_b_) {
      why_not_ = "`ip netns add` failed";
      return;
    }
    const bool ok = Run("-n " + a_ + " link add va type veth peer name vb netns " + b_) &&
                    Run("-n " + a_ + " addr add 10.77.0.1/24 dev va") &&
                    Run("-n " + b_ + " addr add 10.77.0.2/24 dev vb") &&
                    Run("-n " + a_ + " link set lo up") && Run("-n " + b_ + " link set lo up") &&
                    Run("-n " + a_ + " link set va up") && Run("-n " + b_ + " link set vb up");
    if (!ok) why_not_ = "cannot make a veth pair between the namespaces (veth module?)";
  }
  ~NamespacePair() {
    if (made_a_) Run("netns del " + a_);
    if (made_b_) Run("netns del " + b_);
  }
  NamespacePair(const NamespacePair&) = delete;
  NamespacePair& operator=(const NamespacePair&) = delete;

  // "" when both namespaces are ready, else why they are not.
  const std::string& why_not() const { return why_not_; }
  // argv that runs args inside namespace a or b.
  std::vector<std::string> In(bool in_a, std::vector<std::string> args) const {
    std::vector<std::string> argv = {ip_, "netns", "exec", in_a ? a_ : b_};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }

 private:
  bool Run(const std::string& args) const {
    return std::system((ip_ + " " + args + " >/dev/null 2>&1").c_str()) == 0;
  }

  std::string ip_, a_, b_, why_not_;
  bool made_a_ = false, made_b_ = false;
};

// Serving peer "alpha" in a, presence on its interface by name.
std::vector<std::string> ServeAlpha(const NamespacePair& ns) {
  return ns.In(true, {kPeer, "serve", "listen=0.0.0.0;presence=va;" + kPresenceTiming,
                      "Name=alpha;"});
}

// Dialling peer "beta" in b, presence on its interface by address.
std::vector<std::string> DialFromBeta(const NamespacePair& ns, const std::string& chunks,
                                      const std::string& after) {
  return ns.In(false, {kPeer, "dial-presence", chunks, after,
                       "listen=0.0.0.0;presence=10.77.0.2;" + kPresenceTiming, "Name=beta;"});
}

TEST(PresenceNetns, PeersFindEachOtherWithNoEndpointAndStream) {
  NamespacePair ns;
  if (!ns.why_not().empty()) GTEST_SKIP() << "no network namespaces here: " << ns.why_not();
  ChildProcess alpha(ServeAlpha(ns));
  ASSERT_NE(alpha.WaitForLine("listening ", seconds(10)), "") << alpha.Output();
  ChildProcess beta(DialFromBeta(ns, "200", "hangup"));
  EXPECT_EQ(beta.Wait(seconds(40)), 0) << beta.Output();

  // The engine heard alpha from presence, with its address and version,
  // and beta found it by the name in its presence text.
  EXPECT_NE(beta.WaitForLine("heard MainCmd=LocalData;status=1;VERSION=100;Ip=10.77.0.1;QVID=",
                             seconds(0)), "") << beta.Output();
  const std::string found = beta.WaitForLine("found ", seconds(0));
  EXPECT_NE(found.find(" 10.77.0.1 Name=alpha;"), std::string::npos) << beta.Output();
  const std::string received = beta.WaitForLine("received ", seconds(0));
  EXPECT_NE(received.find("out-of-order 0"), std::string::npos) << beta.Output();
  EXPECT_NE(beta.WaitForLine("clean", seconds(0)), "") << beta.Output();

  EXPECT_NE(alpha.WaitForLine("demo.source: Close(", seconds(10)), "") << alpha.Output();
  alpha.Send("quit");
  EXPECT_EQ(alpha.Wait(seconds(15)), 0) << alpha.Output();
  EXPECT_NE(alpha.WaitForLine("clean", seconds(0)), "") << alpha.Output();
}

TEST(PresenceNetns, KilledPeerIsDeclaredGoneAndItsSessionsEnd) {
  NamespacePair ns;
  if (!ns.why_not().empty()) GTEST_SKIP() << "no network namespaces here: " << ns.why_not();
  ChildProcess alpha(ServeAlpha(ns));
  ASSERT_NE(alpha.WaitForLine("listening ", seconds(10)), "") << alpha.Output();
  ChildProcess beta(DialFromBeta(ns, "50", "wait-gone"));
  ASSERT_NE(beta.WaitForLine("streaming", seconds(30)), "") << beta.Output();
  beta.Kill();
  // Its announcements stop: alpha's engine hears status 0 within the
  // presence time-out (the bound here only keeps a broken build from
  // hanging), and the session beta had dialled ends: its source is closed.
  EXPECT_NE(alpha.WaitForLine("heard MainCmd=LocalData;status=0;QVID=", seconds(10)), "")
      << alpha.Output();
  EXPECT_NE(alpha.WaitForLine("demo.source: Close(", seconds(10)), "") << alpha.Output();
  alpha.Send("quit");
  EXPECT_EQ(alpha.Wait(seconds(15)), 0) << alpha.Output();
  EXPECT_NE(alpha.WaitForLine("clean", seconds(0)), "") << alpha.Output();
}

}  // namespace
