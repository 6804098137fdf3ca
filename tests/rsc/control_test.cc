// The control layer rule by rule: how an arriving text is sorted, what each
// session command needs, dialling, the LAN neighbour reports, WAN in-band
// data and the driver callback. Effects are read from the scripted
// transport, the drivers, local service entries and, where nothing else
// shows it, the forest itself.
#include <cstring>

#include "arbor/rsevents.h"
#include "rsc/neigh_table.h"
#include "rsc/rsc_internal.h"
#include "strutils/wire_text.h"
#include "rsc_fixture.h"

namespace {

using namespace rsc_test;

// Texts the sink's DoEvent received, without the "sink.1|" prefix.
std::vector<std::string> SinkEvents() {
  std::vector<std::string> out;
  for (const std::string& event : Events())
    if (event.rfind("sink.1|", 0) == 0) out.push_back(event.substr(7));
  return out;
}

// The active word of the session's leaf, or -1 when no tree holds sid,
// once every command pushed before has run.
int LeafActive(const char* sid) {
  Drain();
  int active = -1;
  if (TreeRoot* root = forest_ref_tree_by_sid(sid)) {
    QVRLock(&root->lock);
    if (LeafIndexEntry* row = root_find_leaf_by_sid(root, sid)) active = row->leaf->active;
    QVXUNLock(&root->lock);
    root_unref(root);
  }
  return active;
}

class Control : public RscTest {};

// Resource events (17) go to the service only under AS code 100; under
// another code they are a peer's, emitted here. Only the service may
// subscribe (15).
TEST_F(Control, ResourceEventsGoToTheServiceOnlyUnderAsCode100) {
  const std::string event = "MainCmd=17;event=moved;subResource=cam;";
  FromPeer(5, 100, event);
  FromPeer(5, 100, "MainCmd=17;subResource=cam;");  // no event
  FromService(event);  // the WAN door reports 100: back it goes
  EXPECT_EQ(WanTexts(), (std::vector<std::string>{event, event}));
  EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, 0).asc, 100);
  SysRegistASLan(701, nullptr, reinterpret_cast<AsHandler>(Hear));
  RsSubscribeEvent(0, 701, "door", "opened", nullptr, nullptr);
  const std::string lan = "MainCmd=17;event=opened;subResource=door;";
  FromPeer(5, 555, lan);
  EXPECT_EQ(Heard(), std::vector<std::string>{lan});

  FromPeer(5, 100, "MainCmd=15;subResource=p.q;event=f;");
  FromService("MainCmd=15;subResource=a.b;event=e;");
  drivers.callback(&sink, "MainCmd=1;subResource=p.q;event=f;", "k=v;", 5);
  drivers.callback(&sink, "MainCmd=1;subResource=a.b;event=e;", "k=v;", 5);
  EXPECT_TRUE(LanTexts(5).empty());
  ASSERT_EQ(WanTexts().size(), 3u);
  EXPECT_EQ(Key(WanTexts()[2], "subResource") + Key(WanTexts()[2], "k"),
            "a.bv");
}

TEST_F(Control, DeviceCommandsReachTheNamedDriverAndBadTextsAreLogged) {
  FromPeer(5, 200, "MainCmd=40;ftN=sink.1;FD=3;x=1;");
  FromPeer(5, 200, "MainCmd=41;x=2;");  // no ftN: for nobody
  FromService("MainCmd=42;ftN=nobody.9;");
  RSCDoEvent("sink.1", 0, "MainCmd=43;FD=9;", 16);  // the text's FD stays
  RSCDoEvent("sink.1", 4, "MainCmd=44;FD=9;", 16);
  FromService("MainCmd=40;ftN=sink.1");  // no final ';'
  Drain();
  std::string fds;
  for (const std::string& text : SinkEvents()) fds += Key(text, "FD") + " ";
  EXPECT_EQ(fds, "3 9 4 ");
  EXPECT_TRUE(log_.HasAt(0, "decode error"));
}

