// The read thread and the media walk: what each sink receives and in which
// order, what the walk skips, the bytes a converter holds back, the LAN
// fan-out with its deferred writes outside the tree's lock, a failed send's
// clean-up, and a thread blocked in Read that ends with the stop.
#include <atomic>
#include <thread>

#include "datapath_fakes.h"

namespace {

using namespace forest_test;
using namespace datapath_test;

class DataPath : public ForestTest {};

constexpr int32_t kPipe = 1024;

// source -> pass-through -> {sink 11 active, sink 12 inactive}; 130 empty
// reads first, logged at the 64th and 128th only.
TEST_F(DataPath, ChunksReachActiveSinksInOrderAndSkipInactiveOnes) {
  TreeRoot* root = Root(&source_class, 3, 0, "cam");
  TreeNode* mid = Hang(root, &sink_class, 10);
  Node(mid, &sink_class, 11);
  Node(mid, &sink_class, 12, /*active=*/0);
  source.empty_reads = 130;  // before the thread: no lock needed
  StartThread(root);
  Feed(Bytes(1, 100));
  Feed(Bytes(2, 200));
  Feed(Bytes(3, 63488));
  std::vector<std::string> got = WritesOf(11, 3);
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0], Bytes(1, 100));
  EXPECT_EQ(got[1], Bytes(2, 200));
  EXPECT_EQ(got[2], Bytes(3, 63488));
  std::lock_guard hold(sinks.mutex);
  EXPECT_TRUE(sinks.writes[12].empty());
  EXPECT_TRUE(sinks.writes[10].empty()) << "a node with children is no leaf";
  for (uint32_t flags : sinks.flags) EXPECT_EQ(flags, 0x40100u);
  EXPECT_TRUE(log_.Has("cam: 64-times ZERO."));
  EXPECT_TRUE(log_.Has("cam: 128-times ZERO."));
  EXPECT_FALSE(log_.Has("cam: 65-times ZERO."));
  EXPECT_FALSE(log_.Has("cam: 130-times ZERO."));
}

// 100 bytes, 70 taken; then 50 more reach Convert as 80, the 30 first.
TEST_F(DataPath, HeldBackBytesGoFirstIntoTheNextChunk) {
  TreeRoot* root = Root(&source_class, 3);
  TreeNode* conv = Hang(root, &converter_class, 20);
  Node(conv, &sink_class, 21);
  StartThread(root);
  Feed(Bytes(0, 100));
  Feed(Bytes(100, 50));
  std::vector<std::string> got = WritesOf(21, 2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0], Bytes(0, 70));
  EXPECT_EQ(got[1], Bytes(70, 70));
  std::lock_guard hold(sinks.mutex);
  ASSERT_EQ(sinks.convert_inputs.size(), 2u);
  EXPECT_EQ(sinks.convert_inputs[1], Bytes(70, 80));
  EXPECT_EQ(sinks.flags, (std::vector<uint32_t>{0x40100u, 0x40100u}))
      << "Convert's flag word stays private";
}

// The LAN pipe: one job per chunk serves both peers, the inactive one too.
// A failed send ends that peer's sessions ("Lan_Write_error"); the other
// peer keeps its session and its data.
TEST_F(DataPath, LanPipeSendsOneRecordToEveryPeerAndFailedSendEndsThatPeer) {
  TreeRoot* root = Root(&source_class, 3);
  TreeNode* pipe = Hang(root, get_lan_cdef(), kPipe);
  Row(Node(pipe, get_lan_cdef(), 7), "sid-seven", 7);
  Row(Node(pipe, get_lan_cdef(), 9, /*active=*/0), "sid-nine", 9);
  StartThread(root);
  Feed(Bytes(5, 1400));
  ASSERT_EQ(scripted_wait_calls(SCRIPTED_LAN_NET_WRITE, 2, 10000), 1);
  for (size_t i = 0; i < 2; ++i) {
    scripted_call call = Recorded(SCRIPTED_LAN_NET_WRITE, i);
    EXPECT_EQ(call.peer, i == 0 ? 7 : 9);
    EXPECT_EQ(call.header.nPipe, static_cast<uint32_t>(kPipe));
    EXPECT_EQ(call.header.nPacketType, QVTP_RTP);
    EXPECT_EQ(Payload(call), Bytes(5, 1400));
  }
  // Back in Read: the chunk's deferred writes have all run.
  ASSERT_TRUE(WaitFor([] {
    std::lock_guard hold(source.mutex);
    return source.reads >= 2;
  }));
  EXPECT_EQ(scripted_call_count(SCRIPTED_LAN_NET_WRITE), 2u);
  int first = log_.Find("Nw return");
  ASSERT_GE(first, 0);
  EXPECT_LT(log_.Find("Nw"), first);

  scripted_push_peer_result(7, -1, 1);
  Feed(Bytes(1, 64));
  ASSERT_TRUE(WaitFor([] {
    for (const std::string& t : LanTexts(7))
      if (t.find("SessionDelete") != std::string::npos) return true;
    return false;
  }));
  EXPECT_TRUE(log_.Has("sendasc: -1"));
  EXPECT_NE(LanTexts(7).back().find("Lan_Write_error"), std::string::npos);
  Drain();
  QVRLock(&root->lock);
  ASSERT_EQ(root->leaves_size, 1);
  EXPECT_STREQ(root->leaves[0].sid, "sid-nine");
  QVXUNLock(&root->lock);
  EXPECT_EQ(LanTexts(9).size(), 2u);
}

