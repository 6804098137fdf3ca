// device/datapath.cc - the media path of a tree: the read thread of a
// threaded root, walk_tree, the node function transf and the deferred
// network writes (wr and its two jobs).
//
// One chunk, one road: the source's bytes are handed down without a copy;
// a Convert may replace them for its subtree, and each pipe node makes the
// one copy that its deferred job carries. Device leaves write during the
// walk, under the root's read lock; network writes run after the lock is
// released, on the same thread, in the order the walk queued them. A
// deferred job holds copies only (uids, pipe, bytes), never a node, so the
// tree may change between the walk and the send.
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "arbor/device_class.h"
#include "arbor/send.h"
#include "arbor/support.h"
#include "device/datapath.h"
#include "device/observe.h"
#include "mque/frame_pool.h"
#include "init/assert.h"

namespace {

// Idle pauses of the read thread: polling a root not yet active, and after
// an empty read. The zero-read line is logged every 64th time.
constexpr useconds_t kInactivePause = 3000;
constexpr useconds_t kEmptyReadPause = 1000;
constexpr uint32_t kZeroLogEvery = 64;

constexpr const char* kLanWriteError = "Lan_Write_error";

unsigned kernel_tid() { return static_cast<unsigned>(syscall(SYS_gettid)); }

const char* node_label(const TreeNode* node) {
  return node->name != nullptr ? node->name : "";
}

// ------------------------------------------------------ deferred writes

// Sends one chunk to every uid of a fan-out record (LAN), or with a null
// record to the WAN class's Write. A failed LAN send pushes the clean-up of
// that peer's sessions; the other peers are served all the same. Runs with
// no lock held. Cannot fail towards its caller.
void wr(const uint32_t* fanout, int32_t pipe, const void* data, uint32_t size,
        uint32_t flags) {
  ARBOR_LOG(3, "%s", "Nw");
  if (fanout == nullptr) {
    cdef* wan = get_wan_cdef();
    if (wan->Write != nullptr) {
      int32_t result = wan->Write(pipe, data, size, flags);
      if (result < 0) ARBOR_LOG(0, "wan Write: %d: %d", pipe, result);
    }
  } else {
    const uint32_t n = fanout[0];
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t uid = fanout[1 + i];
      int32_t result = sendasc(uid, pipe, data, size, flags);
      if (result < 0) {
        ARBOR_LOG(0, "sendasc: %d", result);
        cmdq_push("Tree_cleanup_byuid", Tree_cleanup_byuid,
                  reinterpret_cast<uintptr_t>(kLanWriteError), nullptr, uid);
      }
    }
  }
  ARBOR_LOG(3, "%s", "Nw return");
}

// The WriteJob's three words: the record, the pipe and the flag word.
enum : uint32_t { kJobBuffer = 0, kJobPipe = 1, kJobFlags = 2 };

// The bytes of a fan-out record (count, uids, size, chunk) and of a WAN
// record (size, chunk): what frame_alloc was asked for, which frame_free
// must be told again. The records come from the frame pool, since each
// holds a whole chunk and one is made for every chunk.
size_t lan_record_bytes(uint32_t peers, uint32_t size) {
  return size + (static_cast<size_t>(peers) + 2) * sizeof(uint32_t);
}
size_t wan_record_bytes(uint32_t size) { return size + sizeof(uint32_t); }

void wr_lan_job(uintptr_t* job) {
  auto* record = reinterpret_cast<uint32_t*>(job[kJobBuffer]);
  const uint32_t n = record[0];
  wr(record, static_cast<int32_t>(job[kJobPipe]), record + n + 2,
     record[n + 1], static_cast<uint32_t>(job[kJobFlags]));
  frame_free(record, lan_record_bytes(n, record[n + 1]));
}

void wr_wan_job(uintptr_t* job) {
  auto* record = reinterpret_cast<uint32_t*>(job[kJobBuffer]);
  wr(nullptr, static_cast<int32_t>(job[kJobPipe]), record + 1, record[0],
     static_cast<uint32_t>(job[kJobFlags]));
  frame_free(record, wan_record_bytes(record[0]));
}

// Queues fn with record (bytes long). When the list cannot grow, the record
// is freed here and the chunk is lost for this pipe node, like any other
// allocation failure of the walk: without a message, since a walk runs per
// chunk.
void queue_write(ResponseList* respr, ResponseFn fn, uint32_t* record,
                 size_t bytes, const TreeNode* node, uint32_t flags) {
  const uintptr_t job[3] = {reinterpret_cast<uintptr_t>(record),
                            static_cast<uintptr_t>(node->xfd.load()), flags};
  if (append_response(respr, fn, job) < 0) frame_free(record, bytes);
}

// ------------------------------------------------------- node functions

