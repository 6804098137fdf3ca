// The text dictionary: what one encoder writes the parser reads back, broken
// text is refused without a trace, and no call reads or writes past a size.
// Texts are parsed from heap buffers of exactly their size, so that ASan sees
// any read past it.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "arbor/support.h"

namespace {

using DictPtr = std::unique_ptr<DictObject, decltype(&DictDestroy)>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

DictPtr Parse(const std::string& text) {
  auto exact = std::make_unique<char[]>(text.size());
  std::memcpy(exact.get(), text.data(), text.size());
  return DictPtr(DictCreate(exact.get(), static_cast<int32_t>(text.size())),
                 &DictDestroy);
}

DictPtr Build(const Pairs& pairs) {
  DictPtr d(DictCreate(nullptr, 0), &DictDestroy);
  for (const auto& [k, v] : pairs)
    EXPECT_EQ(DictSetStr(d.get(), k.c_str(), v.c_str()), 0);
  return d;
}

std::string Encode(Dict d) {
  std::string out(static_cast<size_t>(DictEncodedSize(d)) + 1, '#');
  out.resize(static_cast<size_t>(
      DictEncode(out.data(), static_cast<int32_t>(out.size()), d)));
  return out;
}

void ExpectHolds(Dict d, const Pairs& pairs) {
  for (const auto& [k, v] : pairs) {
    const char* got = DictGetStr(d, k.c_str());
    ASSERT_NE(got, nullptr) << k;
    EXPECT_EQ(got, v) << k;
  }
}

}  // namespace

TEST(Dict, CurrentEncodingRoundTripsAwkwardPairsAndNeverWritesPastSize) {
  const Pairs awkward = {{"a;b", "x;y"}, {"k=v", "=="}, {"back\\slash", "ends\\"},
                         {"\xff\xfe", "\x80"}, {"empty", ""}, {"mixed", "\\;=\\="}};
  DictPtr d = Build(awkward);
  const std::string text = Encode(d.get());
  const int32_t n = DictEncodedSize(d.get());
  EXPECT_EQ(n, static_cast<int32_t>(text.size()));
  DictPtr back = Parse(text);
  ASSERT_NE(back, nullptr) << text;
  ExpectHolds(back.get(), awkward);
  EXPECT_EQ(Encode(back.get()), text);  // same pairs, same order

  auto exact = std::make_unique<char[]>(static_cast<size_t>(n));
  EXPECT_EQ(DictEncode(exact.get(), n, d.get()), n);  // fits, no room for NUL
  EXPECT_EQ(std::string(exact.get(), static_cast<size_t>(n)), text);
  EXPECT_EQ(DictEncode(exact.get(), n - 1, d.get()), 0);
}

TEST(Dict, OldEncodingRoundTripsAndRefusesSpecials) {
  const Pairs plain = {{"MainCmd", "Sigoff"}, {"sp ace", " v "}, {"empty", ""}};
  DictPtr d = Build(plain);
  const int32_t n = static_cast<int32_t>(Encode(d.get()).size()) + 1;
  auto exact = std::make_unique<char[]>(static_cast<size_t>(n));
  ASSERT_EQ(DictEncodeOld(exact.get(), n, d.get()), n);
  DictPtr back(DictCreate(exact.get(), n), &DictDestroy);  // NUL counted
  ASSERT_NE(back, nullptr);
  ExpectHolds(back.get(), plain);
  EXPECT_EQ(DictEncodeOld(exact.get(), n - 1, d.get()), -1);
  for (const char* bad : {"a;b", "a=b", "a\\b"}) {
    char buf[64] = "#";
    EXPECT_EQ(DictEncodeOld(buf, sizeof(buf), Build({{"k", bad}}).get()), -1) << bad;
  }
}

TEST(Dict, MalformedTextGivesNullAndNulBoundsTheParse) {
  for (const char* bad : {"a=1", "=1;", "a=1;\\", "a=1; ", "a\\=1;"})
    EXPECT_EQ(Parse(bad), nullptr) << bad;
  EXPECT_EQ(DictCreate(nullptr, 4), nullptr);
  DictPtr cut = Parse(std::string("a=1;\0b=2", 8));  // garbage after the NUL
  ASSERT_NE(cut, nullptr);
  EXPECT_EQ(Encode(cut.get()), "a=1;");
  EXPECT_EQ(Parse(std::string("a=1\0;", 5)), nullptr);  // NUL before the ';'
}

// The parser keeps the last of two equal keys and takes '=' in a value
// literally; an update replaces and adds, or fails and changes nothing.
TEST(Dict, LaterPairsReplaceEarlierAndFailedUpdateChangesNothing) {
  DictPtr d = Parse("a=0;b=x=y;a=1;");
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(Encode(d.get()), "a=1;b=x\\=y;");
  EXPECT_EQ(DictUpdate(d.get(), "b=3;c=4;", 8), 2);
  EXPECT_EQ(DictUpdate(d.get(), "b=9;d=5;c", 9), -1);
  EXPECT_EQ(Encode(d.get()), "a=1;b=3;c=4;");
}

TEST(Dict, GetIntTellsNumbersFromNames) {
  DictPtr d = Parse(
      "p=42;neg=-3;name=Sigoff;empty=;tail=12x;big=2147483648;"
      "min=-2147483648;umax=4294967295;over=4294967296;blank=  7;");
  ASSERT_NE(d, nullptr);
  const std::vector<std::pair<const char*, int32_t>> cases = {
      {"p", 42}, {"neg", -3}, {"name", -1}, {"empty", -1}, {"tail", -1}, {"big", INT32_MIN},
      {"min", INT_MIN}, {"absent", 0}, {"umax", -1}, {"over", -1}, {"blank", 7}};
  for (const auto& [key, want] : cases)
    EXPECT_EQ(DictGetInt(d.get(), key), want) << key;
}

TEST(Dict, SetCopiesAtOnceAndKeepsReplacedStringsReadable) {
  DictPtr d = Build({{"k", "old"}});
  const char* before = DictGetStr(d.get(), "k");
  char scratch[] = "fresh";
  EXPECT_EQ(DictSetStr(d.get(), "k", scratch), 0);
  std::strcpy(scratch, "dirty");
  EXPECT_STREQ(before, "old");
  EXPECT_EQ(DictSetStr(d.get(), "copy", DictGetStr(d.get(), "k")), 0);
  EXPECT_EQ(DictSetInt(d.get(), "n", -12), 0);
  EXPECT_EQ(Encode(d.get()), "k=fresh;copy=fresh;n=-12;");
  EXPECT_EQ(DictSetStr(d.get(), "", "v"), -1);
}
