// cdef/cdef_table.cc - the device class table `device_`: the engine's three
// own classes, registration, lookup by resource name, and the device command
// handler cdef_res_control.
//
// The table only grows while the library runs. Two kinds of reader meet
// here: the searches by name hold the class mutex, while the device callback
// looks a class's number up without it (it may be called from inside
// SetCallback, with the mutex already held by the same thread). To keep that
// unlocked reader safe, growth never moves the array in place: each step of
// 8 entries makes a new generation, copies the entries, publishes it, and
// keeps the old generation until cdef_uninit (see DeviceTable in
// cdef_internal.h). Known cost: the kept generations add up to about
// count^2/16 pointers, some 700 words for 100 classes.
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <type_traits>

#include "arbor/cdef.h"
#include "arbor/device_class.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "cdef/cdef_internal.h"
#include "strutils/wire_text.h"

static_assert(std::is_same_v<decltype(&local_device_callback), DeviceCallback>,
              "local_device_callback is a DeviceCallback");

DeviceTable device_{};

namespace {

// Steps in which the class array grows.
constexpr uint32_t kCdefGrowth = 8;

// The engine's own classes. Zero until cdef_init fills them.
cdef cdef_null_{};
cdef cdef_wan_{};
cdef cdef_lan_{};

// Allocations still allowed before they fail; negative: no limit. Only the
// test seam sets it.
std::atomic<int32_t> cdef_alloc_budget_{-1};

// The null operations, one for each slot shape: calling a function through
// a pointer of another type is undefined, so no single null_op can serve
// every slot. Each does nothing and returns 0 (null for the texts).
int32_t null_set_callback(DeviceCallback) { return 0; }
const char* null_text() { return nullptr; }
int32_t null_open(const char*, const char*, uint32_t*) { return 0; }
int32_t null_close(int32_t) { return 0; }
int32_t null_do_event(const char*, int32_t, const char*) { return 0; }
int32_t null_write(int32_t, const void*, uint32_t, uint32_t) { return 0; }
int32_t null_read(int32_t, void*, uint32_t, uint32_t*) { return 0; }

// Frees every generation of the class array and empties the table. Needs
// the class mutex, and no reader without it (start and stop only).
void cdef_release_classes() {
  CdefArray* array = device_.classes.load(std::memory_order_relaxed);
  while (array != nullptr) {
    CdefArray* replaced = array->replaced;
    std::free(array);
    array = replaced;
  }
  device_.classes.store(nullptr, std::memory_order_release);
  device_.count.store(0, std::memory_order_release);
}

// Appends cls to the table, making a new generation with 8 more entries
// when the count is a multiple of 8 (0 included). Needs the class mutex.
// Returns false, the table unchanged, when memory runs out.
bool cdef_append(cdef* cls) {
  const uint32_t count = device_.count.load(std::memory_order_relaxed);
  CdefArray* current = device_.classes.load(std::memory_order_relaxed);
  if (count % kCdefGrowth != 0) {
    cdef_array_slots(current)[count] = cls;
  } else {
    if (count > std::numeric_limits<uint32_t>::max() - kCdefGrowth) {
      return false;
    }
    const uint32_t capacity = count + kCdefGrowth;
    auto* grown = static_cast<CdefArray*>(
        cdef_realloc(nullptr, sizeof(CdefArray) + capacity * sizeof(cdef*)));
    if (grown == nullptr) return false;
    grown->replaced = current;
    grown->capacity = capacity;
    if (count > 0) {
      std::memcpy(cdef_array_slots(grown), cdef_array_slots(current),
                  count * sizeof(cdef*));
    }
    cdef_array_slots(grown)[count] = cls;
    device_.classes.store(grown, std::memory_order_release);
  }
  device_.count.store(count + 1, std::memory_order_release);
  return true;
}

const char* cdef_or_null(const char* text) {
  return text != nullptr ? text : "(null)";
}

}  // namespace

void* cdef_realloc(void* p, size_t size) {
  int32_t budget = cdef_alloc_budget_.load(std::memory_order_relaxed);
  while (budget > 0 && !cdef_alloc_budget_.compare_exchange_weak(
                           budget, budget - 1, std::memory_order_relaxed)) {
  }
  return budget == 0 ? nullptr : std::realloc(p, size);
}

void cdef_test_fail_allocs(int32_t after) {
  cdef_alloc_budget_.store(after < 0 ? -1 : after, std::memory_order_relaxed);
}

int32_t cdef_class_index(const cdef* cls) {
  // Count first: a count seen here was published after the generation that
  // holds its entries, so the array loaded next covers it.
  const uint32_t count = device_.count.load(std::memory_order_acquire);
  if (count == 0 || cls == nullptr) return -1;
  CdefArray* array = device_.classes.load(std::memory_order_acquire);
  cdef* const* slots = cdef_array_slots(array);
  for (uint32_t i = 0; i < count; ++i) {
    if (slots[i] == cls) return static_cast<int32_t>(i);
  }
  return -1;
}

uint32_t cdef_class_count() {
  return device_.count.load(std::memory_order_acquire);
}

