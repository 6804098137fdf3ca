// Tests of the key-value block. Most cases read the raw block because the
// line arithmetic is where faults hide: a wrong offset shows up as a stray
// byte long before it shows up in GetString.
#include "arbor/pairlist.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>


namespace {

using namespace std::string_literals;

// Owns one block for a test.
struct Block {
  PairList list = nullptr;
  Block() { EXPECT_EQ(InitPairList(&list), &list); }
  ~Block() { std::free(list); }
  PairList* p() { return &list; }
  // The lines and the tail, as stored behind the length field.
  std::string raw() const {
    uint32_t n;
    std::memcpy(&n, list, sizeof n);
    return {reinterpret_cast<const char*>(list) + 4, n + 2u};
  }
};

TEST(PairList, LinesEndInNulLfAndFinalTextInCrLf) {
  Block empty;
  EXPECT_EQ(empty.raw(), "\0\n"s);
  EXPECT_STREQ(FinalString(empty.p()), "");

  Block b;
  EXPECT_STREQ(SetString(b.p(), "Host", "a"), "a");
  EXPECT_STREQ(SetString(b.p(), "Port", "ab"), "ab");
  EXPECT_EQ(GetStringLength(b.p()), 19u);
  char* text = List2String(b.p());
  EXPECT_STREQ(text, "Host: a\r\nPort: ab\r\n");
  std::free(text);
  EXPECT_EQ(b.raw(), "Host: a\0\nPort: ab\0\n\0\n"s);  // List2String only reads
  EXPECT_STREQ(GetString(b.p(), "Port"), "ab");
  EXPECT_STREQ(FinalString(b.p()), "Host: a\r\nPort: ab\r\n");
  EXPECT_STREQ(GetString(b.p(), "Host"), "a\r\nPort: ab\r\n");
}

TEST(PairList, ReplacementStaysInPlaceWhateverItsLength) {
  Block b;
  SetString(b.p(), "A", "1");
  SetString(b.p(), "B", "2");
  SetString(b.p(), "A", "longer");
  EXPECT_EQ(b.raw(), "A: longer\0\nB: 2\0\n\0\n"s);
  SetString(b.p(), "A", "");
  EXPECT_EQ(b.raw(), "A: \0\nB: 2\0\n\0\n"s);
  EXPECT_EQ(GetStringLength(b.p()), 11u);
}

TEST(PairList, KeysMatchWholeAndWithCaseAndBadOrAliasedValuesAreSafe) {
  Block b;
  SetString(b.p(), "Content-Type", "text");
  for (const char* other : {"Content", "Content-Type:", "content-type"})
    EXPECT_EQ(GetString(b.p(), other), nullptr) << other;
  SetStringL(b.p(), "Content", "xyz", 0);
  EXPECT_STREQ(SetInteger(b.p(), "N", -42), "-42");
  EXPECT_EQ(GetInteger(b.p(), "N"), -42);
  EXPECT_EQ(GetInteger(b.p(), "M"), 0);
  // A value taken from the same block survives the block's move.
  const char* type = GetString(b.p(), "Content-Type");
  SetString(b.p(), "B", type);
  EXPECT_STREQ(SetString(b.p(), "B", GetString(b.p(), "B") + 2), "xt");
  const std::string before = b.raw();
  EXPECT_EQ(before,
            "Content-Type: text\0\nContent: \0\nN: -42\0\nB: xt\0\n\0\n"s);
  // Keys and values that would break lines are refused, changing nothing.
  EXPECT_EQ(SetString(b.p(), "a:b", "1"), nullptr);
  EXPECT_EQ(SetString(b.p(), "B", "1\r\nB: 2"), nullptr);
  EXPECT_EQ(SetStringL(b.p(), "B", "1\0002", 3), nullptr);
  EXPECT_EQ(b.raw(), before);
}

TEST(PairList, RemoveKeyClosesTheGap) {
  Block b;
  SetString(b.p(), "A", "1");
  SetString(b.p(), "B", "22");
  SetString(b.p(), "C", "3");
  EXPECT_EQ(RemoveKey(b.p(), "Z"), nullptr);
  EXPECT_STREQ(RemoveKey(b.p(), "B"), "C: 3");
  EXPECT_EQ(b.raw(), "A: 1\0\nC: 3\0\n\0\n"s);
  char* after = RemoveKey(b.p(), "C");  // the block may move
  EXPECT_EQ(after, reinterpret_cast<char*>(b.list) + 4 + 6);
  SetString(b.p(), "D", "4");
  EXPECT_EQ(b.raw(), "A: 1\0\nD: 4\0\n\0\n"s);
}

TEST(PairList, List2BufferCutsAtSizeLessOne) {
  Block b;
  SetString(b.p(), "Host", "a");
  EXPECT_EQ(List2Buffer(nullptr, 0, b.p()), 9u);
  char buf[16];
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(List2Buffer(buf, 1, b.p()), 0u);
  EXPECT_EQ(std::string(buf, 2), "\0x"s);
  EXPECT_EQ(List2Buffer(buf, 9, b.p()), 8u);
  EXPECT_STREQ(buf, "Host: a\r");
}

// SetBuffer reads a head up to its blank line (returned) and counts CR LF
// and NUL LF as one line end, LF LF as two; keyless lines are skipped and
// only the space after the colon is trimmed.
TEST(PairList, SetBufferStoresHeadAndPointsBehindBlankLine) {
  const char text[] = "A: 1\r\nB:2\r\n\r\nbody";
  Block b;
  EXPECT_EQ(SetBuffer(b.p(), text, sizeof text - 1), text + 11);
  EXPECT_STREQ(GetString(b.p(), "B"), "2");
  Block one;
  EXPECT_EQ(SetBufferNL(one.p(), text, sizeof text - 1, 1), text + 6);
  EXPECT_EQ(one.raw(), "A: 1\0\n\0\n"s);

  const std::string ends = "A: 1\0\nB: 2\r\nC: 3\n\nD: 4"s;
  Block mixed;
  EXPECT_EQ(SetBuffer(mixed.p(), ends.data(), ends.size()), ends.data() + 17);
  EXPECT_EQ(mixed.raw(), "A: 1\0\nB: 2\0\nC: 3\0\n\0\n"s);
  const char last[] = "E: 5";  // no line end: all input is used
  EXPECT_EQ(SetBuffer(mixed.p(), last, sizeof last - 1), nullptr);
  EXPECT_STREQ(GetString(mixed.p(), "E"), "5");

  const char odd[] = ":x\r\nno colon\r\nK: \t v  \r\nL:\r\n";
  Block skip;
  EXPECT_EQ(SetBuffer(skip.p(), odd, sizeof odd - 1), nullptr);
  EXPECT_STREQ(GetString(skip.p(), "K"), "v  ");
  EXPECT_STREQ(GetString(skip.p(), "L"), "");
}

TEST(PairListDeathTest, CallerFaultsAssertWithFixedTexts) {
  Block b;
  EXPECT_DEATH(GetString(b.p(), nullptr), "assertion failed: key");
  EXPECT_DEATH(SetString(b.p(), "k", nullptr), "assertion failed: key && val");
  EXPECT_DEATH(SetString(b.p(), "", "v"), "assertion failed: strlen\\(key\\) > 0");
  EXPECT_DEATH(SetBuffer(b.p(), "x", 0), "assertion failed: beg && len");
}

}  // namespace
