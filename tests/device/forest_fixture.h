// The forest tests' fixture: fake driver classes that record what the
// engine asks of them, trees built by hand from the forest's own records,
// a fake read thread, and a start and stop that end with "nothing left".
#ifndef ARBOR_TESTS_DEVICE_FOREST_FIXTURE_H
#define ARBOR_TESTS_DEVICE_FOREST_FIXTURE_H

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "arbor/device_class.h"
#include "arbor/forest.h"
#include "arbor/strutils.h"
#include "arbor/sys.h"
#include "device/forest.h"
#include "init/sys_state.h"
#include "test_helpers.h"

namespace forest_test {

// What the fake drivers were asked, in order. They run on the consumer,
// the timed queue's worker or a read thread, hence the lock.
inline std::mutex driver_mutex;
inline std::vector<int32_t> closes;
inline std::vector<std::string> events;
inline std::map<int32_t, std::vector<std::string>> writes;  // by xfd
inline std::vector<uint32_t> write_flags;
template <typename T>
T Locked(const T& v) {
  std::lock_guard hold(driver_mutex);
  return v;
}
inline std::vector<int32_t> Closes() { return Locked(closes); }
inline std::vector<std::string> Events() { return Locked(events); }

// A device that records; and a class whose optional slots are all missing.
inline cdef camera = [] {
  cdef cls{};
  cls.Write = [](int32_t xfd, const void* data, uint32_t size, uint32_t flags) {
    std::lock_guard hold(driver_mutex);
    writes[xfd].emplace_back(static_cast<const char*>(data), size);
    write_flags.push_back(flags);
    return static_cast<int32_t>(size);
  };
  cls.Close = [](int32_t xfd) {
    std::lock_guard hold(driver_mutex);
    closes.push_back(xfd);
    return 0;
  };
  cls.DoEvent = [](const char*, int32_t, const char* text) {
    std::lock_guard hold(driver_mutex);
    events.emplace_back(text);
    return 0;
  };
  return cls;
}();
inline cdef bare{};

// An opened root, not linked. Active unless told otherwise.
inline TreeRoot* Root(cdef* cls, int32_t xfd, uint32_t uid = 0,
                      const char* name = "root") {
  TreeRoot* root = root_new();
  root->node.device = cls;
  root->node.name = stringdup(name);
  root->node.xfd = xfd;
  root->node.active = 1;
  root->uid = uid;
  QVInitRWLock(&root->lock);
  return root;
}

// A node under parent (null: the top of a detached chain).
inline TreeNode* Node(TreeNode* parent, cdef* cls, int32_t xfd,
                      int32_t active = 1, const char* name = "node") {
  TreeNode* node = node_new();
  node->device = cls;
  node->name = stringdup(name);
  node->xfd = xfd;
  node->active = active;
  if (parent == nullptr) return node;
  if (parent->nchildren % 8 == 0) {
    parent->children = static_cast<TreeNode**>(std::realloc(
        parent->children, (parent->nchildren + 8) * sizeof(TreeNode*)));
  }
  parent->children[parent->nchildren++] = node;
  node->parent = parent;
  return node;
}
// A node hung directly on a root takes the root's reference for its branch.
inline TreeNode* Hang(TreeRoot* root, cdef* cls, int32_t xfd,
                      int32_t active = 1, const char* name = "node") {
  root_ref(root);
  return Node(root_node(root), cls, xfd, active, name);
}

// A session row on leaf's root, as forest_index_leaf will make it: the
// first row naming the root itself holds a reference (tests make one only).
inline void Row(TreeNode* leaf, const char* sid, uint32_t uid,
                int32_t ascode = 100) {
  TreeRoot* root = node_find_root(leaf);
  if (leaf == root_node(root)) root_ref(root);
  root->leaves = static_cast<LeafIndexEntry*>(std::realloc(
      root->leaves, (root->leaves_size + 1) * sizeof(LeafIndexEntry)));
  root->leaves[root->leaves_size++] = {stringdup(sid), leaf, uid, ascode, 0};
}

// A read thread as the forest sees one: it holds a reference, runs in state
// 2 and, when told (-1), sets -111 and drops its reference last.
inline void* FakeReader(void* arg) {
  auto* root = static_cast<TreeRoot*>(arg);
  WaitFor([root] { return root->use_thread.load() != 2; });
  root->use_thread = -111;
  root_unref(root);
  return nullptr;
}
inline void StartReader(TreeRoot* root) {
  root_ref(root);
  root->use_thread = 2;
  pthread_create(&root->thread, nullptr, FakeReader, root);
}

// Runs fn on the consumer and waits until it has run.
inline void OnConsumer(std::function<void()> fn) {
  struct Job {
    std::function<void()> fn;
    std::atomic<bool> done{false};
  } job{std::move(fn)};
  auto run = [](uintptr_t arg, const void*, uint32_t) {
    auto* j = reinterpret_cast<Job*>(arg);
    j->fn();
    j->done = true;  // the last touch of j: the caller may return now
  };
  ASSERT_NE(cmdq_push("job", run, reinterpret_cast<uintptr_t>(&job), nullptr,
                      0), nullptr);
  ASSERT_TRUE(WaitFor([&job] { return job.done.load(); }));
}
inline void Drain() { OnConsumer([] {}); }

inline void Push(CommandHandler fn, const char* reason, const std::string& sid,
                 uint32_t size) {
  cmdq_push("test", fn, reinterpret_cast<uintptr_t>(reason), sid.c_str(),
            size);
}
inline void Destroy(const std::string& sid, const char* reason = nullptr) {
  Push(Tree_destroy_branch, reason, sid, static_cast<uint32_t>(sid.size() + 1));
}

// Texts sent to LAN peer `peer` (every peer for -1) and to the service.
inline std::vector<std::string> LanTexts(int peer = -1) {
  std::vector<std::string> texts;
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_LAN_NET_WRITE, i, &call) == 0;
       ++i)
    if (peer < 0 || call.peer == peer) texts.push_back(Payload(call));
  return texts;
}
inline std::string SessionDelete(const std::string& sid,
                                 const std::string& coz) {
  return "sidN=" + sid + ";MainCmd=SessionDelete;coz=" + coz + ";";
}

// Starts the library with the forest; the stop ends every case with the
// forest swept, nothing queued, no consumer and no payload byte counted.
class ForestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SysInit(nullptr);
    sys_.wan_state = QVNETS_SUCCESS;
    sys_.lan_state = 0;
    if (!cmdq_running()) {
      device_initialize();
      device_start();
      started_ = true;
    }
  }
  void TearDown() override {
    if (started_) {
      device_stop();
      device_exit();
    }
    SysExit();
    EXPECT_EQ(forest_.head.next, nullptr);
    EXPECT_EQ(cmdq_queued(), 0u);
    EXPECT_EQ(cmdq_cached_total(), 0u);
    EXPECT_FALSE(cmdq_running());
  }
  LogCapture log_{3};
  bool started_ = false;
};

}  // namespace forest_test

#endif  // ARBOR_TESTS_DEVICE_FOREST_FIXTURE_H