cdef* cdef_class_at(uint32_t n) {
  const uint32_t count = device_.count.load(std::memory_order_acquire);
  if (n >= count) return nullptr;
  return cdef_array_slots(device_.classes.load(std::memory_order_acquire))[n];
}

extern "C" {

ARBOR_EXPORT cdef* get_wan_cdef(void) { return &cdef_wan_; }
ARBOR_EXPORT cdef* get_lan_cdef(void) { return &cdef_lan_; }
ARBOR_EXPORT cdef* get_null_cdef(void) { return &cdef_null_; }

ARBOR_EXPORT int32_t is_network_dev(const cdef* cls) {
  return cls != nullptr && (cls == &cdef_wan_ || cls == &cdef_lan_) ? 1 : 0;
}

// The path is not looked at: drivers come only through SysRegisterDev. The
// class mutex is a std::mutex, ready from load and never re-initialised, so
// the step that would report its initialisation always gives 0. A table left
// over from before (a registration before SysInit) is freed, not leaked.
ARBOR_EXPORT int32_t cdef_init(const char* /*path*/) {
  cdef_null_ = cdef{
      .Reserved = nullptr,
      .SetCallback = null_set_callback,
      .Retrieve = null_text,
      .GetObjectInfo = null_text,
      .Open = null_open,
      .Close = null_close,
      .DoEvent = null_do_event,
      .Write = null_write,
      .Read = null_read,
      .Convert = nullptr,
  };
  cdef_wan_ = cdef_null_;
  cdef_lan_ = cdef_null_;
  {
    std::lock_guard<std::mutex> lock(device_.mutex);
    cdef_release_classes();
  }
  cdef_wan_.DoEvent = wan_do_event;
  cdef_wan_.Write = wan_write;
  cdef_lan_.DoEvent = lan_do_event;
  cdef_lan_.Write = lan_write;
  return 0;
}

ARBOR_EXPORT int32_t cdef_uninit(void) {
  std::lock_guard<std::mutex> lock(device_.mutex);
  cdef_release_classes();
  return 0;
}

// The slots that every caller uses without a test (SetCallback here,
// Retrieve in every search, GetObjectInfo in the announcement) are checked
// once, here: a driver's record without them is refused, never stored.
ARBOR_EXPORT void SysRegisterDev(cdef* cls) {
  if (cls == nullptr || cls->SetCallback == nullptr ||
      cls->Retrieve == nullptr || cls->GetObjectInfo == nullptr) {
    ARBOR_LOG(0, "class %p refused: a required slot is null",
              static_cast<void*>(cls));
    return;
  }
  {
    std::lock_guard<std::mutex> lock(device_.mutex);
    if (!cdef_append(cls)) {
      ARBOR_LOG(0, "class %p refused: no memory for the class table",
                static_cast<void*>(cls));
      return;
    }
    cls->SetCallback(local_device_callback);
  }
  const char* info = cls->GetObjectInfo();
  const char* list = cls->Retrieve();
  ARBOR_LOG(3, "%s: GetObjectInfo: %s\n\t\tRetrieve: %s", __func__,
            cdef_or_null(info), cdef_or_null(list));
}

ARBOR_EXPORT cdef* SysUnregisterDev(cdef* cls) { return cls; }

// Known cost: O(classes up to the match) Retrieve calls and strstr scans,
// with the class mutex held.
ARBOR_EXPORT cdef* cdef_find_by_fullname(const char* fullname) {
  // A null or empty name can come from a message (an empty ftN0): it names
  // no resource, and every list would contain the empty string.
  if (fullname == nullptr || fullname[0] == '\0') return nullptr;
  std::lock_guard<std::mutex> lock(device_.mutex);
  const uint32_t count = device_.count.load(std::memory_order_relaxed);
  if (count == 0) return nullptr;
  cdef* const* slots =
      cdef_array_slots(device_.classes.load(std::memory_order_relaxed));
  for (uint32_t i = 0; i < count; ++i) {
    const char* list = slots[i]->Retrieve();
    if (list != nullptr && std::strstr(list, fullname) != nullptr) {
      return slots[i];
    }
  }
  return nullptr;
}

// Every failure ends the command silently, the driver not called: a text
// that does not parse (or is over 2 GiB), no ftN, an unknown resource, a
// class without DoEvent, or no memory for the terminated copy.
ARBOR_EXPORT void cdef_res_control(uintptr_t /*arg*/, const void* text,
                                   uint32_t size) {
  const char* command = static_cast<const char*>(text);
  Dict dict = dict_of(command, size);
  if (dict == nullptr) return;
  const char* name = DictGetStr(dict, "ftN");
  cdef* cls = name != nullptr ? cdef_find_by_fullname(name) : nullptr;
  if (cls != nullptr && cls->DoEvent != nullptr) {
    const int32_t xfd = DictGetInt(dict, "FD");
    // size > 0 here: an empty text parses to a dictionary without ftN. The
    // driver gets a C string: the text itself when it ends in NUL, else a
    // terminated copy that lives for the call.
    if (command[size - 1] == '\0') {
      cls->DoEvent(name, xfd, command);
    } else if (char* copy = string_make(command, command + size)) {
      cls->DoEvent(name, xfd, copy);
      std::free(copy);
    }
  }
  DictDestroy(dict);
}

}  // extern "C"
