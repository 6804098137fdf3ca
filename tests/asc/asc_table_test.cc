// Tests of the service tables: the order in which the local table offers a
// message, its three call shapes, how registration rewrites signs, removes
// and refuses, and how the service table follows a rename. Each case runs in
// its own process. Handlers log "<name> <first argument> <data>".
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "arbor/asc.h"
#include "arbor/device_class.h"

namespace {

using Calls = std::vector<std::string>;
using std::to_string;
Calls calls;

int32_t Log(const std::string& who, int64_t first, const char* data,
            uint32_t size) {
  calls.push_back(who + " " + to_string(first) + " " + std::string(data, size));
  return 0;
}
template <int N>
int32_t Any(uint32_t from, int32_t code, const char* data, uint32_t size) {
  Log("any" + to_string(N) + "/" + to_string(code), from, data, size);
  return N == 9 ? -1 : 0;  // Any<9> stops the offer
}
template <int N>
int32_t Peer(uint32_t from, uint32_t size, const char* data) { return Log("peer" + to_string(N), from, data, size); }
int32_t Code(int32_t code, uint32_t size, const char* data) { return Log("code", code, data, size); }
// Reads no data: after a sign rewrite it is called in either shape.
template <int N>
int32_t Mark(uint32_t, int32_t, const char*, uint32_t) { return Log("mark" + to_string(N), 0, "", 0); }
int32_t Row(uint32_t size, const char* data) { return Log("row", 0, data, size) + 7; }
template <typename F>
AsHandler H(F f) { return reinterpret_cast<AsHandler>(f); }
int32_t Lan(uint32_t from, int32_t code, const std::string& text) {
  calls.clear();
  return asdispatch(get_lan_cdef(), from, code, text.data(),
                    static_cast<uint32_t>(text.size()));
}
int32_t Wan(int32_t code) { return asdispatch(get_wan_cdef(), 0, code, "w", 1); }

}  // namespace

TEST(LocalTable, OffersNewestEntryFirstInItsShapeUntilOneTakesIt) {
  EXPECT_EQ(SysRegistASLan(ASC_LOCAL_CODE_BASE + 3, nullptr, H(Code)), 1);
  EXPECT_EQ(SysRegistASLan(555, nullptr, H(Peer<1>)), 2);
  EXPECT_EQ(SysRegistASLan_0(100, nullptr, H(Any<2>)), 3);
  EXPECT_EQ(SysRegistASLan(7, nullptr, H(Peer<3>)), 4);
  EXPECT_EQ(Lan(4, 555, "m"), 0);  // 555 and the all-traffic entry, not 7
  EXPECT_EQ(calls, (Calls{"any2/555 4 m", "peer1 4 m"}));
  Lan(12, 0, "t");  // code 0: everyone, each in its entry's shape
  EXPECT_EQ(calls,
            (Calls{"peer3 12 t", "any2/0 12 t", "peer1 12 t", "code 28675 t"}));
  // Local delivery finds -100 under 100, from 0; size 0 calls nobody.
  calls.clear();
  EXPECT_EQ(evt_local_asc(100, "e", 0) + evt_local_asc(100, "e", 1), 0);
  EXPECT_EQ(calls, (Calls{"any2/100 0 e"}));

  SysRegistASLan_0(200, nullptr, H(Any<9>));
  EXPECT_EQ(Lan(4, 555, "m"), 1);
  EXPECT_EQ(calls, (Calls{"any9/555 4 m"}));
  EXPECT_EQ(evt_local_asc(200, "e", 1), 1);
}

TEST(LocalTable, RegistrationRewritesSignsRemovesAndRefuses) {
  EXPECT_EQ(SysRegistASLan(9, nullptr, H(Mark<1>)), 1);
  // Joining -9 turns entry 9 into -9: both now see code 5.
  EXPECT_EQ(SysRegistASLan_0(9, nullptr, H(Mark<2>)), 2);
  Lan(1, 5, "x");
  EXPECT_EQ(calls, (Calls{"mark2 0 ", "mark1 0 "}));
  // Removing the first entry moves the last into its place; the table is
  // then full at 32 and a 33rd registration is lost.
  EXPECT_EQ(SysRegistASLan(50, nullptr, H(Peer<3>)), 3);
  EXPECT_EQ(SysRegistASLan_0(9, H(Mark<1>), nullptr), 2);
  for (int32_t code = 60; code < 90; ++code)
    EXPECT_EQ(SysRegistASLan(code, nullptr, H(Peer<4>)), code - 57);
  EXPECT_EQ(SysRegistASLan(90, nullptr, H(Peer<5>)), 0);
  Lan(1, 50, "y");  // 50 went first, -9 stayed second
  EXPECT_EQ(calls, (Calls{"mark2 0 ", "peer3 1 y"}));
  Lan(1, 90, "y");
  EXPECT_EQ(calls, (Calls{"mark2 0 "}));
}

TEST(LocalTableDeathTest, NonPositiveCodeAndForeignClassAbort) {
  EXPECT_DEATH(SysRegistASLan(0, nullptr, H(Peer<1>)),
               "assertion failed: asc > 0");
  EXPECT_DEATH(asdispatch(get_null_cdef(), 0, 1, "x", 1),
               "assertion failed: cdef == get_lan_cdef\\(\\)");
}

// Naming a type that has no row makes a row without handler, which a later
// registration of the type finds.
TEST(ServiceTable, RowFollowsRenameInPlaceAndMayBeNamedFirst) {
  EXPECT_EQ(SysRegistAS(7, Row), 1);
  EXPECT_EQ(SysRegistAS(7, Row), 0);
  EXPECT_EQ(SysRegistAS(8, nullptr), 0);  // no row made
  EXPECT_EQ(Wan(7), 7);
  asc_put_code_name(7, 40, "cam");
  EXPECT_EQ(Wan(7), 0);
  EXPECT_EQ(Wan(40), 7);
  EXPECT_EQ(calls, (Calls{"row 0 w", "row 0 w"}));
  ServiceRow* row = asc_get_byname("cam");
  ASSERT_NE(row, nullptr);
  const char* old_name = row->AsName;
  asc_put_code_name(7, 41, "cam2");
  EXPECT_EQ(asc_get_byname("cam2"), row);
  EXPECT_EQ(asc_get_byname("cam"), nullptr);
  EXPECT_STREQ(old_name, "cam");  // retired, not freed

  asc_put_code_name(12, 60, "named");
  EXPECT_EQ(Wan(60), 0);
  EXPECT_EQ(SysRegistAS(12, Row), 0);  // finds the named row
  EXPECT_EQ(Wan(60), 7);
}

TEST(ServiceTables, UninitEmptiesBoth) {
  SysRegistAS(7, Row);
  asc_put_code_name(7, 41, "cam2");
  SysRegistASLan_0(9, nullptr, H(Any<2>));
  asc_uninit();
  EXPECT_EQ(asc_get_byname("cam2"), nullptr);
  EXPECT_EQ(Wan(41) + Lan(1, 0, "a"), 0);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(SysRegistASLan(9, nullptr, H(Peer<1>)), 1);  // starts anew
}
