// Identifiers from outside must not become keys of texts that this host
// makes. A sid or a peer's name arrives decoded (the sender escapes ';' and
// '='), and the engine writes both raw into "RUN_FAIL", "SessionDelete" and
// the "Follower" texts, which reach the local table, where a MainCmd word is
// a session command with this host as its sender. Each attack below built
// and activated a session owned by this host (cam.1 to sink.1, the only
// devices the attacker names) before the doors refused such values.
#include "rsc_fixture.h"

namespace {

using namespace rsc_test;

class Injection : public RscTest {
 protected:
  // True when no device was opened by the attack: the refusal is logged
  // at the door, and by then everything the text could start is queued.
  bool NothingBuilt(const std::string& refusal) {
    if (!WaitFor([&] { return log_.HasAt(0, refusal); })) return false;
    Drain();
    return opens.load() == 0;
  }
};

// The attacker's keys, escaped as a dictionary value, so that decoding
// gives them back raw.
const std::string kInjected =
    "x\\;MainCmd\\=QV_RES_REQ\\;ftN0\\=cam.1\\;ftN1\\=sink.1\\;AsCode\\=300";

// A failed SessionCreate or QV_RES_REQ wrote its sid into "RUN_FAIL".
TEST_F(Injection, SidOfAFailedSessionCreateOrResourceRequestIsRefused) {
  FromPeer(5, 100,
           "MainCmd=SessionCreate;sidN=" + kInjected +
               ";ftN0=net.;FD0=1030;ftN1=sink.bad;");
  EXPECT_TRUE(NothingBuilt("SessionCreate from LAN peer 5 refused: sidN"));
  EXPECT_EQ(Find(LanTexts(5), "RUN_FAIL"), "");
  FromPeer(5, 200,
           "MainCmd=QV_RES_REQ;sidN=" + kInjected +
               ";AsCode=200;ftN0=sink.bad;ftN1=net.;ftN2=x;");
  EXPECT_TRUE(NothingBuilt("QV_RES_REQ from LAN peer 5 refused: sidN"));
  // Session commands that would only name the sid are refused alike.
  FromPeer(5, 100, "MainCmd=SessionDelete;sidN=a\\;MainCmd\\=Sigoff;");
  EXPECT_TRUE(log_.HasAt(0, "SessionDelete from LAN peer 5 refused: sidN"));
}

// The service listens to "Follower" at the source: the Joining text then
// reaches the local table under AS code 100, and the root's driver hears it
// through DoEvent.
TEST_F(Injection, PeerNameOfAFollowerEventIsRefusedFromAPeerOrTheService) {
  FromService("MainCmd=15;subResource=cam.1;event=Follower;");
  FromPeer(5, 200,
           "MainCmd=QV_RES_REQ;sidN=r1;AsCode=200;user=" + kInjected +
               ";ftN0=cam.1;ftN1=net.;ftN2=sink.1;");
  EXPECT_TRUE(NothingBuilt("QV_RES_REQ from LAN peer 5 refused: user"));
  FromPeer(5, 200,
           "MainCmd=QV_RES_REQ;sidN=r2;AsCode=200;To=a\\=b;"
           "ftN0=cam.1;ftN1=net.;ftN2=sink.1;");
  EXPECT_TRUE(NothingBuilt("QV_RES_REQ from LAN peer 5 refused: To"));
  FromService("MainCmd=SessionCreate;sidN=w1;user=" + kInjected +
              ";ftN0=cam.1;ftN1=net.;FD1=1100;");
  EXPECT_TRUE(NothingBuilt("SessionCreate from the service refused: user"));
  for (const std::string& event : Events())
    EXPECT_EQ(event.find("QV_RES_REQ"), std::string::npos) << event;
  // A plain name passes: the same chain is built, and the service hears
  // the Joining text once, with the name as a value of its own.
  FromService("MainCmd=SessionCreate;sidN=w2;user=bob;ftN0=cam.1;ftN1=net.;"
              "FD1=1100;");
  ASSERT_TRUE(WaitFor([] { return opens.load() == 1; }));
  const std::string joining = AwaitText(-1, "Status=Joining");
  EXPECT_EQ(Key(joining, "To") + Key(joining, "MainCmd"), "bob17");
}

// The owners of the forest's roots, in forest order.
std::vector<uint32_t> RootOwners() {
  std::vector<uint32_t> owners;
  std::lock_guard hold(forest_.mutex);
  for (TreeRoot* root = forest_.head.next; root != nullptr; root = root->next)
    owners.push_back(root->uid);
  return owners;
}

// An event text from outside whose MainCmd is not 17 would reach the local
// table, through the service's subscription, as a session command from this
// host: refused at the AS 555 door and as in-band text alike. (The same text
// still reaches the session commands as the peer's own, under its number:
// that is the peer's authority, not this host's.)
TEST_F(Injection, EventTextsFromOutsideMustBeResourceEvents) {
  FromService("MainCmd=15;subResource=cam.1;event=motion;");
  FromPeer(5, 555,
           "subResource=cam.1;event=motion;MainCmd=QV_RES_REQ;sidN=z;"
           "ftN0=cam.1;ftN1=sink.1;");
  EXPECT_TRUE(
      WaitFor([this] { return log_.HasAt(0, "event from LAN peer 5 refused"); }));
  Drain();
  EXPECT_EQ(RootOwners(), std::vector<uint32_t>{5});
  EXPECT_EQ(lan_do_event("net.1030", 1030,
                         "subResource=cam.1;event=motion;MainCmd=Sigoff;"),
            0);
  EXPECT_TRUE(log_.HasAt(0, "in-band event refused: MainCmd is not 17"));
  // A resource event goes on to the service, as before.
  FromPeer(5, 555, "subResource=cam.1;event=motion;MainCmd=17;level=2;");
  EXPECT_NE(AwaitText(-1, "level=2"), "");
}

}  // namespace