// A LAN pipe node: one record for all its peers, active or not.
void lan_fanout(ResponseList* respr, const TreeNode* node, const void* data,
                uint32_t size, uint32_t flags) {
  const uint32_t n = node->nchildren;
  if (n == 0) return;
  const size_t bytes = lan_record_bytes(n, size);
  auto* record = static_cast<uint32_t*>(frame_alloc(bytes));
  if (record == nullptr) return;
  record[0] = n;
  // The walk stops here, so each peer node is counted as it is named.
  for (uint32_t i = 0; i < n; ++i) {
    record[1 + i] = static_cast<uint32_t>(node->children[i]->xfd.load());
    observe_count(node->children[i], size);
  }
  record[n + 1] = size;
  std::memcpy(record + n + 2, data, size);
  queue_write(respr, wr_lan_job, record, bytes, node, flags);
}

// A WAN pipe node: one write however many children, none without an
// active child.
void wan_record(ResponseList* respr, const TreeNode* node, const void* data,
                uint32_t size, uint32_t flags) {
  bool any_active = false;
  for (uint32_t i = 0; i < node->nchildren; ++i) {
    if (node->children[i]->active == 0) continue;
    any_active = true;
    observe_count(node->children[i], size);  // the walk stops here
  }
  if (!any_active) return;
  const size_t bytes = wan_record_bytes(size);
  auto* record = static_cast<uint32_t*>(frame_alloc(bytes));
  if (record == nullptr) return;
  record[0] = size;
  std::memcpy(record + 1, data, size);
  queue_write(respr, wr_wan_job, record, bytes, node, flags);
}

// A device leaf writes synchronously; a short or failed write is logged
// and the rest dropped: the session stays.
void leaf_write(const TreeNode* node, const void* data, uint32_t size,
                uint32_t flags) {
  if (node->device->Write == nullptr) return;
  const int32_t xfd = node->xfd;
  int32_t result = node->device->Write(xfd, data, size, flags);
  if (result < 0) {
    ARBOR_LOG(0, "Write: %s,%d: %d", node_label(node), xfd, result);
  } else if (static_cast<uint32_t>(result) < size) {
    ARBOR_LOG(0, "Write: %s,%d: %d, less than %u", node_label(node), xfd,
              result, size);
  }
}

// A device with Convert. Bytes held back from the previous chunk go first;
// input Convert did not consume is held back for the next one. Returns the
// produced heap buffer, or null: nothing for the children this time.
const void* convert_chunk(TreeNode* node, uint32_t* out_size,
                          const void* data, uint32_t size, uint32_t flags) {
  const void* input = data;
  void* merged = nullptr;
  if (node->pending_size > 0) {
    const auto held = static_cast<uint32_t>(node->pending_size);
    merged = std::realloc(node->pending, static_cast<size_t>(held) + size);
    if (merged == nullptr) return nullptr;  // held-back bytes stay
    std::memcpy(static_cast<char*>(merged) + held, data, size);
    node->pending = nullptr;
    node->pending_size = 0;
    input = merged;
    size += held;
  }
  cdef* cls = node->device;
  const int32_t xfd = node->xfd;
  uint32_t private_flags = flags;  // what Convert writes here goes no further
  uint32_t in_size = size;
  uint32_t need = 0;
  void* out = nullptr;
  if (cls->Convert(xfd, input, &in_size, nullptr, &need, &private_flags) >= 0 &&
      need > 0 && (out = std::malloc(need)) != nullptr) {
    in_size = size;
    uint32_t produced = need;
    if (cls->Convert(xfd, input, &in_size, out, &produced, &private_flags) <
        0) {
      std::free(out);
      out = nullptr;
    } else {
      if (in_size < size) {
        const uint32_t rest = size - in_size;
        void* tail = std::malloc(rest);
        if (tail != nullptr) {  // else the tail is lost
          std::memcpy(tail, static_cast<const char*>(input) + in_size, rest);
          node->pending = tail;
          node->pending_size = static_cast<int32_t>(rest);
        }
      }
      *out_size = produced;
    }
  }
  std::free(merged);
  return out;
}

}  // namespace

// The ways, in the order they are tested: root, LAN pipe node, WAN pipe
// node, leaf (a node that never had a child), device without Convert,
// device with it. A node that lost all its children keeps its array and so
// is not a leaf.
const void* transf(ResponseList* respr, TreeNode* node, uint32_t* out_size,
                   const void* data, uint32_t size, uint32_t flags) {
  ARBOR_ASSERT(node != nullptr && node->device != nullptr,
               "node && node->device");
  if (node->parent == nullptr) {
    *out_size = size;
    return data;
  }
  if (node->device == get_lan_cdef()) {
    lan_fanout(respr, node, data, size, flags);
    return nullptr;
  }
  if (node->device == get_wan_cdef()) {
    if (node->nchildren != 0) wan_record(respr, node, data, size, flags);
    return nullptr;
  }
  if (node->children == nullptr) {
    leaf_write(node, data, size, flags);
    return nullptr;
  }
  if (node->device->Convert == nullptr) {
    *out_size = size;
    return data;
  }
  return convert_chunk(node, out_size, data, size, flags);
}

