// What reaches a tree from outside its read thread: media through
// Tree_inflate (the same walk as the read thread's, run on the consumer,
// the network writes after the lock) and text events through Tree_inband
// (devices told, LAN peers and the WAN sent type 5 during the walk), and
// the records both refuse.
#include <string>
#include <vector>

#include "arbor/inband.h"
#include "datapath_fakes.h"

namespace {

using namespace forest_test;
using namespace datapath_test;

class Inband : public ForestTest {};

constexpr int32_t kPipe = 1030;

// A record as the incoming paths make it, with size bytes of payload.
std::string Record(cdef* device, uint32_t uid, int32_t xfd,
                   const std::string& payload, uint32_t length) {
  InbandRecord head{};
  head.uid = uid;
  head.device = device;
  head.xfd = xfd;
  head.length = length;
  std::string bytes(reinterpret_cast<const char*>(&head), sizeof head);
  return bytes + payload;
}
void PushRecord(CommandHandler fn, const std::string& record) {
  ASSERT_NE(cmdq_push("test", fn, 0, record.data(),
                      static_cast<uint32_t>(record.size())),
            nullptr);
}
void Inflate(const std::string& data) {
  PushRecord(Tree_inflate,
             Record(get_lan_cdef(), 5, kPipe, data,
                    static_cast<uint32_t>(data.size())));
}
void Event(cdef* device, uint32_t uid, int32_t xfd, const std::string& text) {
  PushRecord(Tree_inband, Record(device, uid, xfd, text + '\0',
                                 static_cast<uint32_t>(text.size() + 1)));
}

// A tree fed from LAN peer 5 on a pipe: root -> converter -> sink 41.
TreeRoot* LanFedTree() {
  TreeRoot* root = Root(get_lan_cdef(), kPipe, 5, "net.pipe");
  TreeNode* conv = Hang(root, &converter_class, 40);
  Row(Node(conv, &sink_class, 41), "sid-in", 5);
  forest_link(root);
  return root;
}

TEST_F(Inband, InflateCarriesHeldBytesAndDropsWhatConvertCannotUse) {
  TreeRoot* root = LanFedTree();
  // Another peer's, empty, and a length beyond the record's bytes: dropped.
  PushRecord(Tree_inflate, Record(get_lan_cdef(), 6, kPipe, "abc", 3));
  PushRecord(Tree_inflate, Record(get_lan_cdef(), 5, kPipe, "", 0));
  PushRecord(Tree_inflate, Record(get_lan_cdef(), 5, kPipe, "abc", 4000));
  Inflate(Bytes(0, 100));   // 70 out, 30 held
  Inflate(Bytes(100, 4));   // 34 in: Convert reports nothing, all dropped
  Inflate(Bytes(104, 35));  // nothing held any more: exactly this chunk
  Drain();
  std::lock_guard hold(sinks.mutex);
  ASSERT_EQ(sinks.writes[41].size(), 2u);
  EXPECT_EQ(sinks.writes[41][0], Bytes(0, 70));
  EXPECT_EQ(sinks.writes[41][1], Bytes(104, 35));
  EXPECT_EQ(root->node.children[0]->pending_size, 0);
  EXPECT_EQ(sinks.flags[0], 0x40000u);
}

// The network writes of Tree_inflate go out after the walk: a LAN pipe feeds
// peers 7 and 9 with one record; a WAN pipe node sends once for all its
// children, and not at all when none of them is active.
TEST_F(Inband, InflateFansOutThroughLanAndWanPipes) {
  TreeRoot* root = Root(&source_class, 3, 0, "cam");
  TreeNode* pipe = Hang(root, get_lan_cdef(), 1024);
  Node(pipe, get_lan_cdef(), 7);
  Node(pipe, get_lan_cdef(), 9);
  Node(Hang(root, get_wan_cdef(), 2000), get_wan_cdef(), 0, /*active=*/0);
  TreeNode* live = Hang(root, get_wan_cdef(), 2001);
  Node(live, get_wan_cdef(), 0);
  Node(live, get_wan_cdef(), 0);
  forest_link(root);
  PushRecord(Tree_inflate, Record(&source_class, 0, 3, Bytes(1, 300), 300));
  Drain();
  EXPECT_EQ(LanTexts(7), std::vector<std::string>{Bytes(1, 300)});
  EXPECT_EQ(LanTexts(9), std::vector<std::string>{Bytes(1, 300)});
  ASSERT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 1u);
  scripted_call call = Recorded(SCRIPTED_NET_WRITE, 0);
  EXPECT_EQ(call.header.nPipe, 2001u);
  EXPECT_EQ(call.header.nPacketType, QVTP_RTP);
  EXPECT_EQ(Payload(call), Bytes(1, 300));
}

// root(cam) -> dev 50 -> LAN pipe 1024 -> {peer 7, peer 9 inactive};
// root -> WAN pipe 2000 -> peer 0. Unterminated, empty or unknown text is
// refused: outside input never reaches the walk's NUL assertion.
TEST_F(Inband, TextReachesDevicesAndPeersAndTheWanAndBadTextIsRefused) {
  TreeRoot* root = Root(&source_class, 3, 0, "cam");
  TreeNode* dev = Hang(root, &sink_class, 50, 1, "dev");
  TreeNode* pipe = Node(dev, get_lan_cdef(), 1024);
  Node(pipe, get_lan_cdef(), 7);
  Node(pipe, get_lan_cdef(), 9, /*active=*/0);
  TreeNode* wan = Hang(root, get_wan_cdef(), 2000);
  Node(wan, get_wan_cdef(), 0);
  forest_link(root);
  PushRecord(Tree_inband, Record(&source_class, 0, 3, "abcd", 4));
  PushRecord(Tree_inband, Record(&source_class, 0, 3, "", 0) + '\0');
  Event(&source_class, 0, 4, "event=x;");
  PushRecord(Tree_inband, Record(&source_class, 0, 3, "", 0));  // head only
  Event(&source_class, 0, 3, "event=motion;");
  Event(&source_class, 0, 3, "event=alarm;");
  Drain();
  EXPECT_TRUE(log_.Has("Tree_inband: 4: abcd"));
  EXPECT_TRUE(log_.Has("Tree_inband: 0: "));
  EXPECT_TRUE(log_.Has("Tree_inband: 9: event=x;"));
  {
    std::lock_guard hold(sinks.mutex);
    EXPECT_EQ(sinks.events,
              (std::vector<std::string>{"cam|event=motion;", "dev|event=motion;",
                                        "cam|event=alarm;", "dev|event=alarm;"}));
  }
  ASSERT_EQ(scripted_call_count(SCRIPTED_LAN_NET_WRITE), 2u);
  for (size_t i = 0; i < 2; ++i) {
    scripted_call call = Recorded(SCRIPTED_LAN_NET_WRITE, i);
    EXPECT_EQ(call.peer, 7);
    EXPECT_EQ(call.header.nPipe, 1024u);
    EXPECT_EQ(call.header.nPacketType, QVTP_INBAND);
  }
  EXPECT_EQ(Payload(Recorded(SCRIPTED_LAN_NET_WRITE, 0)),
            std::string("event=motion;") + '\0');
  ASSERT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 1u) << "no alarm to WAN";
  scripted_call call = Recorded(SCRIPTED_NET_WRITE, 0);
  EXPECT_EQ(call.header.nPacketType, QVTP_INBAND);
  EXPECT_EQ(call.header.nPipe, 2000u);
}

}  // namespace
