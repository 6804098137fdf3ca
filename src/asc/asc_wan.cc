// asc/asc_wan.cc - the service table: rows that map the service's wire codes
// to handlers, registered by the host and named by the sign-in reply.
//
// The sign-in reply renames rows on the transport's thread while host
// threads look services up by name (NetSend) and other transport threads
// dispatch, so the table has a read-write lock (see asc_internal.h), and it
// keeps what a reader may hold still in place:
//  - Rows live on the heap, one allocation each; the table is an array of
//    pointers to them, grown by one entry per new row. A row never moves,
//    so the pointer asc_get_byname hands out stays valid while the array
//    grows, until asc_uninit frees everything.
//  - A name that asc_put_code_name replaces is not freed but retired, kept
//    in a list that asc_uninit frees, since a caller may still be reading it.
//    Known cost: every real rename keeps its old name until SysExit. A reply
//    that gives a row the name it already has keeps that one and costs
//    nothing, which is the common case at a new sign-in.
//  - A row's fields are changed with atomic stores (release), so that a
//    caller reading a row it holds, with atomic loads, is well defined.
// Rows are never removed before asc_uninit. Searches are linear: the table
// holds a handful of rows and every message from the service pays one.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include "arbor/asc.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "asc/asc_internal.h"

namespace {

// The name of every row that the sign-in reply has not named yet. Shared by
// all such rows and never freed.
char asc_empty_name_[1] = "";

// Guards the four words below and every field of every row.
std::shared_mutex asc_rows_lock_;
ServiceRow** asc_rows_ = nullptr;  // in the order rows were made
uint32_t asc_nrows_ = 0;
char** asc_retired_ = nullptr;  // replaced names, freed at asc_uninit
uint32_t asc_nretired_ = 0;

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

// Stores one field of a published row (convention 5 of asc.h). The caller
// holds the lock exclusive. Cannot fail.
template <typename T>
void asc_store(T& field, T value) {
  std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

// A new row: type and code both type, the shared empty name, no handler.
// Null when memory runs out.
ServiceRow* asc_new_row(int32_t type) {
  void* raw = std::malloc(sizeof(ServiceRow));
  if (raw == nullptr) return nullptr;
  auto* row = static_cast<ServiceRow*>(raw);
  *row = ServiceRow{type, type, asc_empty_name_, nullptr};
  return row;
}

// The row whose AsType is type, or null. The caller holds the lock.
ServiceRow* asc_find_type(int32_t type) {
  for (uint32_t i = 0; i < asc_nrows_; ++i) {
    if (asc_rows_[i]->AsType == type) return asc_rows_[i];
  }
  return nullptr;
}

// The first row named name, or null. The caller holds the lock.
ServiceRow* asc_find_name(const char* name) {
  for (uint32_t i = 0; i < asc_nrows_; ++i) {
    if (std::strcmp(asc_rows_[i]->AsName, name) == 0) return asc_rows_[i];
  }
  return nullptr;
}

// Makes a row for type with handler and appends it. Null when memory runs
// out; the table then holds the same rows (its array may have grown). The
// caller holds the lock exclusive.
ServiceRow* asc_append_row(int32_t type, ServiceHandler handler) {
  void* grown =
      std::realloc(asc_rows_, (size_t{asc_nrows_} + 1) * sizeof(ServiceRow*));
  if (grown == nullptr) return nullptr;
  asc_rows_ = static_cast<ServiceRow**>(grown);
  ServiceRow* row = asc_new_row(type);
  if (row == nullptr) return nullptr;
  row->handler = handler;  // not published yet: a plain store will do
  asc_rows_[asc_nrows_++] = row;
  return row;
}

// Makes room for one more retired name (the list grows by 8). False when
// memory runs out; the list is then as it was. The caller holds the lock
// exclusive.
bool asc_retire_room() {
  if (asc_nretired_ % 8 != 0) return true;
  void* grown =
      std::realloc(asc_retired_, (size_t{asc_nretired_} + 8) * sizeof(char*));
  if (grown == nullptr) return false;
  asc_retired_ = static_cast<char**>(grown);
  return true;
}

}  // namespace

extern "C" ARBOR_EXPORT int32_t SysRegistAS(int32_t type,
                                            ServiceHandler handler) {
  {
    std::unique_lock lock(asc_rows_lock_);
    if (ServiceRow* row = asc_find_type(type)) {
      asc_store(row->handler, handler);
      return 0;
    }
    if (handler == nullptr) return 0;
    if (asc_append_row(type, handler) == nullptr) {
      lock.unlock();
      ARBOR_LOG(0, "out of memory registering service %d", type);
      return 0;
    }
  }
  ARBOR_LOG(3, "%s: 'id=%d, name=%s' registered.", __func__, type,
            asc_empty_name_);
  return 1;
}

// The copy is made before the lock is taken, and the room to retire the old
// name is found before anything changes, so a failure leaves the row as it
// was. A row made here has the empty name, which is never retired, so
// making it is the last step that can fail.
extern "C" ARBOR_EXPORT int32_t asc_put_code_name(int32_t type, int32_t code,
                                                  const char* name) {
  if (name == nullptr) {
    ARBOR_LOG(0, "service %d/%d without a name refused", type, code);
    return 0;
  }
  std::unique_ptr<char, FreeDeleter> copy(stringdup(name));
  if (copy == nullptr) {
    ARBOR_LOG(0, "out of memory naming service %d '%s'", type, name);
    return 0;
  }
  std::unique_lock lock(asc_rows_lock_);
  ServiceRow* row = asc_find_type(type);
  if (row == nullptr) row = asc_append_row(type, nullptr);
  if (row == nullptr ||
      (row->AsName != asc_empty_name_ && std::strcmp(row->AsName, name) != 0 &&
       !asc_retire_room())) {
    lock.unlock();
    ARBOR_LOG(0, "out of memory naming service %d '%s'", type, name);
    return 0;
  }
  asc_store(row->AsCode, code);
  if (std::strcmp(row->AsName, name) == 0) return 0;  // keeps its own copy
  if (row->AsName != asc_empty_name_)
    asc_retired_[asc_nretired_++] = row->AsName;
  asc_store(row->AsName, copy.release());
  return 0;
}

extern "C" ARBOR_EXPORT ServiceRow* asc_get_byname(const char* name) {
  if (name == nullptr) return nullptr;
  std::shared_lock lock(asc_rows_lock_);
  return asc_find_name(name);
}

bool asc_copy_byname(const char* name, ServiceRow* out) {
  if (name == nullptr) return false;
  std::shared_lock lock(asc_rows_lock_);
  const ServiceRow* row = asc_find_name(name);
  if (row == nullptr) return false;
  *out = *row;
  return true;
}

// The handler is taken under the lock and called after it is released: it
// may register or rename rows itself.
int32_t asc_wan_dispatch(int32_t code, const char* data, uint32_t size) {
  ServiceHandler handler = nullptr;
  {
    std::shared_lock lock(asc_rows_lock_);
    for (uint32_t i = 0; i < asc_nrows_; ++i) {
      if (asc_rows_[i]->AsCode == code) {
        handler = asc_rows_[i]->handler;
        break;
      }
    }
  }
  return handler != nullptr ? handler(size, data) : 0;
}

void asc_wan_clear() {
  std::unique_lock lock(asc_rows_lock_);
  for (uint32_t i = 0; i < asc_nrows_; ++i) {
    if (asc_rows_[i]->AsName != asc_empty_name_)
      std::free(asc_rows_[i]->AsName);
    std::free(asc_rows_[i]);
  }
  std::free(asc_rows_);
  asc_rows_ = nullptr;
  asc_nrows_ = 0;
  for (uint32_t i = 0; i < asc_nretired_; ++i) std::free(asc_retired_[i]);
  std::free(asc_retired_);
  asc_retired_ = nullptr;
  asc_nretired_ = 0;
}