// Known cost: one call per active node per chunk, recursion as deep as the
// tree (at most TREE_MAX_HOPS).
int32_t walk_tree(ResponseList* respr, TreeNode* node, NodeFn fn,
                  const void* data, uint32_t size, uint32_t flags) {
  uint32_t out_size = 0;
  observe_count(node, size);
  const void* out = fn(respr, node, &out_size, data, size, flags);
  if (out == nullptr) return 0;
  int32_t count = 0;
  for (uint32_t i = 0; i < node->nchildren; ++i) {
    TreeNode* child = node->children[i];
    if (child->active == 0) continue;
    count += 1 + walk_tree(respr, child, fn, out, out_size, flags);
  }
  if (out != data) std::free(const_cast<void*>(out));
  return count;
}

// A buffer that cannot be allocated ends the thread at once; unlike the
// other ends it cannot leave use_thread as it was: a sweep joins only a
// thread that has set -111, and a root whose thread is never joined would
// keep the stop waiting. So every way out sets -111 before the reference
// goes, and the sweep joins and frees as for any ended thread.
void* thread_read_root(void* arg) {
  auto* root = static_cast<TreeRoot*>(arg);
  pthread_setname_np(pthread_self(), "arbor-read");
  TreeNode* node = root_node(root);
  const char* name = node_label(node);
  ARBOR_LOG(2, "thread: %s:%x: %s", "thread_read_root", kernel_tid(), name);
  auto* buffer = static_cast<unsigned char*>(std::malloc(kRdSize));
  if (buffer != nullptr) {
    uint32_t zero_reads = 0;
    int32_t nread = 0;
    ResponseList list{};
    while (root->use_thread > 0) {
      uint32_t flags = 0;
      if (root->node.active == 0) {
        usleep(kInactivePause);
        continue;
      }
      const int32_t xfd = node->xfd;
      // A class that asked for a read thread without a Read slot has
      // nothing to read: the thread ends as after a failed read.
      if (xfd == -1 || node->device->Read == nullptr) break;
      ARBOR_LOG(3, "%s read-start: dev=%p", name,
                static_cast<void*>(node->device));
      nread = node->device->Read(xfd, buffer, kRdSize, &flags);
      flags |= kFlagMedia;
      // A driver that claims more than the buffer holds has broken its
      // contract; the bytes behind the buffer are not ours to read. A driver
      // must not stop the process: the read counts as failed.
      if (nread > static_cast<int32_t>(kRdSize)) {
        ARBOR_LOG(0, "%s: nrd <= Rd_Size: %d > %u, read refused.",
                  "thread_read_root", nread, kRdSize);
        nread = -1;
      }
      if (root->use_thread < 0) break;
      if (nread < 0) {
        ARBOR_LOG(0, "%s:%s(%d, ...): %d, FLAG=%#x.", "thread_read_root", name,
                  xfd, nread, flags);
        break;
      }
      if (nread == 0) {
        if (++zero_reads % kZeroLogEvery == 0)
          ARBOR_LOG(1, "%s: %u-times ZERO.", name, zero_reads);
        usleep(kEmptyReadPause);
        continue;
      }
      // Lock order: root->lock only; nothing else is taken under it here.
      QVRLock(&root->lock);
      if (node->nchildren == 0) {
        QVXUNLock(&root->lock);
        break;
      }
      int32_t reached = 0;
      if (node->active != 0)
        reached = walk_tree(&list, node, transf, buffer,
                            static_cast<uint32_t>(nread), flags);
      QVXUNLock(&root->lock);
      // The network writes, with no lock held. A chunk that reached an
      // active node is no sign of trouble even when no network write
      // followed (a chain of device sinks): the line below is kept for a
      // chunk that went nowhere, or it would repeat for every chunk.
      if (respond(&list) > 0 || reached > 0) continue;
      QVRLock(&root->lock);
      ARBOR_LOG(1, "%s: no actived?: use-thread=%d, nchildren=%u, nread=%d",
                name, root->use_thread.load(), node->nchildren, nread);
      for (int32_t i = 0; i < root->leaves_size; ++i) {
        const LeafIndexEntry& row = root->leaves[i];
        Tree_BRANCH_DBG_PRINT(row.sid, row.uid, row.ascode, row.leaf);
      }
      QVXUNLock(&root->lock);
    }
    QVRLock(&root->lock);
    const uint32_t nchildren = node->nchildren;
    QVXUNLock(&root->lock);
    ARBOR_LOG(1, "%s: joinable: use-thread=%d, nchildren=%u, read: %d", name,
              root->use_thread.load(), nchildren, nread);
    std::free(buffer);
  }
  root->use_thread = -111;
  ARBOR_LOG(1, "%s exit: %s", "thread_read_root", name);
  root_unref(root);
  return nullptr;
}
