// rsc/neigh_table.cc - the NeighbourTable: the qvids of LAN peers that speak
// the old encoding of dictionaries.
//
// Two words, a count and an array, that live as long as the process: nothing
// frees them, so a sender that runs late at exit still finds them. The
// writer is the LAN neighbour handler on the transport's thread; the readers
// are every thread that sends on the LAN (consumer, read threads, timed
// queue's worker, host threads). Growth moves the array, so the readers need
// the lock as much as the writer does. The lock is a pthread read-write lock
// with its static initialiser: ready before any constructor runs and never
// destroyed, unlike a std::shared_mutex, whose destructor could run under a
// thread still sending at exit. Readers share it; glibc's default lets a
// steady stream of readers delay the writer, which is harmless here since
// each hold is one short linear search.
#include "rsc/neigh_table.h"

#include <pthread.h>

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>

#include "arbor/support.h"

namespace {

constexpr int32_t kNeighGrowth = 8;

// SharedLockable over a statically initialised pthread_rwlock_t, so that the
// standard lock guards apply. Trivially destructible on purpose (see above).
class NeighLock {
 public:
  void lock() { pthread_rwlock_wrlock(&rw_); }
  void unlock() { pthread_rwlock_unlock(&rw_); }
  void lock_shared() { pthread_rwlock_rdlock(&rw_); }
  void unlock_shared() { pthread_rwlock_unlock(&rw_); }

 private:
  pthread_rwlock_t rw_ = PTHREAD_RWLOCK_INITIALIZER;
};

struct NeighbourTable {
  NeighLock lock;
  int32_t count = 0;          // guarded by lock
  uint32_t* qvids = nullptr;  // guarded by lock; count entries in use
};

constinit NeighbourTable neigh_table_;

// The index of qvid among the entries in use, or -1. Caller holds the lock.
int32_t neigh_find_locked(uint32_t qvid) {
  for (int32_t i = 0; i < neigh_table_.count; ++i)
    if (neigh_table_.qvids[i] == qvid) return i;
  return -1;
}

}  // namespace

int32_t neigh_index(uint32_t qvid) {
  std::shared_lock<NeighLock> hold(neigh_table_.lock);
  return neigh_find_locked(qvid);
}

int32_t neigh_table_add(uint32_t qvid) {
  std::unique_lock<NeighLock> hold(neigh_table_.lock);
  int32_t index = neigh_find_locked(qvid);
  if (index >= 0) return index;
  index = neigh_table_.count;
  if (index % kNeighGrowth == 0) {
    // An int32_t count cannot pass INT32_MAX; qvids are 32-bit, so a table
    // that full cannot happen short of a fault, and is refused like no memory.
    void* grown = index <= INT32_MAX - kNeighGrowth
                      ? std::realloc(neigh_table_.qvids,
                                     (static_cast<size_t>(index) + kNeighGrowth) *
                                         sizeof(uint32_t))
                      : nullptr;
    if (grown == nullptr) {
      hold.unlock();  // the log takes a lock of its own
      ARBOR_LOG(0, "%u: no room in the table of old peers", qvid);
      return -1;
    }
    neigh_table_.qvids = static_cast<uint32_t*>(grown);
  }
  neigh_table_.qvids[index] = qvid;
  neigh_table_.count = index + 1;
  return index;
}

int32_t neigh_table_remove(uint32_t qvid) {
  std::unique_lock<NeighLock> hold(neigh_table_.lock);
  int32_t index = neigh_find_locked(qvid);
  if (index < 0) return -1;
  int32_t last = --neigh_table_.count;
  neigh_table_.qvids[index] = neigh_table_.qvids[last];
  return index;
}

int32_t neigh_table_count(void) {
  std::shared_lock<NeighLock> hold(neigh_table_.lock);
  return neigh_table_.count;
}
