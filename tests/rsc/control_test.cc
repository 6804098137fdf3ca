// The control layer case by case: how an arriving text is sorted, how a hop
// list is read, what each session command needs, dialling, the LAN
// neighbour reports, incoming data and the driver callback. The test plays
// the peer, the service or the driver; effects are read from the scripted
// transport, the drivers, the event tree and, where nothing else shows
// them, the forest itself (inspected on the consumer thread).
#include <cstring>

#include "arbor/rsevents.h"
#include "rsc/neigh_table.h"
#include "rsc/rsc_internal.h"
#include "rsc_fixture.h"

namespace {

using namespace rsc_test;

// What a local service entry heard (an AsPeerHandler).
std::mutex heard_mutex;
std::vector<std::string> heard;
int32_t Hear(uint32_t, uint32_t size, const char* data) {
  std::lock_guard hold(heard_mutex);
  heard.emplace_back(data, strnlen(data, size));
  return 0;
}
std::vector<std::string> Heard() {
  std::lock_guard hold(heard_mutex);
  return heard;
}
void ListenOn(int32_t code, const char* path, const char* event) {
  SysRegistASLan(code, nullptr, reinterpret_cast<AsHandler>(Hear));
  RsSubscribeEvent(0, code, path, event, nullptr, nullptr);
}

// An emission sender that only records who would have been served.
using Served = std::vector<std::pair<uint32_t, int32_t>>;
void Record(void* ctx, uint32_t uid, int32_t asc, const char*) {
  static_cast<Served*>(ctx)->emplace_back(uid, asc);
}
Served Subscribers(const char* path, const char* event) {
  Served served;
  RsEmitEvent(path, event, "x=1;", Record, &served);
  return served;
}

// Key of a text that may carry its NUL (old-encoding peers get one).
std::string KeyOf(const std::string& text, const char* key) {
  return Key(text.c_str(), key);
}
// Texts the sink's DoEvent received, without the "sink.1|" prefix.
std::vector<std::string> SinkEvents() {
  std::vector<std::string> out;
  for (const std::string& event : Events())
    if (event.rfind("sink.1|", 0) == 0) out.push_back(event.substr(7));
  return out;
}

// Runs fn on the consumer, behind every command pushed before, and waits.
void OnConsumer(const std::function<void()>& fn) {
  struct Job {
    const std::function<void()>* fn;
    std::atomic<bool> done{false};
  } job{&fn};
  cmdq_push(
      "test",
      [](uintptr_t arg, const void*, uint32_t) {
        auto* run = reinterpret_cast<Job*>(arg);
        (*run->fn)();
        run->done = true;
      },
      reinterpret_cast<uintptr_t>(&job), nullptr, 0);
  ASSERT_TRUE(WaitFor([&] { return job.done.load(); }));
}
// The active word of the session's leaf, or -1 when no tree holds sid.
int LeafActive(const char* sid) {
  int active = -1;
  OnConsumer([&] {
    TreeRoot* root = forest_ref_tree_by_sid(sid);
    if (root == nullptr) return;
    QVRLock(&root->lock);
    if (LeafIndexEntry* row = root_find_leaf_by_sid(root, sid))
      active = row->leaf->active;
    QVXUNLock(&root->lock);
    root_unref(root);
  });
  return active;
}

class Control : public RscTest {};

// ------------------------------------------------------ sorting by MainCmd

TEST_F(Control, ResourceEventsGoToTheServiceOnlyUnderAsCode100) {
  const std::string event = "MainCmd=17;event=moved;subResource=cam;";
  FromPeer(5, 100, event);
  FromPeer(5, 100, "MainCmd=17;subResource=cam;");  // no event
  FromService(event + "n=2;");  // the WAN door reports 100: back it goes
  ASSERT_EQ(WanTexts(), (std::vector<std::string>{event, event + "n=2;"}));
  scripted_call call;
  ASSERT_EQ(scripted_call_get(SCRIPTED_NET_WRITE, 0, &call), 0);
  EXPECT_EQ(call.asc, 100);

  // Under 555 it is a peer's event: emitted here, not forwarded.
  ListenOn(701, "door", "opened");
  const std::string lan = "MainCmd=17;event=opened;subResource=door;n=3;";
  FromPeer(5, 555, lan);
  EXPECT_EQ(WanTexts().size(), 2u);
  EXPECT_EQ(Heard(), std::vector<std::string>{lan});
}

TEST_F(Control, OnlyTheServiceSubscribesAndItHearsDriverEvents) {
  // (An emission on a path that has no node walks the whole tree: the
  // two subscriptions differ by event name so that neither hears the other.)
  FromPeer(5, 100, "MainCmd=15;subResource=p.q;event=f;");
  FromService("MainCmd=15;subResource=a.b;event=e;");
  EXPECT_TRUE(Subscribers("p.q", "f").empty());
  EXPECT_EQ(Subscribers("a.b", "e"), (Served{{0u, 100}}));

  drivers.callback(&sink, "MainCmd=1;subResource=a.b;event=e;", "k=v;", 5);
  const std::vector<std::string> texts = WanTexts();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(KeyOf(texts[0], "k"), "v");
  EXPECT_EQ(KeyOf(texts[0], "MainCmd"), "17");
  EXPECT_EQ(KeyOf(texts[0], "subResource"), "a.b");
}

TEST_F(Control, DeviceCommandsReachTheNamedDriverAndBadTextsAreLogged) {
  FromPeer(5, 200, "MainCmd=40;ftN=sink.1;FD=3;x=1;");
  FromPeer(5, 200, "MainCmd=41;x=2;");  // no ftN: for nobody
  FromService("MainCmd=42;ftN=nobody.9;");
  RSCDoEvent("sink.1", 0, "MainCmd=43;FD=9;", 16);  // the text's FD stays
  RSCDoEvent("sink.1", 4, "MainCmd=44;FD=9;", 16);
  Drain();
  const std::vector<std::string> events = SinkEvents();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(Key(events[0], "ftN"), "sink.1");
  EXPECT_EQ(Key(events[0], "FD"), "3");
  EXPECT_EQ(Key(events[0], "x"), "1");
  EXPECT_EQ(Key(events[1], "FD"), "9");
  EXPECT_EQ(Key(events[2], "FD"), "4");

  FromService("MainCmd=40;ftN=sink.1");  // no final ';'
  EXPECT_TRUE(log_.HasAt(0, "decode error"));
}

// --------------------------------------------------------------- hop lists

// A hop list read into a prefilled array, with its dictionary kept alive.
struct Parsed {
  Parsed(const std::string& text, uint32_t from, cdef* cls)
      : dict(DictCreate(text.c_str(), static_cast<int32_t>(text.size()))) {
    std::memset(static_cast<void*>(nodes), 0x5a, sizeof nodes);
    n = parse_node_info(nodes, dict, from, cls);
  }
  ~Parsed() { DictDestroy(dict); }
  std::string Name(uint32_t i) const {
    return nodes[i].name != nullptr ? nodes[i].name : "<null>";
  }
  Dict dict;
  MNodeInfo nodes[TREE_MAX_HOPS + 1];
  uint32_t n;
};

TEST_F(Control, HopsFromALanPeerAreRenamedByTheirPipe) {
  const std::string text =
      "MainCmd=SessionCreate;sidN=s;ftN0=net.;FD0=1030;ftN1=sink.1;FD1=7;"
      "opN1=;ftN2=enc.1;FD2=0;";
  Parsed lan(text, 5, get_lan_cdef());
  ASSERT_EQ(lan.n, 3u);
  EXPECT_EQ(lan.nodes[0].device, get_lan_cdef());
  EXPECT_EQ(lan.Name(0), "net.1030");
  EXPECT_EQ(lan.nodes[0].fd, 1030);
  EXPECT_EQ(lan.Name(1), "net.7");
  EXPECT_EQ(lan.nodes[1].device, &sink);  // the class stays as looked up
  EXPECT_EQ(lan.nodes[1].option, nullptr);
  EXPECT_STREQ(DictGetStr(lan.dict, "ftN1"), "net.7");
  EXPECT_EQ(lan.Name(2), "enc.1");  // descriptor 0: no pipe
  EXPECT_EQ(lan.nodes[3].name, nullptr);
  EXPECT_EQ(lan.nodes[3].device, nullptr);

  // From the WAN, and from this peer, every name stays as it came.
  for (const auto& [from, cls] :
       {std::pair{0u, get_wan_cdef()}, std::pair{0u, get_lan_cdef()},
        std::pair{5u, get_wan_cdef()}}) {
    Parsed kept(text, from, cls);
    ASSERT_EQ(kept.n, 3u);
    EXPECT_EQ(kept.Name(0), "net.");
    EXPECT_EQ(kept.nodes[0].device, cls);
    EXPECT_EQ(kept.Name(1), "sink.1");
    EXPECT_STREQ(DictGetStr(kept.dict, "ftN1"), "sink.1");
  }
}

TEST_F(Control, HopListsEndAtAGapOrAtSixtyThreeHops) {
  Parsed gap("ftN0=network;opN0=hi;FD0=;ftN2=cam.1;", 5, get_lan_cdef());
  ASSERT_EQ(gap.n, 1u);
  EXPECT_EQ(gap.nodes[0].device, nullptr);  // a device name, not a net hop
  EXPECT_EQ(gap.Name(0), "network");
  EXPECT_STREQ(gap.nodes[0].option, "hi");
  EXPECT_EQ(gap.nodes[0].fd, 0);
  EXPECT_EQ(gap.nodes[1].name, nullptr);

  std::string many;
  for (int i = 0; i < 64; ++i) many += "ftN" + std::to_string(i) + "=sink.1;";
  Parsed most(many, 0, get_lan_cdef());
  EXPECT_EQ(most.n, static_cast<uint32_t>(TREE_MAX_HOPS));
  EXPECT_EQ(most.nodes[62].device, &sink);
}

// -------------------------------------------------------- session commands

TEST_F(Control, SessionStartNeedsItsDescriptorAndHopButPipeReadyDoesNot) {
  const std::string pipe = std::to_string(RequestFrom(5, "r1"));
  ASSERT_EQ(LeafActive("r1"), 0);
  FromPeer(5, 100, "MainCmd=SessionStart;sidN=r1;ftN0=net.;FD0=0;");
  FromPeer(5, 100, "MainCmd=SessionStart;sidN=r1;FD0=" + pipe + ";");
  FromPeer(5, 100, "MainCmd=SessionStart;ftN0=net.;FD0=" + pipe + ";");
  EXPECT_EQ(LeafActive("r1"), 0);
  FromPeer(5, 100, "MainCmd=SessionStart;sidN=r1;ftN0=net.;FD0=" + pipe + ";");
  EXPECT_EQ(LeafActive("r1"), 1);

  FromService("MainCmd=SessionCreate;sidN=v1;ftN0=cam.1;ftN1=net.;FD1=3000;");
  ASSERT_TRUE(WaitFor([] { return !Find(WanTexts(), "sidN=v1;").empty(); }));
  EXPECT_EQ(LeafActive("v1"), 0);
  FromService("MainCmd=QVVPipeReady;sidN=v1;");
  EXPECT_EQ(LeafActive("v1"), 1);

  // Sigoff needs a sid, and from the WAN (sender 0) it cleans nothing.
  FromPeer(5, 100, "MainCmd=Sigoff;");
  FromService("MainCmd=Sigoff;sidN=x;");
  EXPECT_EQ(LeafActive("r1"), 1);
  EXPECT_EQ(LeafActive("v1"), 1);
  FromPeer(5, 100, "MainCmd=Sigoff;sidN=x;");
  EXPECT_EQ(LeafActive("r1"), -1);
  EXPECT_EQ(LeafActive("v1"), 1);
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
  EXPECT_EQ(Opens(), 0u);
  EXPECT_TRUE(LanTexts(5).empty());
  EXPECT_TRUE(log_.HasAt(0, "exec_request"));
  EXPECT_TRUE(log_.HasAt(3, "exec_request: sid=f1"));
  EXPECT_TRUE(log_.HasAt(3, "exec_request: sid=l1"));
  EXPECT_FALSE(log_.HasAt(3, "exec_request: sid=u1"));

  // Without a net hop the chain is built here whole (Tree_new_partial): its
  // one hop is opened, and as a new root needs a branch below it, the
  // failure that comes back names the partial build.
  FromPeer(5, 200, "MainCmd=QV_RES_REQ;sidN=p1;AsCode=200;ftN0=sink.1;");
  std::string fail;
  ASSERT_TRUE(WaitFor([&] {
    fail = Find(LanTexts(5), "RUN_FAIL");
    return !fail.empty();
  }));
  EXPECT_EQ(Opens(), 1u);
  EXPECT_EQ(KeyOf(fail, "sidN"), "p1");
  EXPECT_EQ(KeyOf(fail, "coz"), "Tree create fail");
}

// -------------------------------------------------------------------- dial

TEST_F(Control, DialStopsAtTheFirstFailureAndKeepsEarlierSids) {
  char sids[3 * RSC_SID_SLOT];
  std::memset(sids, 'Z', sizeof sids);
  RSCDial(100, sids, nullptr);
  EXPECT_EQ(std::string(sids, sizeof sids), std::string(sizeof sids, 'Z'));

  RSCDial(100, sids, "id=7;ftN0=cam.1;ftN1=net.;ftN2=sink.1;",
          "ftN0=net.;ftN1=sink.1;",  // net hop first: refused here
          "id=8;ftN0=cam.1;ftN1=net.;", nullptr);
  const std::string first(sids);
  EXPECT_FALSE(first.empty());
  EXPECT_EQ(first.find('Z'), std::string::npos);
  EXPECT_EQ(sids[RSC_SID_SLOT], '\0');
  EXPECT_EQ(std::string(sids + 2 * RSC_SID_SLOT, RSC_SID_SLOT),
            std::string(RSC_SID_SLOT, 'Z'));
  EXPECT_EQ(KeyOf(Find(LanTexts(7), "QV_RES_REQ"), "sidN"), first);
  EXPECT_TRUE(LanTexts(8).empty());
  EXPECT_TRUE(log_.HasAt(0, "exec_request"));
  EXPECT_EQ(RSCHangup(12345, nullptr), 12345);
  // A sid the request could not hold is refused, not cut.
  EXPECT_EQ(ExecDial(100, std::string(64, 's').c_str(), "ftN0=sink.1;"), -1);
}

TEST_F(Control, DialToAPeerSendsTheRequestWithItsOwnKeys) {
  // The hops are the peer's business: a net hop first passes here.
  EXPECT_GE(ExecDial(321, "mysid",
                     "id=7;sidN=theirs;AsCode=1;MainCmd=Other;user=me;"
                     "ftN0=net.;ftN1=odd;"),
            0);
  scripted_call call;
  ASSERT_EQ(scripted_call_get(SCRIPTED_LAN_NET_WRITE, 0, &call), 0);
  EXPECT_EQ(call.peer, 7);
  EXPECT_EQ(call.asc, 321);
  const std::string text(call.text, call.text_size);
  EXPECT_EQ(KeyOf(text, "sidN"), "mysid");
  EXPECT_EQ(KeyOf(text, "AsCode"), "321");
  EXPECT_EQ(KeyOf(text, "MainCmd"), "QV_RES_REQ");
  EXPECT_EQ(KeyOf(text, "user"), "Lan user");
  EXPECT_EQ(KeyOf(text, "ftN0"), "net.");

  scripted_push_result(SCRIPTED_LAN_NET_WRITE, -5, 1);
  EXPECT_LT(ExecDial(321, "s2", "id=7;ftN0=cam.1;ftN1=net.;"), 0);
  // Served here: no hop, or a net hop last, is refused; id=0 is no peer.
  EXPECT_EQ(ExecDial(321, "s3", "id=0;To=5;"), -1);
  EXPECT_EQ(ExecDial(321, "s4", "id=0;ftN0=cam.1;ftN1=net.;"), -1);
  // A hop that no driver knows is set aside without building: not an error.
  EXPECT_EQ(ExecDial(321, "s5", "ftN0=nobody.1;ftN1=sink.1;"), 0);
  Drain();
  EXPECT_EQ(Opens(), 0u);
  EXPECT_EQ(scripted_call_count(SCRIPTED_LAN_NET_WRITE), 2u);
}

// ---------------------------------------------------------- LAN neighbours

std::string Presence(int status, const std::string& more = "") {
  return "MainCmd=LocalData;status=" + std::to_string(status) + ";" + more;
}

TEST_F(Control, PresenceReportsKeepTheTableOfOldPeers) {
  FromPeer(11, 100, Presence(1, "VERSION=79;Ip=1.2.3.4;"));
  FromPeer(12, 100, Presence(1, "VERSION=80;Ip=1.2.3.5;"));
  FromPeer(13, 555, Presence(2));  // no VERSION; any AS code
  EXPECT_GE(neigh_index(11), 0);
  EXPECT_EQ(neigh_index(12), -1);
  EXPECT_GE(neigh_index(13), 0);
  const int32_t count = neigh_table_count();
  const int32_t at = neigh_index(11);
  FromPeer(11, 100, Presence(2, "VERSION=10;"));
  FromPeer(11, 100, Presence(1, "VERSION=90;"));  // stays old
  EXPECT_EQ(neigh_table_count(), count);
  EXPECT_EQ(neigh_index(11), at);

  ASSERT_EQ(scripted_call_count(SCRIPTED_LAN_CON_REMOTE_HOST_INFO), 5u);
  FromPeer(11, 100, Presence(9));
  EXPECT_EQ(scripted_call_count(SCRIPTED_LAN_CON_REMOTE_HOST_INFO), 5u);
  EXPECT_EQ(neigh_index(11), at);
  FromPeer(0x10005, 100, Presence(1, "VERSION=90;"));
  scripted_call call;
  ASSERT_EQ(scripted_call_get(SCRIPTED_LAN_CON_REMOTE_HOST_INFO, 5, &call), 0);
  EXPECT_EQ(call.peer, 5);
  // A numeric MainCmd is no report.
  FromPeer(14, 100, "MainCmd=1;status=1;");
  EXPECT_EQ(neigh_index(14), -1);
}

TEST_F(Control, APeerThatLeavesLosesItsSessionsAndItsEntry) {
  for (const int status : {0, 3, 10}) {
    SCOPED_TRACE(status);
    const uint32_t peer = 20 + static_cast<uint32_t>(status);
    FromPeer(peer, 100, Presence(1, "VERSION=1;"));
    const std::string sid = "g" + std::to_string(status);
    RequestFrom(peer, sid);
    FromPeer(peer, status == 10 ? 0 : 100,
             Presence(status, "QVID=" + std::to_string(peer) + ";"));
    std::string reply;
    ASSERT_TRUE(WaitFor([&] {
      reply = Find(LanTexts(static_cast<uint16_t>(peer)), "SessionDelete");
      return !reply.empty();
    }));
    EXPECT_EQ(KeyOf(reply, "sidN"), sid);
    EXPECT_EQ(KeyOf(reply, "coz"), "Present_0");
    EXPECT_EQ(neigh_index(peer), -1);
  }
}

TEST_F(Control, AFailedConnectEndsTheDispatchOfTheReport) {
  const std::string up = Presence(1, "VERSION=90;");
  const auto size = static_cast<uint32_t>(up.size());
  scripted_push_result(SCRIPTED_LAN_CON_REMOTE_HOST_INFO, -3, 2);
  EXPECT_EQ(cb_lan(41, 0, up.data(), size), -3);
  EXPECT_EQ(asdispatch(get_lan_cdef(), 41, 0, up.data(), size), 1);
  EXPECT_EQ(asdispatch(get_lan_cdef(), 41, 0, up.data(), size), 0);
  EXPECT_EQ(cb_lan(41, 0, "not;a;dict", 10), 0);
}

// ----------------------------------------------------------- incoming data

TEST_F(Control, LanDataReachesTheFarSideTreeWithItsSenderNamed) {
  FromPeer(5, 100,
           "MainCmd=SessionCreate;sidN=s1;ftN0=net.;FD0=1030;ftN1=sink.1;");
  ASSERT_TRUE(WaitFor([] { return !Find(LanTexts(5), "sidN=s1;").empty(); }));

  const char* texts[] = {"event=e;subResource=a;QVID=9;",
                         "event=e;subResource=a;QVID=0;",
                         "event=e;subResource=a;"};
  for (const char* text : texts)
    rsc_lan_data_incoming(5, 1030, QVTP_INBAND, text,
                          static_cast<uint32_t>(std::strlen(text)));
  rsc_lan_data_incoming(5, 1030, QVTP_RTP, "0123456789", 10);
  rsc_lan_data_incoming(5, 1030, 7, "x", 1);
  Drain();
  const std::vector<std::string> events = SinkEvents();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(Key(events[0], "QVID"), "9");
  EXPECT_EQ(Key(events[1], "QVID"), "5");
  EXPECT_EQ(Key(events[2], "QVID"), "5");
  EXPECT_EQ(Key(events[2], "event"), "e");
  EXPECT_EQ(sink_bytes.load(), 10u);
  EXPECT_TRUE(log_.HasAt(0, "rsc_lan_data_incoming(qvid=5, pipe=1030): 7"));
}

TEST_F(Control, WanInbandFramesAreBoundedAndCutAtTheirFirstZero) {
  FromService("MainCmd=SessionCreate;sidN=w1;ftN0=net.;FD0=2000;ftN1=sink.1;");
  ASSERT_TRUE(WaitFor([] { return !Find(WanTexts(), "sidN=w1;").empty(); }));

  // A text of exactly `size` bytes, marked with n=size.
  auto frame = [](uint32_t size) {
    std::string text =
        "event=big;subResource=s;n=" + std::to_string(size) + ";pad=";
    text += std::string(size - text.size() - 1, 'p') + ";";
    return text;
  };
  const std::string passes = frame(1963), dropped = frame(1964);
  rsc_wan_data_incoming(2000, QVTP_INBAND, dropped.data(), 1964);
  rsc_wan_data_incoming(2000, QVTP_INBAND, passes.data(), 1963);
  const char cut[] = "event=z;subResource=s;\0tail=1;";
  rsc_wan_data_incoming(2000, QVTP_INBAND, cut, sizeof cut - 1);
  rsc_wan_data_incoming(2000, QVTP_RTP, "abcd", 4);
  rsc_wan_data_incoming(2000, 3, "x", 1);
  Drain();
  const std::vector<std::string> events = SinkEvents();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0], passes);
  EXPECT_EQ(events[1], "event=z;subResource=s;");
  // The record's length, which a LAN peer below would be sent, ends there
  // too (the tree's own trace is the only place that shows it).
  EXPECT_TRUE(log_.HasAt(3, "Tree_inband: 23: event=z;subResource=s;"));
  EXPECT_EQ(sink_bytes.load(), 4u);
  EXPECT_TRUE(log_.HasAt(0, "VPipe input unhandled: pipe=2000, type=3."));
}

