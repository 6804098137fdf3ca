// Branch building and session setup on the consumer, with drivers that
// record every Open and Close: what is shared or opened anew, what a failure
// leaves behind, when read threads start, and what the peer is sent.
#include "arbor/timedq.h"
#include "build_fakes.h"

namespace {

using namespace forest_test;
using namespace build_test;

class Build : public ForestTest {};

TEST_F(Build, EqualChainsShareRootAndInnerHopsButOpenTheEdgeHopAnew) {
  TreeNode* a = Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "enc.1", "q=1")});
  ASSERT_NE(Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "enc.1", "q=2")}), nullptr);
  ASSERT_NE(a, nullptr);
  TreeRoot* root = forest_.head.next;
  EXPECT_EQ(a->parent, root_node(root));
  EXPECT_EQ(root_use_count(root), 2);
  EXPECT_EQ(a->active.load(), 1);  // a local chain starts at once
  // Three hops: the inner hop is shared, even with another option.
  TreeNode* c = Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "enc.1", "q=3"),
                           Hop(&dev, "disp.1")});
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->parent, a);
  // Another owner, or an exclusive chain, gets a root of its own.
  ASSERT_NE(Branch(9, {Hop(&dev, "cam.1"), Hop(&dev, "enc.1")}), nullptr);
  ASSERT_NE(Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "d.2")}, 1), nullptr);
  TreeNode* later = Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "d.3")});
  EXPECT_EQ(node_find_root(later), root);
  EXPECT_EQ(RootCount(), 3);
  EXPECT_EQ(Opens(), (std::vector<std::string>{
                         "cam.1", "enc.1/q=1", "enc.1/q=2", "disp.1", "cam.1",
                         "enc.1", "cam.1", "d.2", "d.3"}));
}

TEST_F(Build, FailedOpenOrGrowthClosesNewChainLowestFirstAndLeavesTree) {
  ASSERT_NE(Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "d.1")}), nullptr);
  TreeRoot* root = forest_.head.next;
  opener.fail_name = "z.1";
  EXPECT_EQ(Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "x.1"), Hop(&dev, "y.1"),
                       Hop(&dev, "z.1")}),
            nullptr);
  // x.1 got 102 and y.1 103: closed lowest first; the tree as it was.
  EXPECT_EQ(Closes(), (std::vector<int32_t>{103, 102}));
  // A new root whose chain fails is closed and leaves no trace; so is a
  // new root of a chain of one hop, and a hop without a class.
  EXPECT_EQ(Branch(0, {Hop(&dev, "mic.1"), Hop(&dev, "z.1")}), nullptr);
  EXPECT_EQ(Branch(0, {Hop(&dev, "mic.2")}), nullptr);
  EXPECT_EQ(Branch(0, {Hop(&dev, "cam.1"), Hop(nullptr, "gone.1")}), nullptr);
  EXPECT_EQ(RootCount(), 1);
  // The root's array holds 8: only the new node's own array must grow.
  build_test_fail_grows(0);
  EXPECT_EQ(Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "x.1"), Hop(&dev, "y.1")}),
            nullptr);
  build_test_fail_grows(-1);
  EXPECT_EQ(Closes(), (std::vector<int32_t>{103, 102, 104, 105, 107, 106}));
  EXPECT_EQ(root_node(root)->nchildren, 1u);
  EXPECT_EQ(root_use_count(root), 1);
}

// The source is told when its branch becomes active.
TEST_F(Build, ActivationTellsTheSourceAndAFailedThreadStartKeepsNoReference) {
  opener.threading = 1;
  activate_test_fail_next_thread();
  TreeRoot* root = node_find_root(Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "d.1")}));
  EXPECT_EQ(root_use_count(root), 1);
  EXPECT_EQ(Events(), std::vector<std::string>{"MainCmd=24;"});
}

// Drivers are promised ARBOR_READ_THREAD_STACK bytes of stack in Read: the
// thread an activation starts must have at least that, whatever the
// process's default.
std::atomic<size_t> read_stack{0};
TEST_F(Build, TheReadThreadHasTheStackDriversArePromised) {
  static cdef sized = [] {
    cdef cls = dev;
    cls.Read = [](int32_t, void*, uint32_t, uint32_t*) {
      pthread_attr_t attr;
      size_t size = 1;  // seen, even if the query fails
      if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_destroy(&attr);
      }
      read_stack = size;
      return -1;  // the thread ends
    };
    return cls;
  }();
  opener.threading = 1;
  ASSERT_NE(Branch(0, {Hop(&sized, "cam.1"), Hop(&dev, "d.1")}), nullptr);
  ASSERT_TRUE(WaitFor([] { return read_stack.load() != 0; }));
  EXPECT_GE(read_stack.load(), size_t{ARBOR_READ_THREAD_STACK});
}

