// Tests of the guard around the service tables: renaming and registering on
// one thread while another looks rows up and dispatches, and handlers that
// change the tables from inside a dispatch. Meant to run under the
// sanitizers, which catch a missing lock, a moved row or a freed name.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "asc/asc_internal.h"

namespace {

std::atomic<int> row_calls{0}, local_calls{0};

int32_t Row(uint32_t, const char*) { return ++row_calls; }
int32_t Local(uint32_t, uint32_t, const char*) { return ++local_calls; }
template <typename F>
AsHandler H(F f) { return reinterpret_cast<AsHandler>(f); }

// Registers and removes an entry, and renames a row, while being dispatched.
int32_t Reentrant(uint32_t, uint32_t, const char*) {
  EXPECT_GT(SysRegistASLan(701, nullptr, H(Local)), 0);
  SysRegistASLan(701, H(Local), nullptr);
  asc_put_code_name(7, 42, "inside");
  return -1;
}

}  // namespace

TEST(ServiceTableGuard, RenamingWhileOthersLookUpAndDispatch) {
  ASSERT_EQ(SysRegistAS(7, Row), 1);
  asc_put_code_name(7, 40, "even");
  ServiceRow* row = asc_get_byname("even");
  SysRegistASLan(555, nullptr, H(Local));
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      asc_put_code_name(7, 40 + (i & 1), (i & 1) != 0 ? "odd" : "even");
      if (i % 16 == 0) asc_put_code_name(1000 + i, 1000 + i, "more");  // grows
      SysRegistASLan(600, nullptr, H(Local));
      SysRegistASLan(600, H(Local), nullptr);
    }
    done = true;
  });
  int reads = 0;
  for (; !done || reads == 0; ++reads) {
    ServiceRow* found = asc_get_byname("odd");
    if (found != nullptr) {
      EXPECT_EQ(found, row);  // the row never moves
      // A name read from the row stays readable, even once replaced.
      const char* now = __atomic_load_n(&found->AsName, __ATOMIC_ACQUIRE);
      EXPECT_TRUE(now[0] == 'e' || now[0] == 'o');
    }
    ServiceRow copy;  // NetSend's road
    EXPECT_TRUE(!asc_copy_byname("even", &copy) || copy.AsCode == 40);
    asdispatch(get_wan_cdef(), 0, 40, "w", 1);
    asdispatch(get_wan_cdef(), 0, 41, "w", 1);
    asdispatch(get_lan_cdef(), 3, 555, "l", 1);
  }
  writer.join();
  EXPECT_EQ(local_calls.load(), reads);
  EXPECT_GT(row_calls.load(), 0);
}

TEST(ServiceTableGuard, HandlerMayChangeTablesDuringDispatch) {
  SysRegistAS(7, Row);
  SysRegistASLan(555, nullptr, H(Local));
  SysRegistASLan(555, nullptr, H(Reentrant));
  EXPECT_EQ(asdispatch(get_lan_cdef(), 3, 555, "l", 1), 1);
  EXPECT_EQ(evt_local_asc(555, "l", 1), 1);
  EXPECT_EQ(local_calls.load(), 0);  // taken by Reentrant each time
  ServiceRow* row = asc_get_byname("inside");
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->AsCode, 42);
}
