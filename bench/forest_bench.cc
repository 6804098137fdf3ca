// The media path's throughput: a read thread pulls 63,488-byte chunks from
// a source and pushes each down its tree, to device sinks through one
// pass-through transform, or through a LAN pipe node to scripted-transport
// peers. Each iteration hands the source a batch of chunks and waits until
// the last consumer has had them, so the figures are chunks and bytes per
// second of the whole road (read, walk, writes, deferred sends).
//
// The source copies each chunk into the thread's buffer as a real driver
// would. The scripted transport copies and keeps every payload it records;
// its records are dropped between iterations outside the timing. Logging is
// at level 0.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "arbor/device_class.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "device/datapath.h"
#include "device/forest.h"
#include "init/sys_state.h"
#include "scripted_transport.h"
#include "sink_count.h"

namespace {

constexpr uint32_t kChunk = 63488;
constexpr uint64_t kBatch = 64;

// The source hands out one chunk per credit; closing it ends the thread.
struct Feed {
  std::mutex mutex;
  std::condition_variable cv;
  uint64_t credits = 0;
  bool closed = false;
  std::string chunk = std::string(kChunk, 'c');
};
Feed feed;

int32_t source_read(int32_t, void* buffer, uint32_t size, uint32_t*) {
  std::unique_lock hold(feed.mutex);
  feed.cv.wait(hold, [] { return feed.closed || feed.credits > 0; });
  if (feed.closed) return -1;
  --feed.credits;
  hold.unlock();
  std::memcpy(buffer, feed.chunk.data(), size < kChunk ? size : kChunk);
  return static_cast<int32_t>(kChunk);
}
int32_t source_close(int32_t) {
  std::lock_guard hold(feed.mutex);
  feed.closed = true;
  feed.cv.notify_all();
  return 0;
}
int32_t nop_close(int32_t) { return 0; }

cdef make_class(bool source) {
  cdef cls{};
  cls.Close = source ? source_close : nop_close;
  if (source) cls.Read = source_read;
  else cls.Write = sink_write;
  return cls;
}
cdef source_class = make_class(true);
cdef device_class = make_class(false);

TreeNode* add_node(TreeNode* parent, cdef* cls, int32_t xfd) {
  TreeNode* node = node_new();
  node->device = cls;
  node->name = stringdup("bench");
  node->xfd = xfd;
  node->active = 1;
  if (parent->nchildren % 8 == 0) {
    parent->children = static_cast<TreeNode**>(std::realloc(
        parent->children, (parent->nchildren + 8) * sizeof(TreeNode*)));
  }
  parent->children[parent->nchildren++] = node;
  node->parent = parent;
  return node;
}

TreeRoot* make_root() {
  TreeRoot* root = root_new();
  root->node.device = &source_class;
  root->node.name = stringdup("source");
  root->node.xfd = 3;
  root->node.active = 1;
  QVInitRWLock(&root->lock);
  return root;
}

// The tree is never linked into the forest: the bench owns it, starts its
// read thread as the activation does, and takes it down itself.
void start(TreeRoot* root) {
  {
    std::lock_guard hold(feed.mutex);
    feed.closed = false;
    feed.credits = 0;
  }
  count.writes = 0;
  root_ref(root);
  root->use_thread = 2;
  pthread_create(&root->thread, nullptr, thread_read_root, root);
}
void stop(TreeRoot* root) {
  root->use_thread = -1;
  source_close(3);
  pthread_join(root->thread, nullptr);
  root->use_thread = 0;
  QVWLock(&root->lock);
  root_prune(root);
  QVXUNLock(&root->lock);
  _destroy_root(root);
}
void give(uint64_t chunks) {
  std::lock_guard hold(feed.mutex);
  feed.credits += chunks;
  feed.cv.notify_all();
}

void report(benchmark::State& state) {
  const auto chunks = static_cast<int64_t>(state.iterations() * kBatch);
  state.SetItemsProcessed(chunks);
  state.SetBytesProcessed(chunks * kChunk);
}

// source -> pass-through -> n device sinks
void BM_DeviceSinks(benchmark::State& state) {
  LOG_SetLevel(0);
  const auto sinks = static_cast<uint64_t>(state.range(0));
  TreeRoot* root = make_root();
  root_ref(root);
  TreeNode* mid = add_node(root_node(root), &device_class, 10);
  for (uint64_t i = 0; i < sinks; ++i)
    add_node(mid, &device_class, static_cast<int32_t>(20 + i));
  start(root);
  uint64_t expected = 0;
  for (auto _ : state) {
    expected += kBatch * sinks;
    count.target = expected;
    give(kBatch);
    count.wait_for_target();
  }
  stop(root);
  report(state);
}

// source -> LAN pipe node -> n peers of the scripted transport
void BM_LanPeers(benchmark::State& state) {
  LOG_SetLevel(0);
  sys_.lan_state = 0;
  const auto peers = static_cast<uint64_t>(state.range(0));
  TreeRoot* root = make_root();
  root_ref(root);
  TreeNode* pipe = add_node(root_node(root), get_lan_cdef(), 1024);
  for (uint64_t i = 0; i < peers; ++i)
    add_node(pipe, get_lan_cdef(), static_cast<int32_t>(7 + i));
  scripted_reset();
  start(root);
  for (auto _ : state) {
    give(kBatch);
    scripted_wait_calls(SCRIPTED_LAN_NET_WRITE, kBatch * peers, 60000);
    state.PauseTiming();
    scripted_reset();
    state.ResumeTiming();
  }
  stop(root);
  scripted_reset();
  report(state);
}

BENCHMARK(BM_DeviceSinks)->Arg(1)->Arg(2)->Arg(8)->UseRealTime();
BENCHMARK(BM_LanPeers)->Arg(1)->Arg(8)->UseRealTime();

}  // namespace