// A LAN peer's hop with a descriptor is the pipe it names, whatever its name;
// the list ends at a gap and after 63 hops.
TEST_F(Control, HopListsEndAtAGapOrAfter63AndLanDescriptorsNamePipes) {
  std::string text = "ftN0=sink.1;FD0=7;ftN1=net.;FD1=1030;ftN2=x;ftN4=y;";
  Dict dict = dict_of(text.c_str());
  MNodeInfo nodes[TREE_MAX_HOPS + 1];
  ASSERT_EQ(parse_node_info(nodes, dict, 5, get_lan_cdef()), 3u);
  EXPECT_STREQ(nodes[0].name, "net.7");
  EXPECT_EQ(nodes[0].device, &sink);  // the class found by the old name
  EXPECT_EQ(nodes[1].device, get_lan_cdef());
  EXPECT_STREQ(DictGetStr(dict, "ftN1"), "net.1030");
  EXPECT_EQ(nodes[3].name, nullptr);
  DictDestroy(dict);
  // From the WAN the names stay.
  dict = dict_of(text.c_str());
  ASSERT_EQ(parse_node_info(nodes, dict, 0, get_wan_cdef()), 3u);
  EXPECT_STREQ(nodes[0].name, "sink.1");
  DictDestroy(dict);
  text.clear();
  for (int i = 0; i < 64; ++i) text += "ftN" + std::to_string(i) + "=x;";
  dict = dict_of(text.c_str());
  EXPECT_EQ(parse_node_info(nodes, dict, 0, get_lan_cdef()), 63u);
  DictDestroy(dict);
}

// A SessionStart needs its sid, descriptor and hop (a whole one starts
// the session in Session.*); QVVPipeReady only its sid. Sigoff needs a
// sid, and from the WAN (sender 0) it ends nothing.
TEST_F(Control, SessionStartNeedsItsDescriptorAndHopButPipeReadyDoesNot) {
  const std::string pipe = std::to_string(RequestFrom(5, "r1"));
  FromPeer(5, 100, "MainCmd=SessionStart;sidN=r1;ftN0=net.;FD0=0;");
  FromPeer(5, 100, "MainCmd=SessionStart;sidN=r1;FD0=" + pipe + ";");
  FromPeer(5, 100, "MainCmd=SessionStart;ftN0=net.;FD0=" + pipe + ";");
  EXPECT_EQ(LeafActive("r1"), 0);
  FromPeer(5, 100, "MainCmd=QVVPipeReady;sidN=r1;");
  EXPECT_EQ(LeafActive("r1"), 1);
  FromPeer(5, 100, "MainCmd=Sigoff;");
  FromService("MainCmd=Sigoff;sidN=x;");
  EXPECT_EQ(LeafActive("r1"), 1);
}

TEST_F(Control, ResourceRequestsAreBuiltOnlyWhereTheChainAllows) {
  EXPECT_EQ(is_read_access_allow(5, 200), 1);  // no rule: every peer may
  FromService("MainCmd=QV_RES_REQ;sidN=w1;AsCode=200;ftN0=sink.1;");
  FromPeer(5, 200, "MainCmd=QV_RES_REQ;sidN=f1;ftN0=net.;ftN1=sink.1;");
  FromPeer(5, 200, "MainCmd=QV_RES_REQ;sidN=l1;ftN0=cam.1;ftN1=net.;");
  FromPeer(5, 200,
           "MainCmd=QV_RES_REQ;sidN=u1;ftN0=nobody.1;ftN1=net.;ftN2=sink.1;");
  FromPeer(5, 200, "MainCmd=QV_RES_REQ;ftN0=sink.1;");  // no sid
  Drain();
  EXPECT_EQ(opens.load(), 0u);
  EXPECT_TRUE(LanTexts(5).empty());
  EXPECT_TRUE(log_.HasAt(0, "exec_request"));
  // Without a net hop the chain is built here whole: its one hop is
  // opened, and as a new root needs a branch below it, the build fails.
  FromPeer(5, 200, "MainCmd=QV_RES_REQ;sidN=p1;AsCode=200;ftN0=sink.1;");
  const std::string fail = AwaitText(5, "RUN_FAIL");
  EXPECT_EQ(opens.load(), 1u);
  EXPECT_EQ(Key(fail, "sidN") + Key(fail, "coz"), "p1Tree create fail");
}

