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

const Pairs kAwkward = {
    {"a;b", "x;y"},  {"k=v", "=="},        {"back\\slash", "ends\\"},
    {"sp ace", " "}, {"\xff\xfe", "\x80"}, {"empty", ""},
    {"=", ";"},      {"mixed", "\\;=\\="},
};

}  // namespace

TEST(Dict, CurrentEncodingRoundTripsAwkwardPairsAndNeverWritesPastSize) {
  DictPtr d = Build(kAwkward);
  const std::string text = Encode(d.get());
  const int32_t n = DictEncodedSize(d.get());
  EXPECT_EQ(n, static_cast<int32_t>(text.size()));
  DictPtr back = Parse(text);
  ASSERT_NE(back, nullptr) << text;
  ExpectHolds(back.get(), kAwkward);
  EXPECT_EQ(Encode(back.get()), text);  // same pairs, same order

  auto exact = std::make_unique<char[]>(static_cast<size_t>(n));
  EXPECT_EQ(DictEncode(exact.get(), n, d.get()), n);  // fits, no room for NUL
  EXPECT_EQ(std::string(exact.get(), static_cast<size_t>(n)), text);
  EXPECT_EQ(DictEncode(exact.get(), n - 1, d.get()), 0);
  EXPECT_EQ(exact[0], '\0');
  EXPECT_EQ(DictEncode(exact.get(), 0, d.get()), 0);

  // An encoded text is a value like any other, three levels deep.
  DictPtr middle = Build({{"ValueN0", text}, {"n", "1"}});
  DictPtr outer = Build({{"reply", Encode(middle.get())}});
  DictPtr d1 = Parse(Encode(outer.get()));
  ASSERT_NE(d1, nullptr);
  DictPtr d2 = Parse(DictGetStr(d1.get(), "reply"));
  ASSERT_NE(d2, nullptr);
  DictPtr d3 = Parse(DictGetStr(d2.get(), "ValueN0"));
  ASSERT_NE(d3, nullptr);
  ExpectHolds(d3.get(), kAwkward);
}

TEST(Dict, OldEncodingRoundTripsAndRefusesSpecials) {
  const Pairs plain = {{"MainCmd", "Sigoff"},
                       {"sp ace", " v "},
                       {"high", "\xc3\xa9"},
                       {"empty", ""}};
  DictPtr d = Build(plain);
  const int32_t n = static_cast<int32_t>(Encode(d.get()).size()) + 1;
  auto exact = std::make_unique<char[]>(static_cast<size_t>(n));
  ASSERT_EQ(DictEncodeOld(exact.get(), n, d.get()), n);
  EXPECT_EQ(exact[static_cast<size_t>(n) - 1], '\0');
  DictPtr back(DictCreate(exact.get(), n), &DictDestroy);  // NUL counted
  ASSERT_NE(back, nullptr);
  ExpectHolds(back.get(), plain);
  EXPECT_EQ(DictEncodeOld(exact.get(), n - 1, d.get()), -1);
  EXPECT_EQ(exact[0], '\0');

  for (const char* bad : {"a;b", "a=b", "a\\b"}) {
    DictPtr special = Build({{"k", bad}});
    char buf[64] = "#";
    EXPECT_EQ(DictEncodeOld(buf, sizeof(buf), special.get()), -1) << bad;
    EXPECT_EQ(buf[0], '\0');
  }
}

TEST(Dict, MalformedTextGivesNullAndEmptyTextOrNulBoundsTheParse) {
  for (const char* bad : {"a=1", "a1;", "=1;", "a=1\\", "a=1;\\", "a=1;b",
                          "a=1; ", ";", "a\\=1;"}) {
    EXPECT_EQ(Parse(bad), nullptr) << bad;
  }
  EXPECT_EQ(DictCreate("a=1;", -1), nullptr);
  EXPECT_EQ(DictCreate(nullptr, 4), nullptr);
  DictPtr empty(DictCreate(nullptr, 0), &DictDestroy);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(DictEncodedSize(empty.get()), 0);
  ASSERT_NE(Parse(std::string("\0a=1;", 5)), nullptr);
  EXPECT_EQ(DictGetStr(Parse(std::string("\0a=1;", 5)).get(), "a"), nullptr);

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
  EXPECT_EQ(Encode(d.get()), "a=1;b=3;c=4;");
  EXPECT_EQ(DictUpdate(d.get(), "b=9;d=5;c", 9), -1);
  EXPECT_EQ(DictUpdate(d.get(), nullptr, 3), -1);
  EXPECT_EQ(Encode(d.get()), "a=1;b=3;c=4;");
}

TEST(Dict, GetIntTellsNumbersFromNames) {
  DictPtr d = Parse(
      "p=42;plus=+7;neg=-3;name=Sigoff;empty=;tail=12x;big=2147483648;"
      "min=-2147483648;umax=4294967295;over=4294967296;blank=  7;");
  ASSERT_NE(d, nullptr);
  const std::vector<std::pair<const char*, int32_t>> cases = {
      {"p", 42},    {"plus", 7}, {"neg", -3},      {"name", -1}, {"empty", -1},
      {"tail", -1}, {"big", INT32_MIN}, {"min", INT_MIN}, {"absent", 0},
      {"umax", -1}, {"over", -1},      {"blank", 7}};
  for (const auto& [key, want] : cases)
    EXPECT_EQ(DictGetInt(d.get(), key), want) << key;
  // "%u" text of a full 32-bit value reads back as the same bits.
  EXPECT_EQ(static_cast<uint32_t>(DictGetInt(d.get(), "umax")), UINT32_MAX);
  EXPECT_EQ(DictGetInt(nullptr, "p"), 0);
}

TEST(Dict, SetCopiesAtOnceAndKeepsReplacedStringsReadable) {
  DictPtr d = Build({{"k", "old"}});
  const char* before = DictGetStr(d.get(), "k");
  char scratch[] = "fresh";
  EXPECT_EQ(DictSetStr(d.get(), "k", scratch), 0);
  std::strcpy(scratch, "dirty");
  EXPECT_STREQ(DictGetStr(d.get(), "k"), "fresh");
  EXPECT_STREQ(before, "old");
  EXPECT_EQ(DictSetStr(d.get(), "copy", DictGetStr(d.get(), "k")), 0);
  EXPECT_EQ(DictSetInt(d.get(), "n", -12), 0);
  EXPECT_EQ(Encode(d.get()), "k=fresh;copy=fresh;n=-12;");
  EXPECT_EQ(DictSetStr(d.get(), "", "v"), -1);
  EXPECT_EQ(DictSetStr(d.get(), "k", nullptr), -1);
}