// The deferred write proves the lock free: a writer must get the root's
// lock while the read thread sits in the write. With the lock still held
// for reading, the writer would wait past the limit.
struct LockProbe {
  TreeRoot* root = nullptr;
  std::mutex mutex;
  std::condition_variable cv;
  std::atomic<bool> probed{false};
  bool taken = false;
  bool result = false;
  std::thread writer;
};
LockProbe probe;

void ProbeSink(void*, int, const char* line, size_t length) {
  std::string text(line, length);
  if (text.find("Nw") == std::string::npos || probe.probed.exchange(true))
    return;
  probe.writer = std::thread([] {
    QVWLock(&probe.root->lock);
    QVXUNLock(&probe.root->lock);
    std::lock_guard hold(probe.mutex);
    probe.taken = true;
    probe.cv.notify_all();
  });
  std::unique_lock hold(probe.mutex);
  probe.result = probe.cv.wait_for(hold, std::chrono::seconds(5),
                                   [] { return probe.taken; });
}

TEST_F(DataPath, DeferredWritesRunWithTheLockReleased) {
  TreeRoot* root = Root(&source_class, 3);
  TreeNode* pipe = Hang(root, get_lan_cdef(), kPipe);
  Node(pipe, get_lan_cdef(), 7);
  probe.root = root;
  LOG_SetSink(ProbeSink, nullptr);
  StartThread(root);
  Feed(Bytes(1, 64));
  ASSERT_EQ(scripted_wait_calls(SCRIPTED_LAN_NET_WRITE, 1, 10000), 1);
  LOG_SetSink(nullptr, nullptr);
  ASSERT_TRUE(probe.probed);
  probe.writer.join();
  EXPECT_TRUE(probe.result) << "the network write ran under the tree lock";
}

// A thread blocked in Read ends when the stop closes the device.
TEST_F(DataPath, ThreadBlockedInReadEndsAtStop) {
  TreeRoot* root = Root(&source_class, 3);
  Hang(root, &sink_class, 30);
  StartThread(root);
  ASSERT_TRUE(WaitFor([this] { return log_.Has("read-start"); }));
  device_stop();
  device_exit();
  started_ = false;
  EXPECT_TRUE(log_.Has("joinable"));
  EXPECT_TRUE(log_.Has("thread_read_root exit: root"));
  EXPECT_FALSE(log_.Has("FLAG=")) << "a read failing after the stop is quiet";
}

// A failing Read ends the thread; the next forest scan ends the sessions.
TEST_F(DataPath, FailedReadEndsTheThreadAndItsSessions) {
  TreeRoot* root = Root(&source_class, 3);
  Row(Hang(root, &sink_class, 30), "sid-r", 0);
  source.fail_with = -5;  // before the thread: no lock needed
  StartThread(root);
  ASSERT_TRUE(WaitFor([root] { return root->use_thread.load() == -111; }));
  EXPECT_TRUE(log_.Has("thread_read_root:root(3, ...): -5, FLAG=0x40000."));
  OnConsumer([] { EXPECT_EQ(forest_ref_tree(&camera, 0, 99), nullptr); });
  EXPECT_EQ(forest_.head.next, nullptr);
  bool told = false;
  for (const std::string& t : WanTexts())
    told = told || t.find("Thread_Terminated") != std::string::npos;
  EXPECT_TRUE(told);
}

}  // namespace
