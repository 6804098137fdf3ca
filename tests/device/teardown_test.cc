// Ending sessions on hand-built trees: who is told and with which reason,
// what closes, what bad sids do, the time-out check and the stop's sweep.
// The peer-driven ways in are walked whole by the session control tests.
#include "arbor/asc.h"
#include "arbor/timedq.h"
#include "forest_fixture.h"

namespace {

using namespace forest_test;

class NodeRemoval : public ForestTest {};
class Teardown : public ForestTest {};
class Sweep : public ForestTest {};

using NodeRemovalDeathTest = NodeRemoval;

TEST_F(NodeRemovalDeathTest, NullLeafAndBrokenTreeAreOurOwnFaults) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto to_stderr = [] { LOG_SetSink(nullptr, nullptr); };
  EXPECT_DEATH((to_stderr(), destroy_branch(nullptr, nullptr)),
               "assertion failed: leaf");
  TreeNode parent{};
  TreeNode orphan{};
  orphan.parent = &parent;  // not in parent's children
  EXPECT_DEATH((to_stderr(), destroy_branch(&orphan, nullptr)),
               "assertion failed: !\"error\"");
}

// A shared leaf ends silently until its last session, which tells the
// owner; sids of 63 characters or more, or without their NUL, are refused.
TEST_F(Teardown, DestroyBranchTellsOnlyALeafsLastSessionAndRefusesBadSids) {
  TreeRoot* root = Root(&camera, 3, 0, "cam.1");
  TreeNode* pipe = Hang(root, get_lan_cdef(), 1030);
  TreeNode* shared = Node(pipe, get_lan_cdef(), 7);
  Row(shared, "s1", 7);
  Row(shared, "s2", 7);
  const std::string s62(62, 'a'), s63(63, 'b');
  for (const std::string& sid : {s62, s63, std::string("x")})
    Row(Node(pipe, get_lan_cdef(), 7), sid.c_str(), 7);
  forest_link(root);
  Destroy(s63);                                // size 64
  Push(Tree_destroy_branch, nullptr, "x", 1);  // no NUL inside the size
  Destroy("unknown");
  Destroy("s1", "Peer_SessionDelete");
  Destroy(s62);
  Destroy("s2", "Peer_SessionDelete");
  Drain();
  EXPECT_EQ(LanTexts(7), (std::vector<std::string>{
                             SessionDelete(s62, ""),
                             SessionDelete("s2", "Peer_SessionDelete")}));
  ASSERT_EQ(Events().size(), 3u);  // the source hears each follower leave
  EXPECT_EQ(Events()[0], "MainCmd=17;event=Follower;Status=Leaving;sidN=s1;");
  EXPECT_EQ(root->leaves_size, 2);
}

std::mutex dispatched_mutex;
std::vector<std::string> dispatched;  // the last thing the check does
int32_t LocalRunFail(uint32_t, uint32_t size, const char* data) {
  std::lock_guard hold(dispatched_mutex);
  dispatched.emplace_back(data, size);
  return 0;
}

// The check on the timed queue's worker ends a branch that is not active in
// time, telling the peer and the local services of its AS code.
TEST_F(Teardown, TimedCheckOnTheWorkerEndsOnlyAnInactiveBranchOfThatLeaf) {
  SysRegistASLan(300, nullptr, reinterpret_cast<AsHandler>(LocalRunFail));
  TreeRoot* root = Root(&camera, 3);
  TreeNode* late = Node(Hang(root, &camera, 31, 0), &camera, 32);
  TreeNode* ready = Hang(root, &camera, 33);
  Row(late, "t1", 7, 300);
  Row(ready, "t2", 7, 300);
  forest_link(root);
  // Equal deadlines run in posting order: the last check acts last.
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
}

TEST_F(Teardown, FreeTimeOnlyWhileNoSessionEndsInTheNetwork) {
  TreeRoot* root = Root(&camera, 3);
  Row(Hang(root, &camera, 31), "d1", 0);
  forest_link(root);
  EXPECT_EQ(is_free_time(), 1);
  Row(Node(Hang(root, get_lan_cdef(), 1030), get_lan_cdef(), 7), "n1", 7);
  EXPECT_EQ(is_free_time(), 0);
}

TEST_F(Sweep, StopWithLiveSessionsTellsEveryOwnerAndLeavesNothing) {
  // A device root whose read thread leaves only when told, a shared leaf,
  // a branch that no row keeps, a service session on a LAN root, and a
  // root of a class without Close or DoEvent.
  TreeRoot* cam = Root(&camera, 3, 0, "cam.1");
  TreeNode* leaf = Node(Hang(cam, &camera, 31), &camera, 32);
  Row(leaf, "c1", 7);
  Row(leaf, "c2", 8);
  Node(Hang(cam, get_lan_cdef(), 1040), get_lan_cdef(), 9);  // rowless
  StartReader(cam);
  TreeRoot* net = Root(get_lan_cdef(), 1030, 5);
  Row(Hang(net, &camera, 41), "n1", 0);
  Row(root_node(net), "n2", 0);  // a chain of one hop: the root is its leaf
  TreeRoot* mute = Root(&bare, 4);
  TreeNode* peer = Node(Hang(mute, get_lan_cdef(), 1050), get_lan_cdef(), 6);
  Row(peer, "m1", 6);
  Row(peer, "m2", 6);
  for (TreeRoot* root : {cam, net, mute}) forest_link(root);
  device_stop();
  started_ = false;
  EXPECT_EQ(LanTexts(8), std::vector<std::string>{SessionDelete("c2", "Sys_Exit")});
  EXPECT_TRUE(LanTexts(7).empty());  // its leaf stayed for c2 when it went
  EXPECT_EQ(LanTexts(6), std::vector<std::string>{SessionDelete("m2", "Sys_Exit")});
  EXPECT_EQ(WanTexts(), (std::vector<std::string>{SessionDelete("n1", "Sys_Exit"),
                                                  SessionDelete("n2", "Sys_Exit")}));
  std::vector<int32_t> closes = Closes();
  std::sort(closes.begin(), closes.end());
  EXPECT_EQ(closes, (std::vector<int32_t>{3, 31, 32, 41}));
}

}  // namespace
