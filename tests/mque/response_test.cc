// Response lists: order across growth, calls that append while the list
// runs, refusals, and reuse after respond.
#include <gtest/gtest.h>

#include <vector>

#include "arbor/timedq.h"

namespace {

std::vector<uintptr_t> seen;
ResponseList* running = nullptr;

// Entry i carries the words i, 10i, 100i; all three must arrive.
void Note(uintptr_t* payload) {
  seen.push_back(payload[0]);
  EXPECT_EQ(payload[1] + payload[2], payload[0] * 110);
}
const uintptr_t* Words(uintptr_t i, uintptr_t (&w)[3]) {
  w[0] = i, w[1] = i * 10, w[2] = i * 100;
  return w;
}

// Appends to the list that runs it; the array moves (8 -> 16), and the
// words this call was given must stay readable.
void AppendWhileRunning(uintptr_t* payload) {
  uintptr_t w[3];
  EXPECT_EQ(append_response(running, Note, Words(payload[0] + 1, w)), 8);
  Note(payload);
}

TEST(ResponseList, CallAppendedDuringRespondRunsInSamePassInOrder) {
  ResponseList list{};
  running = &list;
  uintptr_t w[3];
  EXPECT_EQ(respond(&list), 0u);
  for (uintptr_t i = 0; i < 7; ++i)
    EXPECT_EQ(append_response(&list, Note, Words(i, w)), static_cast<int32_t>(i));
  EXPECT_EQ(append_response(&list, nullptr, w), 0) << "a null fn adds nothing";
  EXPECT_EQ(append_response(&list, AppendWhileRunning, Words(7, w)), 7);
  EXPECT_EQ(respond(&list), 9u);
  EXPECT_EQ(seen, (std::vector<uintptr_t>{0, 1, 2, 3, 4, 5, 6, 7, 8}));
  // Emptied by respond, the list takes entries again from the first slot.
  EXPECT_EQ(list.entries, nullptr);
  EXPECT_EQ(append_response(&list, Note, Words(9, w)), 0);
  EXPECT_EQ(respond(&list), 1u);
  EXPECT_EQ(seen.back(), 9u);
}

}  // namespace
