/*
 * cdef/cdef_internal.h - the class table as the engine sees it: the device
 * callback that drivers receive, the lock-free lookup of a class's number
 * that the callback uses, and the seams through which tests reach the class
 * table and the LAN pipe table.
 */
#ifndef ARBOR_SRC_CDEF_CDEF_INTERNAL_H
#define ARBOR_SRC_CDEF_CDEF_INTERNAL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "arbor/cdef.h"

// Local subscriber codes: the class at position n of the table subscribes
// under kCdefLocalAscBase + n, with uid 0.
constexpr int32_t kCdefLocalAscBase = 28672;  // 0x7000

// One generation of the class array: `capacity` class pointers follow the
// header in the same allocation (cdef_array_slots). A generation that a
// larger one replaced is kept, chained through `replaced`, until
// cdef_uninit: a reader that loaded it without the class mutex may still be
// walking it.
struct CdefArray {
  CdefArray* replaced;
  uint32_t capacity;
};

inline cdef** cdef_array_slots(CdefArray* array) {
  return reinterpret_cast<cdef**>(array + 1);
}

// The class table. Written only with `mutex` (the class mutex) held; the
// class number lookups read it without the mutex, so the entry at a position
// is stored before `count` covers it, and a new generation is fully copied
// before `classes` points to it (both with release order).
struct DeviceTable {
  std::mutex mutex;
  std::atomic<uint32_t> count;
  std::atomic<CdefArray*> classes;
};

extern DeviceTable device_;

// The callback every class receives from SysRegisterDev (DeviceCallback
// shape). Any thread; takes no lock of the class table.
void local_device_callback(const cdef* cls, const char* var, const void* data,
                           uint32_t size);

// The position of cls in the class table (its first one, if registered
// twice), or -1 when it is not there. Lock-free and safe against a
// concurrent SysRegisterDev: see cdef_table.cc. Never blocks.
int32_t cdef_class_index(const cdef* cls);

// The number of registered classes, and the class at position n (null past
// the end). Lock-free like cdef_class_index.
uint32_t cdef_class_count();
cdef* cdef_class_at(uint32_t n);

// Test seam: lets `after` more allocations of the class table and the pipe
// table succeed, then fails every further one; a negative value lets them
// all succeed again. The engine never calls it.
void cdef_test_fail_allocs(int32_t after);

// Test seams on the pipe table: the next number to try, and the count of
// numbers in use. The engine never calls them.
uint16_t lan_pipe_test_next();
void lan_pipe_test_set_next(uint16_t next);
uint32_t lan_pipe_test_count();

// Allocation through the test seam: realloc, or null (p unchanged) when the
// seam says this allocation must fail.
void* cdef_realloc(void* p, size_t size);

#endif  // ARBOR_SRC_CDEF_CDEF_INTERNAL_H