// ---------------------------------------------------------- driver callback

TEST_F(Control, DriversSubscribeUnderTheirPositionsCode) {
  drivers.callback(&sink, "MainCmd=15;subResource=t.u;event=ring;", "x", 1);
  EXPECT_EQ(Subscribers("t.u", "ring"), (Served{{0u, 28674}}));
  cdef stray = MakeClass([] { return "stray.1"; }, false, false);
  drivers.callback(&stray, "MainCmd=15;subResource=s.t;event=knock;", "x", 1);
  drivers.callback(&sink, "MainCmd=15;subResource=s.t;event=knock;", nullptr,
                   0);
  EXPECT_TRUE(Subscribers("s.t", "knock").empty());
}

TEST_F(Control, DriverMediaAndEventsReachTheTreeOfTheirDescriptor) {
  char sids[RSC_SID_SLOT];
  RSCDial(200, sids, "ftN0=push.1;ftN1=sink.1;", nullptr);
  ASSERT_NE(sids[0], '\0');
  ASSERT_TRUE(WaitFor([] { return Opens() == 2; }));
  ListenOn(702, "pp", "ev");

  drivers.callback(&push, "MainCmd=1;", "0123456789abcdef", 16);  // no FD
  drivers.callback(&push, "MainCmd=1;FD=7;Flag=0;", "0123456789abcdef", 16);
  drivers.callback(&push, "MainCmd=1;subResource=pp;event=ev;FD=7;", "n=1;", 5);
  drivers.callback(&push, "MainCmd=1;subResource=pp;event=ev;", "n=2;", 5);
  Drain();
  EXPECT_EQ(sink_bytes.load(), 16u);
  const std::vector<std::string> heard_now = Heard();
  ASSERT_EQ(heard_now.size(), 2u);
  EXPECT_EQ(Key(heard_now[0], "n"), "1");
  EXPECT_EQ(Key(heard_now[0], "MainCmd"), "17");
  EXPECT_EQ(Key(heard_now[1], "n"), "2");
  std::vector<std::string> inband;
  for (const std::string& text : SinkEvents())
    if (Key(text, "event") == "ev") inband.push_back(text);
  ASSERT_EQ(inband.size(), 1u);
  EXPECT_EQ(Key(inband[0], "n"), "1");
  EXPECT_EQ(Key(inband[0], "subResource"), "pp");
  // The event without a descriptor was not posted at all: a record for no
  // tree would have been refused with a level-0 line.
  EXPECT_FALSE(log_.HasAt(0, "Tree_inband"));
}

}  // namespace