class Setup : public ForestTest {};

// The leaf of sid's row, or null (read after a Drain: nothing writes).
TreeNode* LeafOf(const char* sid) {
  TreeRoot* root = forest_ref_tree_by_sid(sid);
  if (root == nullptr) return nullptr;
  TreeNode* leaf = root_find_leaf_by_sid(root, sid)->leaf;
  root_unref(root);
  return leaf;
}

// The sids of the pending Tree_timed_check entries (the filter cancels none).
std::vector<std::string> PendingChecks() {
  std::vector<std::string> sids;
  auto filter = [](uintptr_t out, TqHandler fn, uintptr_t, int32_t argc,
                   char** argv) {
    if (fn == Tree_timed_check && argc == 1)
      reinterpret_cast<std::vector<std::string>*>(out)->emplace_back(argv[0]);
    return 0;
  };
  tq_cancel_if(timedq_, filter, reinterpret_cast<uintptr_t>(&sids));
  return sids;
}

TEST_F(Setup, RequestBuildsUpToThePipeAndAsksThePeerForTheRest) {
  auto request = [](const char* sid) {
    return MakeRequest(7, sid, {Hop(&dev, "cam.1"), Hop(get_lan_cdef(), "net.lan"),
                                Hop(&dev, "disp.9", "w=2")});
  };
  Request first = request("s1");
  Request second = request("s2");
  for (Request* r : {&first, &second}) PushRequest(Tree_new_request, *r);
  Drain();
  TreeNode* peer = LeafOf("s1");
  ASSERT_NE(peer, nullptr);
  // One peer node for both sessions, under the pipe; nothing is active.
  EXPECT_EQ(LeafOf("s2"), peer);
  EXPECT_EQ(peer->active.load(), 0);
  // The peer hears the rest of the chain from the pipe on, for each session.
  ASSERT_EQ(LanTexts(7).size(), 2u);
  const std::string create = LanTexts(7)[1];
  EXPECT_EQ(Key(create, "sidN"), "s2");
  EXPECT_EQ(Key(create, "FD0"), std::to_string(peer->parent->xfd.load()));
  EXPECT_EQ(Key(create, "opN1"), "w=2");
  EXPECT_EQ(Key(create, "ftN2"), "<none>");
  // Only the new peer node posted its check, for s1.
  EXPECT_EQ(PendingChecks(), std::vector<std::string>{"s1"});
  EXPECT_EQ(Events()[0],
            "MainCmd=17;event=Follower;Status=Joining;To=R;sidN=s1;");

  // Sids that are unterminated or unknown activate nothing; "SessionStart"
  // for s1 activates peer, pipe, and the root.
  const std::string unterminated(70, 'x');
  cmdq_push("t", Tree_active_branch, 0, unterminated.c_str(), 71);
  cmdq_push("t", Tree_active_branch, 0, "s1", 2);
  cmdq_push("t", Tree_active_branch, 0, "nosuch", 7);
  Drain();
  EXPECT_EQ(peer->active.load(), 0);
  cmdq_push("t", Tree_active_branch, 0, "s1", 3);
  Drain();
  EXPECT_EQ(peer->active.load(), 1);
  EXPECT_EQ(node_find_root(peer)->node.active.load(), 1);
}

