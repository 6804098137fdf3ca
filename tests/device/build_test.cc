// Branch building and activation on the consumer, with drivers that record
// every Open and Close: what is shared, what is opened anew, what a failure
// leaves behind, how pipe numbers are taken, and when read threads start.
#include "build_fakes.h"

namespace {

using namespace forest_test;
using namespace build_test;

class Build : public ForestTest {
 protected:
  // Stops the library here, so that the Close calls of the stop can be
  // looked at; the fixture's TearDown then checks that nothing is left.
  void Stop() {
    device_stop();
    device_exit();
    started_ = false;
  }
};

TEST_F(Build, EqualChainsShareRootAndInnerHopsButOpenTheEdgeHopAnew) {
  TreeNode* a = Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "enc.1", "q=1")});
  TreeNode* b = Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "enc.1", "q=2")});
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  ASSERT_EQ(RootCount(), 1);
  TreeRoot* root = forest_.head.next;
  EXPECT_EQ(a->parent, root_node(root));
  EXPECT_EQ(root_use_count(root), 2);
  EXPECT_EQ(root->use_thread.load(), 0);
  // A local chain starts at once; each edge hop keeps its own option.
  EXPECT_EQ(a->active.load(), 1);
  EXPECT_STREQ(b->option, "q=2");

  // Three hops: the inner hop is shared, even with another option.
  TreeNode* c = Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "enc.1", "q=3"),
                           Hop(&dev, "disp.1")});
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->parent, a);
  // Another owner gets a root of its own.
  ASSERT_NE(Branch(9, {Hop(&dev, "cam.1"), Hop(&dev, "enc.1")}), nullptr);
  EXPECT_EQ(RootCount(), 2);
  EXPECT_EQ(Opens(), (std::vector<std::string>{"cam.1", "enc.1/q=1",
                                               "enc.1/q=2", "disp.1", "cam.1",
                                               "enc.1"}));
  Stop();
  EXPECT_EQ(Closes().size(), 6u);
}

TEST_F(Build, ExclusiveTreeIsNeverJoined) {
  ASSERT_NE(Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "d.1")}), nullptr);
  TreeRoot* shared = forest_.head.next;
  ASSERT_NE(Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "d.2")}, 1), nullptr);
  TreeRoot* own = forest_.head.next;
  EXPECT_NE(own, shared);
  EXPECT_EQ(own->exclusive.load(), 1);
  TreeNode* later = Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "d.3")});
  ASSERT_NE(later, nullptr);
  EXPECT_EQ(node_find_root(later), shared);
  EXPECT_EQ(root_node(own)->nchildren, 1u);
  EXPECT_EQ(Opens().size(), 5u);  // two roots of cam.1, three sinks
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
  EXPECT_TRUE(log_.Has("create_node(z.1,) error"));
  EXPECT_TRUE(log_.Has("do_tree_create_new len=3."));

  // A new root whose chain fails is closed and leaves no trace; so is a
  // new root of a chain of one hop.
  EXPECT_EQ(Branch(0, {Hop(&dev, "mic.1"), Hop(&dev, "z.1")}), nullptr);
  EXPECT_EQ(Branch(0, {Hop(&dev, "mic.2")}), nullptr);
  EXPECT_TRUE(log_.Has("do_tree_create_new len=0."));
  EXPECT_EQ(Closes(), (std::vector<int32_t>{103, 102, 104, 105}));
  EXPECT_EQ(RootCount(), 1);
  // A hop without a class and a root that cannot open.
  EXPECT_EQ(Branch(0, {Hop(&dev, "cam.1"), Hop(nullptr, "gone.1")}), nullptr);
  EXPECT_TRUE(log_.Has("node_open_device: gone.1: drv not exist."));
  EXPECT_EQ(Branch(0, {Hop(&dev, "z.1"), Hop(&dev, "d.1")}), nullptr);
  EXPECT_TRUE(log_.Has("_create_root"));
  EXPECT_EQ(RootCount(), 1);
  // The root's array holds 8: only the new node's own array must grow.
  build_test_fail_grows(0);
  EXPECT_EQ(Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "x.1"), Hop(&dev, "y.1")}),
            nullptr);
  build_test_fail_grows(-1);
  EXPECT_EQ(Closes(), (std::vector<int32_t>{103, 102, 104, 105, 107, 106}));
  EXPECT_TRUE(log_.Has("node_append_child: no memory"));
  EXPECT_EQ(root_node(root)->nchildren, 1u);
  EXPECT_EQ(root_use_count(root), 1);
}

