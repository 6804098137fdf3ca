// Tests of the string helpers: range copies, in-place splitting (including
// more pieces than entries), joining with cut-off, and list walking with
// trimming. Assertion texts are checked through death tests. That the
// headers are valid C is shown by tests/abi.
#include "arbor/strutils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Tokens = std::vector<std::string>;

void collect(void* ctx, const char* token, size_t length) {
  static_cast<Tokens*>(ctx)->emplace_back(token, length);
}

std::string take(char* heap) {
  std::string s = heap ? heap : "<null>";
  std::free(heap);
  return s;
}

TEST(StringHelpers, CopiesRangesAndBytesRefusingReversedOrEmptyOnes) {
  const char text[] = "abcdef";
  EXPECT_EQ(take(string_make(text + 1, text + 4)), "bcd");
  EXPECT_EQ(take(string_make(text + 2, text + 2)), "");
  EXPECT_EQ(string_make(text + 3, text + 2), nullptr);

  const char list[] = "ab,cd";
  EXPECT_EQ(take(string_split_one(',', list, list + 5)), "ab");
  EXPECT_EQ(string_split_one(',', list, list), nullptr);

  EXPECT_EQ(stringdup(nullptr), nullptr);
  char* copy = static_cast<char*>(memorydup("a\0b", 3));
  EXPECT_EQ(std::string(copy, 3), std::string("a\0b", 3));
  void* ptrs[3] = {copy, nullptr, stringdup("x")};
  free_pointers(ptrs, 3);  // a leak or double free fails the sanitizer build
}

// Splits a copy of text at ',' into an array with one sentinel entry past
// max, and checks that the sentinel was not written.
Tokens split(const char* text, int max) {
  std::string buf = text;
  std::vector<char*> out(static_cast<size_t>(max) + 1, nullptr);
  const int n = string_split(buf.data(), out.data(), max, ',');
  EXPECT_EQ(out[0], buf.data());
  EXPECT_EQ(out[static_cast<size_t>(max)], nullptr);
  return Tokens(out.begin(), out.begin() + n);
}

TEST(StringHelpers, SplitCutsInPlaceKeepsEmptyPiecesAndStopsAtMax) {
  EXPECT_EQ(split("a,b", 8), (Tokens{"a", "b"}));
  EXPECT_EQ(split("", 8), (Tokens{""}));
  EXPECT_EQ(split("a,", 8), (Tokens{"a", ""}));
  // Past max the rest stays in the last entry; nothing further is written.
  EXPECT_EQ(split("a,b,c,d", 3), (Tokens{"a", "b", "c,d"}));
}

TEST(StringHelpers, ListEachTrimsAndSkipsEmptyTokens) {
  Tokens got;
  const char text[] = "  alpha , beta,,\tgamma  ";
  EXPECT_EQ(str_list_each(text, collect, &got), 3);
  EXPECT_EQ(got, (Tokens{"alpha", "beta", "gamma"}));
  EXPECT_STREQ(text, "  alpha , beta,,\tgamma  ");

  EXPECT_EQ(str_list_each(" , ", collect, &got), 0);

  got.clear();
  EXPECT_EQ(str_list_each_d('|', "a b|c,d", collect, &got), 2);
  EXPECT_EQ(got, (Tokens{"a b", "c,d"}));
}

TEST(StringHelpers, CountReadsUnsignedBytesAndJoinCutsAtBufferEnd) {
  EXPECT_EQ(string_count_chr("a.b.c", '.'), 2u);
  EXPECT_EQ(string_count_chr("abc", 0), 0u);
  EXPECT_EQ(string_count_chr("\xe9x\xe9", 0xe9), 2u);  // as unsigned char
  const char* words[] = {"one", "two", "three"};
  char buf[32];
  EXPECT_STREQ(string_join(buf, sizeof buf, ", ", words, 3), "one, two, three");
  EXPECT_STREQ(string_join(buf, 8, ", ", words, 3), "one, tw");
  EXPECT_STREQ(string_join(buf, 3, ", ", words, 3), "on");
  EXPECT_EQ(string_length_sum(words, 3), 11u);
}

TEST(StringHelpersDeathTest, CallerFaultsAssertWithFixedTexts) {
  EXPECT_DEATH(str_list_each(nullptr, collect, nullptr),
               "assertion failed: beg");
  char* out[1];
  EXPECT_DEATH(string_split(nullptr, out, 1, ','),
               "assertion failed: str && out && max > 0");
}

}  // namespace