// A dial fills one sid slot per text and stops at the first it cannot
// serve; the request carries the dial's own keys.
TEST_F(Control, DialSendsItsOwnKeysAndStopsAtTheFirstFailure) {
  char sids[3 * RSC_SID_SLOT];
  std::memset(sids, 'Z', sizeof sids);
  RSCDial(100, sids, nullptr);
  EXPECT_EQ(sids[0], 'Z');
  RSCDial(100, sids,
          "id=7;sidN=theirs;AsCode=1;MainCmd=Other;user=me;ftN0=cam.1;"
          "ftN1=net.;ftN2=sink.1;",
          "ftN0=net.;ftN1=sink.1;",  // net hop first: refused here
          "id=8;ftN0=cam.1;ftN1=net.;", nullptr);
  EXPECT_EQ(std::string(sids).find('Z'), std::string::npos);
  EXPECT_EQ(sids[RSC_SID_SLOT], '\0');
  EXPECT_EQ(sids[2 * RSC_SID_SLOT], 'Z');
  const scripted_call call = Recorded(SCRIPTED_LAN_NET_WRITE, 0);
  EXPECT_EQ(call.peer * 1000 + call.asc, 7100);
  const std::string text(call.text, strnlen(call.text, call.text_size));
  EXPECT_EQ(Key(text, "sidN"), sids);
  EXPECT_EQ(Key(text, "AsCode") + Key(text, "MainCmd") + Key(text, "user"),
            "100QV_RES_REQLan user");
  EXPECT_TRUE(LanTexts(8).empty());

  // The hops are the peer's business: a net hop first passes when one is
  // named. Served here, no hop or a net hop last is refused; id=0 is no
  // peer; a hop no driver knows is set aside: not an error.
  EXPECT_GE(ExecDial(321, "s1", "id=7;ftN0=net.;ftN1=odd;"), 0);
  scripted_push_result(SCRIPTED_LAN_NET_WRITE, -5, 1);
  EXPECT_LT(ExecDial(321, "s2", "id=7;ftN0=cam.1;ftN1=net.;"), 0);
  EXPECT_EQ(ExecDial(321, "s3", "id=0;To=5;"), -1);
  EXPECT_EQ(ExecDial(321, "s4", "id=0;ftN0=cam.1;ftN1=net.;"), -1);
  EXPECT_EQ(ExecDial(321, "s5", "ftN0=nobody.1;ftN1=sink.1;"), 0);
  // A sid the request could not hold is refused, not cut.
  EXPECT_EQ(ExecDial(100, std::string(64, 's').c_str(), "ftN0=sink.1;"), -1);
  EXPECT_EQ(RSCHangup(12345, nullptr), 12345);
  Drain();
  EXPECT_EQ(opens.load(), 0u);
  EXPECT_EQ(scripted_call_count(SCRIPTED_LAN_NET_WRITE), 3u);
}

std::string Presence(int status, const std::string& more = "") {
  return "MainCmd=LocalData;status=" + std::to_string(status) + ";" + more;
}

