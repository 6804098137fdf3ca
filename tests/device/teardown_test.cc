// Session teardown through the commands, as peers and the host trigger it:
// who is told, with which reason, what closes, and what bad sids do.
#include "arbor/asc.h"
#include "arbor/timedq.h"
#include "forest_fixture.h"

namespace {

using namespace forest_test;

class Teardown : public ForestTest {};

// A camera root with a LAN pipe node (pipe 1030); one peer node per uid.
struct PipeTree {
  TreeRoot* root = Root(&camera, 3, 0, "cam.1");
  TreeNode* pipe = Hang(root, get_lan_cdef(), 1030);
  TreeNode* Peer(uint32_t uid) {
    return Node(pipe, get_lan_cdef(), static_cast<int32_t>(uid));
  }
};

TEST_F(Teardown, SharedLeafEndsSilentlyUntilItsLastSessionTellsTheOwner) {
  PipeTree t;
  TreeNode* leaf = t.Peer(7);
  Row(leaf, "s1", 7);
  Row(leaf, "s2", 7);
  forest_link(t.root);
  Destroy("s1", "Peer_SessionDelete");
  Drain();
  EXPECT_TRUE(LanTexts().empty());
  EXPECT_TRUE(log_.Has("_cleanup_sid: sid=s1, leaves=1"));
  Destroy("s2", "Peer_SessionDelete");
  Drain();
  EXPECT_EQ(LanTexts(7), std::vector<std::string>{
                             SessionDelete("s2", "Peer_SessionDelete")});
  EXPECT_EQ(Recorded(SCRIPTED_LAN_NET_WRITE, 0).header.nPipe, 100u);
  EXPECT_EQ(Events()[0],
            "MainCmd=17;event=Follower;Status=Leaving;sidN=s1;");
  // The last session closed the root, which stays until a sweep.
  EXPECT_EQ(Closes(), std::vector<int32_t>{3});
  EXPECT_EQ(t.root->exclusive.load(), 1);
  EXPECT_EQ(t.root->leaves, nullptr);
  EXPECT_EQ(forest_.head.next, t.root);
}

TEST_F(Teardown, ClosingRootTellsARunningThreadToEndButLeavesAWantedOne) {
  TreeRoot* running = Root(&camera, 4);
  Row(Hang(running, &camera, 40), "r1", 0);
  StartReader(running, false);
  TreeRoot* wanted = Root(&camera, 5);
  wanted->use_thread = 1;
  Row(Hang(wanted, &camera, 50), "w1", 0, 100);
  forest_link(running);
  forest_link(wanted);
  Destroy("r1");
  Destroy("w1");
  Drain();
  EXPECT_TRUE(WaitFor([&] { return running->use_thread.load() == -111; }));
  EXPECT_EQ(wanted->use_thread.load(), 1);
  EXPECT_EQ(running->exclusive.load(), 1);
  EXPECT_EQ(WanTexts(), (std::vector<std::string>{SessionDelete("r1", ""),
                                                  SessionDelete("w1", "")}));
}

TEST_F(Teardown, DestroyBranchTakesOnlyTerminatedSidsBelow63Characters) {
  PipeTree t;
  const std::string s62(62, 'a'), s63(63, 'b');
  for (const std::string& sid : {s62, s63, std::string("x")})
    Row(t.Peer(7), sid.c_str(), 7);
  forest_link(t.root);
  Destroy(s63);                                // size 64
  Push(Tree_destroy_branch, nullptr, "x", 1);  // no NUL inside the size
  Push(Tree_destroy_branch, nullptr, "x", 0);  // nothing
  Destroy("");                                 // empty
  Destroy("unknown");
  Destroy(s62);
  Drain();
  EXPECT_EQ(LanTexts(7), std::vector<std::string>{SessionDelete(s62, "")});
  EXPECT_TRUE(log_.Has("Tree_destroy_branch: unknown: cannot leaf."));
  EXPECT_EQ(t.root->leaves_size, 2);
}

TEST_F(Teardown, CleanupByuidEndsOnlyThatPeersLanSessions) {
  PipeTree t;
  const std::string s63(63, 'x');  // too long for Tree_destroy_branch
  Row(t.Peer(7), "a7", 7);
  Row(t.Peer(8), "a8", 8);
  Row(t.Peer(7), s63.c_str(), 7);
  TreeRoot* other = Root(&camera, 6);
  Row(Node(Hang(other, get_lan_cdef(), 1031), get_lan_cdef(), 7), "b7", 7);
  Row(Hang(other, &camera, 7), "dev", 7);  // a device leaf with xfd 7
  forest_link(t.root);
  forest_link(other);
  cmdq_push("Tree_cleanup_byuid", Tree_cleanup_byuid, 0, nullptr, 0);
  cmdq_push("Tree_cleanup_byuid", Tree_cleanup_byuid,
            reinterpret_cast<uintptr_t>("Present_0"), nullptr, 7);
  Drain();
  EXPECT_EQ(LanTexts(7), (std::vector<std::string>{
                             SessionDelete("b7", "Present_0"),
                             SessionDelete(s63, "Present_0"),
                             SessionDelete("a7", "Present_0")}));
  EXPECT_EQ(t.root->leaves_size, 1);
  EXPECT_EQ(other->leaves_size, 1);
}

TEST_F(Teardown, CleanupByuidEnds128PerRunLastOfTheIndexFirst) {
  PipeTree t;
  for (int i = 0; i < 130; ++i)
    Row(t.Peer(7), ("s" + std::to_string(i)).c_str(), 7);
  forest_link(t.root);
  cmdq_push("Tree_cleanup_byuid", Tree_cleanup_byuid, 0, nullptr, 7);
  Drain();
  const auto texts = LanTexts(7);
  ASSERT_EQ(texts.size(), 128u);
  EXPECT_EQ(texts.front(), SessionDelete("s129", ""));
  ASSERT_EQ(t.root->leaves_size, 2);
  EXPECT_STREQ(t.root->leaves[0].sid, "s0");
  EXPECT_STREQ(t.root->leaves[1].sid, "s1");
}

TEST_F(Teardown, CleanupDrvDrainsRootsOfTheClassAndCutsItsLeavesSilently) {
  TreeRoot* wan_root = Root(get_wan_cdef(), 50);
  Row(Hang(wan_root, &camera, 51), "w1", 9);
  TreeRoot* cam = Root(&camera, 52);
  Row(Node(Hang(cam, get_wan_cdef(), 60), get_wan_cdef(), 0), "w2", 0);
  Row(Hang(cam, &camera, 53), "d1", 9);
  forest_link(wan_root);
  forest_link(cam);
  cmdq_push("Tree_cleanup_drv", Tree_cleanup_drv,
            reinterpret_cast<uintptr_t>(get_wan_cdef()), nullptr, 0);
  Drain();
  EXPECT_EQ(LanTexts(9), std::vector<std::string>{
                             SessionDelete("w1", "Cleanup_Drv/Wan")});
  EXPECT_TRUE(WanTexts().empty());
  ASSERT_EQ(cam->leaves_size, 1);
  EXPECT_STREQ(cam->leaves[0].sid, "d1");
}

std::mutex dispatched_mutex;
std::vector<std::string> dispatched;  // the last thing the check does
int32_t LocalRunFail(uint32_t, uint32_t size, const char* data) {
  std::lock_guard hold(dispatched_mutex);
  dispatched.emplace_back(data, size);
  return 0;
}

TEST_F(Teardown, TimedCheckOnTheWorkerEndsOnlyAnInactiveBranchOfThatLeaf) {
  SysRegistASLan(300, nullptr, reinterpret_cast<AsHandler>(LocalRunFail));
  TreeRoot* root = Root(&camera, 3);
  TreeNode* mid = Hang(root, &camera, 31, 0);
  TreeNode* late = Node(mid, &camera, 32);
  TreeNode* ready = Hang(root, &camera, 33);
  Row(late, "t1", 7, 300);
  Row(ready, "t2", 7, 300);
  forest_link(root);
  // Equal deadlines run in posting order: when the last check has acted,
  // the first two have run.
  auto check = [](TreeNode* leaf, const char* sid) {
    tq_post_v(timedq_, 0, Tree_timed_check, reinterpret_cast<uintptr_t>(leaf),
              sid, static_cast<const char*>(nullptr));
  };
  check(ready, "t1");  // another leaf than the row's
  check(ready, "t2");  // every node active
  check(late, "t1");
  ASSERT_TRUE(WaitFor([] {
    std::lock_guard hold(dispatched_mutex);
    return !dispatched.empty();
  }));
  const std::string run_fail = "MainCmd=RUN_FAIL;sidN=t1;coz=Time out;";
  EXPECT_EQ(LanTexts(7), std::vector<std::string>{run_fail});
  EXPECT_EQ(dispatched, std::vector<std::string>{run_fail});
  EXPECT_EQ(Closes(), (std::vector<int32_t>{32, 31}));
  QVRLock(&root->lock);
  EXPECT_EQ(root->leaves_size, 1);
  QVXUNLock(&root->lock);
}

TEST_F(Teardown, NotifyCutsLongTextsAndSkipsAClassWithoutDoEvent) {
  TreeRoot* cam = Root(&camera, 3);
  TreeRoot* mute = Root(&bare, 4);
  const std::string text(2000, 'a');
  root_notify(root_node(cam), nullptr, "%s", text.c_str());
  root_notify(root_node(mute), nullptr, "%s", text.c_str());
  ASSERT_EQ(Events().size(), 1u);
  EXPECT_EQ(Events()[0], text.substr(0, 1023));
  for (TreeRoot* r : {cam, mute}) _destroy_root(r);
}

TEST_F(Teardown, FreeTimeOnlyWhileNoSessionEndsInTheNetwork) {
  TreeRoot* root = Root(&camera, 3);
  Row(Hang(root, &camera, 31), "d1", 0);
  Row(Hang(root, &camera, 32), "d2", 0);
  forest_link(root);
  EXPECT_EQ(is_free_time(), 1);
  EXPECT_TRUE(log_.Has("Tree: d1,0,100: (node,31)"));
  EXPECT_TRUE(log_.Has("Tree: d2,0,100: (node,32)"));
  QVWLock(&root->lock);
  Row(Node(Hang(root, get_lan_cdef(), 1030), get_lan_cdef(), 7), "n1", 7);
  QVXUNLock(&root->lock);
  EXPECT_EQ(is_free_time(), 0);
}

}  // namespace