TEST_F(Build, LanPipeNodesTakeANumberOnlyWhenTheHopHasNone) {
  cdef* lan = get_lan_cdef();
  TreeNode* taken = Branch(0, {Hop(&dev, "cam.1"), Hop(lan, "net.lan")});
  ASSERT_NE(taken, nullptr);
  EXPECT_GE(taken->xfd.load(), 1024);
  EXPECT_EQ(taken->pipe_owned, 1);
  // The same chain finds the pipe node again: no second number is taken.
  EXPECT_EQ(Branch(0, {Hop(&dev, "cam.1"), Hop(lan, "net.lan")}), taken);
  TreeNode* given =
      Branch(0, {Hop(&dev, "cam.2"), Hop(lan, "net.lan", nullptr, 5000)});
  ASSERT_NE(given, nullptr);
  EXPECT_EQ(given->xfd.load(), 5000);
  EXPECT_EQ(given->pipe_owned, 0);
  // Numbers that a message may carry and no pipe can have fail the hop.
  EXPECT_EQ(Branch(0, {Hop(&dev, "cam.3"), Hop(lan, "net.lan", nullptr, -3)}),
            nullptr);
  EXPECT_EQ(Branch(0, {Hop(lan, "net.1024", nullptr, 0), Hop(&dev, "d.1")}),
            nullptr);
  EXPECT_TRUE(log_.Has("bad pipe -3."));
  EXPECT_TRUE(log_.Has("bad pipe 0."));
  // A network root keeps the pipe it came with; its branch starts at once.
  TreeNode* far = Branch(7, {Hop(lan, "net.1024", nullptr, 1024),
                             Hop(&dev, "d.2")});
  ASSERT_NE(far, nullptr);
  EXPECT_EQ(node_find_root(far)->node.xfd.load(), 1024);
  EXPECT_EQ(node_find_root(far)->node.active.load(), 1);
}

// ----------------------------------------------------------- activation

TEST_F(Build, ActivationStartsTheReadThreadOnceWithItsOwnReference) {
  opener.threading = 1;
  TreeNode* leaf = Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "d.1")});
  ASSERT_NE(leaf, nullptr);
  TreeRoot* root = node_find_root(leaf);
  EXPECT_TRUE(log_.Has("thread-created: &root->thread, func=thread_read_root"));
  // FailingRead ends the thread at once; it gives back its reference.
  EXPECT_TRUE(WaitFor([root] { return root->use_thread.load() == -111; }));
  EXPECT_TRUE(WaitFor([root] { return root_use_count(root) == 1; }));
  // A second branch finds the root active: no second thread.
  ASSERT_NE(Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "d.2")}), nullptr);
  EXPECT_EQ(root->use_thread.load(), -111);
  EXPECT_EQ(Events(), (std::vector<std::string>{"MainCmd=24;", "MainCmd=24;"}));
}

// Branches join a tree whose read thread is walking it: every change to
// the tree's shape is made under the root's lock held for writing (the
// sanitizer builds catch a walk that sees a half-made change).
TEST_F(Build, BranchesJoinWhileTheReadThreadWalks) {
  opener.threading = 1;
  TreeNode* first = Branch(0, {Hop(&stream, "cam.1"), Hop(&stream, "d.0")});
  ASSERT_NE(first, nullptr);
  TreeRoot* root = node_find_root(first);
  ASSERT_TRUE(WaitFor([] { return written.load() > 0; }));
  std::vector<std::string> names;
  for (int i = 1; i <= 12; ++i) names.push_back("d." + std::to_string(i));
  for (const std::string& name : names)
    ASSERT_NE(Branch(0, {Hop(&stream, "cam.1"), Hop(&stream, name.c_str())}),
              nullptr);
  EXPECT_EQ(root_node(root)->nchildren, 13u);
  EXPECT_EQ(root->use_thread.load(), 2);
  EXPECT_EQ(root_use_count(root), 14);  // 13 branches and the thread
  const uint32_t before = written.load();
  EXPECT_TRUE(WaitFor([before] { return written.load() >= before + 13 * 16; }));
}

TEST_F(Build, FailedThreadStartKeepsNoReferenceAndNeverReachesState2) {
  opener.threading = 1;
  activate_test_fail_next_thread();
  TreeNode* leaf = Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "d.1")});
  ASSERT_NE(leaf, nullptr);
  TreeRoot* root = node_find_root(leaf);
  EXPECT_TRUE(log_.Has("active_branch: threading fail."));
  EXPECT_EQ(root->use_thread.load(), 1);
  EXPECT_EQ(root_use_count(root), 1);
  EXPECT_EQ(root_node(root)->active.load(), 1);
  EXPECT_EQ(Events(), std::vector<std::string>{"MainCmd=24;"});
}

TEST_F(Build, NetworkLeafWaitsForTheFarSideAndUnknownSidsAreDropped) {
  TreeNode* pipe =
      Branch(0, {Hop(&dev, "cam.1"), Hop(&dev, "enc.1"),
                 Hop(get_lan_cdef(), "net.lan")});
  ASSERT_NE(pipe, nullptr);
  EXPECT_EQ(pipe->active.load(), 0);
  EXPECT_TRUE(Events().empty());
  const std::string unterminated(70, 'x');
  cmdq_push("t", Tree_active_branch, 0, unterminated.data(), 5);
  cmdq_push("t", Tree_active_branch, 0, unterminated.c_str(), 71);
  cmdq_push("t", Tree_active_branch, 0, "nosuch", 7);
  Drain();
  EXPECT_TRUE(log_.Has(
      "Tree_active_branch(nosuch):forest_ref_tree_by_sid: NOT found"));
  EXPECT_EQ(pipe->active.load(), 0);
}

}  // namespace