// Peers below version 80 are kept in the table of old peers; each report
// of status 1 or 2 connects the peer, and leaving (3, or the transport's
// lost peer 10, under any code) ends its entry.
TEST_F(Control, PresenceReportsKeepTheTableOfOldPeers) {
  FromPeer(11, 100, Presence(1, "VERSION=79;"));
  FromPeer(12, 100, Presence(1, "VERSION=80;"));
  FromPeer(13, 555, Presence(2));                 // no VERSION; any AS code
  FromPeer(11, 100, Presence(2, "VERSION=90;"));  // stays old, once
  FromPeer(11, 100, Presence(9));                 // no report
  FromPeer(14, 100, "MainCmd=1;status=1;");       // a numeric MainCmd neither
  EXPECT_EQ(neigh_table_count(), 2);
  EXPECT_EQ(neigh_index(12), -1);
  EXPECT_GE(std::min(neigh_index(11), neigh_index(13)), 0);
  EXPECT_EQ(scripted_call_count(SCRIPTED_LAN_CON_REMOTE_HOST_INFO), 4u);
  FromPeer(0x10005, 100, Presence(1, "VERSION=90;"));
  EXPECT_EQ(Recorded(SCRIPTED_LAN_CON_REMOTE_HOST_INFO, 4).peer, 5);
  FromPeer(11, 0, Presence(10));
  FromPeer(13, 100, Presence(3));
  EXPECT_EQ(neigh_index(11) + neigh_index(13), -2);
  // A failed connect ends the dispatch of the report.
  const std::string up = Presence(1, "VERSION=90;");
  scripted_push_result(SCRIPTED_LAN_CON_REMOTE_HOST_INFO, -3, 1);
  EXPECT_EQ(asdispatch(get_lan_cdef(), 41, 0, up.data(),
                       static_cast<uint32_t>(up.size())),
            1);
}

TEST_F(Control, WanInbandFramesAreBoundedAndCutAtTheirFirstZero) {
  FromService("MainCmd=SessionCreate;sidN=w1;ftN0=net.;FD0=2000;ftN1=sink.1;");
  ASSERT_NE(AwaitText(-1, "sidN=w1;"), "");
  // Texts of exactly 1963 and 1964 bytes: the longer is dropped.
  std::string passes = "event=big;subResource=s;pad=";
  passes += std::string(1963 - passes.size() - 1, 'p') + ";";
  const std::string dropped = passes + "p";
  rsc_wan_data_incoming(2000, QVTP_INBAND, dropped.data(), 1964);
  rsc_wan_data_incoming(2000, QVTP_INBAND, passes.data(), 1963);
  const char cut[] = "event=z;subResource=s;\0tail=1;";
  rsc_wan_data_incoming(2000, QVTP_INBAND, cut, sizeof cut - 1);
  rsc_wan_data_incoming(2000, QVTP_RTP, "abcd", 4);
  Drain();
  EXPECT_EQ(SinkEvents(),
            (std::vector<std::string>{passes, "event=z;subResource=s;"}));
  // The record's length, which a LAN peer below would be sent, ends there
  // too (the tree's own trace is the only place that shows it).
  EXPECT_TRUE(log_.HasAt(3, "Tree_inband: 23: event=z;subResource=s;"));
  EXPECT_EQ(sink_bytes.load(), 4u);
}

// Media need the descriptor of their tree, and so does an event to go
// down it (a record for no tree would be refused with a level-0 line).
TEST_F(Control, DriverMediaAndEventsReachTheTreeOfTheirDescriptor) {
  char sids[RSC_SID_SLOT];
  RSCDial(200, sids, "ftN0=push.1;ftN1=sink.1;", nullptr);
  ASSERT_TRUE(WaitFor([] { return opens == 2; }));
  drivers.callback(&push, "MainCmd=1;", "0123456789abcdef", 16);  // no FD
  drivers.callback(&push, "MainCmd=1;FD=7;Flag=0;", "0123456789abcdef", 16);
  drivers.callback(&push, "MainCmd=1;subResource=pp;event=ev;FD=7;", "n=1;", 5);
  drivers.callback(&push, "MainCmd=1;subResource=pp;event=ev;", "n=2;", 5);
  Drain();
  EXPECT_EQ(sink_bytes.load(), 16u);
  std::string inband;
  for (const std::string& text : SinkEvents())
    if (Key(text, "event") == "ev")
      inband += Key(text, "subResource") + Key(text, "n");
  EXPECT_EQ(inband, "pp1");
  EXPECT_FALSE(log_.HasAt(0, "Tree_inband"));
}

}  // namespace