// A request that cannot be served tells its owner "RUN_FAIL" and leaves
// nothing built for it; a malformed one is refused without a word.
TEST_F(Setup, FailedTreesTellTheOwnerRunFailAndBadRequestsAreRefused) {
  Request long_sid = MakeRequest(7, std::string(64, 's'), {Hop(&dev, "cam.1")});
  Request too_many = MakeRequest(7, "b1", {Hop(&dev, "cam.1")});
  too_many.dx()->length = TREE_MAX_HOPS + 1;
  Request no_pipe = MakeRequest(7, "f1", {Hop(&dev, "cam.1"),
                                          Hop(get_wan_cdef(), "net.wan")});
  for (Request* r : {&long_sid, &too_many, &no_pipe}) PushRequest(Tree_new_request, *r);
  Drain();
  EXPECT_EQ(LanTexts(7), std::vector<std::string>{
                             "MainCmd=RUN_FAIL;sidN=f1;coz=Tree request fail;"});
  EXPECT_TRUE(Opens().empty());
  // A leaf index that cannot grow (growth 1 hangs the pipe, 2 the peer
  // node, 3 the row) reports nothing: the owner hears the session start as
  // it would with a row, no "RUN_FAIL", and what was built for the session
  // alone is taken down again.
  Request r = MakeRequest(7, "g1", {Hop(&dev, "cam.1"), Hop(get_lan_cdef(), "net.lan")});
  OnConsumer([] { build_test_fail_grows(2); });
  PushRequest(Tree_new_partial, r);
  OnConsumer([] { build_test_fail_grows(-1); });
  EXPECT_EQ(LanTexts(7).back(),
            "MainCmd=SessionStart;sidN=g1;ftN0=net.lan;FD0=1024;ftN1=cam.1;FD1=100;");
  EXPECT_EQ(LanTexts(7).size(), 2u);
  EXPECT_EQ(LeafOf("g1"), nullptr);
  EXPECT_EQ(Closes(), std::vector<int32_t>{100});
  // find_netornil: the first net hop, or the first that cannot be used.
  const MNodeInfo chain[] = {Hop(&dev, "cam.1"), Hop(nullptr, "x.1"),
                             Hop(get_lan_cdef(), "net.lan")};
  EXPECT_EQ(find_netornil(chain, 3), &chain[1]);
  EXPECT_EQ(find_netornil(chain, 1), nullptr);
}

// A longer chain runs through another session's leaf: ending the longer one
// must keep that leaf, and ending both gives the root's reference back once.
TEST_F(Setup, EndingALongerChainKeepsTheLeafItRanThrough) {
  Request shorter =
      MakeRequest(0, "s1", {Hop(&dev, "cam.1"), Hop(&dev, "enc.1")});
  Request longer = MakeRequest(
      0, "s2", {Hop(&dev, "cam.1"), Hop(&dev, "enc.1"), Hop(&dev, "disp.1")});
  PushRequest(Tree_new_partial, shorter);
  PushRequest(Tree_new_partial, longer);
  Drain();
  TreeNode* enc = LeafOf("s1");
  ASSERT_NE(enc, nullptr);
  ASSERT_EQ(LeafOf("s2")->parent, enc);
  TreeRoot* root = node_find_root(enc);
  EXPECT_EQ(root_use_count(root), 1);

  cmdq_push("Tree_destroy_branch", Tree_destroy_branch, 0, "s2", 3);
  Drain();
  ASSERT_EQ(LeafOf("s1"), enc);  // still there, now without children
  EXPECT_EQ(enc->nchildren, 0u);
  EXPECT_EQ(root_use_count(root), 1);

  cmdq_push("Tree_destroy_branch", Tree_destroy_branch, 0, "s1", 3);
  Drain();
  EXPECT_EQ(LeafOf("s1"), nullptr);
  // disp.1 first, then enc.1, then the source as the root closes.
  EXPECT_EQ(Closes(), (std::vector<int32_t>{102, 101, 100}));
}

// A local chain runs at once: no time-out check is left behind for it. A
// chain that ends at a peer waits for the peer's word and gets one.
TEST_F(Setup, OnlyABranchThatWaitsIsPostedATimeOutCheck) {
  Request local = MakeRequest(0, "s1", {Hop(&dev, "cam.1"), Hop(&dev, "disp.1")});
  Request to_peer =
      MakeRequest(7, "s2", {Hop(&dev, "mic.1"), Hop(get_lan_cdef(), "net.lan")});
  PushRequest(Tree_new_partial, local);
  PushRequest(Tree_new_partial, to_peer);
  Drain();
  ASSERT_NE(LeafOf("s1"), nullptr);
  ASSERT_NE(LeafOf("s2"), nullptr);
  EXPECT_EQ(PendingChecks(), std::vector<std::string>{"s2"});
}

// Sessions that come and go with no data path (nothing calls
// forest_ref_tree) still leave no closed roots behind: the consumer sweeps
// them between its batches.
TEST_F(Setup, ClosedRootsGoWithoutDataTraffic) {
  constexpr int kSessions = 16;
  for (int i = 0; i < kSessions; ++i) {
    const std::string sid = "c" + std::to_string(i);
    Request r = MakeRequest(0, sid, {Hop(&dev, "cam.1"), Hop(&dev, "disp.1")});
    r.dx()->exclusive = 1;  // a root each
    PushRequest(Tree_new_partial, r);
  }
  Drain();
  ASSERT_EQ(RootCount(), kSessions);
  for (int i = 0; i < kSessions; ++i) Destroy("c" + std::to_string(i));
  Drain();  // the hang-ups ran; the sweep follows their batch
  Drain();
  EXPECT_EQ(RootCount(), 0);
}

}  // namespace
