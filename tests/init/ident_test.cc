// The identifier generators: exact shapes, counter start values and wrap,
// and randseq's use of the process's generator.
#include "init/ident.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

const std::string kAlphabet =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_.";

bool AllIn(const std::string& s, const std::string& set) {
  return s.find_first_not_of(set) == std::string::npos;
}

// The clock digits must be those of a reading taken around the call.
void ExpectTimeDigits(const std::string& digits, time_t before, time_t after) {
  char a[5], b[5];
  std::snprintf(a, sizeof a, "%04x", static_cast<unsigned>(before) & 0xFFFFu);
  std::snprintf(b, sizeof b, "%04x", static_cast<unsigned>(after) & 0xFFFFu);
  EXPECT_TRUE(digits == a || digits == b) << digits;
}

// A prefix longer than 6 characters loses its first six to random ones.
TEST(Identifiers, SidCounterStartsAt7fffWrapsAfter65536AndPrefixIsCut) {
  char sid[64];
  time_t before = std::time(nullptr);
  std::string first = GenerateSID(sid);
  ASSERT_EQ(first.size(), 14u);
  EXPECT_TRUE(AllIn(first.substr(0, 6), kAlphabet));
  ExpectTimeDigits(first.substr(6, 4), before, std::time(nullptr));
  EXPECT_EQ(first.substr(10), "7fff");
  EXPECT_EQ(std::string(GenerateSID(sid)).substr(10), "8000");
  for (int i = 0; i < 65534; ++i) GenerateSID(sid);
  EXPECT_EQ(std::string(GenerateSID(sid)).substr(10), "7fff");
  std::string s = generate_sid(sid, "prefix-long");
  ASSERT_EQ(s.size(), 19u);
  EXPECT_EQ(s.substr(6, 5), "-long");
}

TEST(Identifiers, UuidFillsColumnsLeftOfTextWithRandomCharacters) {
  char id[33];
  time_t before = std::time(nullptr);
  std::string full = GetUUID(id, "abcdefghijklmnopqrstuvwxyz");
  ASSERT_EQ(full.size(), 32u);
  EXPECT_EQ(full.substr(0, 24), "abcdefghijklmnopqrstuvwx");
  ExpectTimeDigits(full.substr(24, 4), before, std::time(nullptr));
  EXPECT_EQ(full.substr(28), "0ff0");

  std::string part = GetUUID(id, "ABCDEFGHIJKLMNOPQRST");
  EXPECT_EQ(part.substr(4, 20), "ABCDEFGHIJKLMNOPQRST");
  EXPECT_TRUE(AllIn(part.substr(0, 4), kAlphabet));

  std::string none = GetUUID(id, nullptr);
  EXPECT_TRUE(AllIn(none.substr(0, 24), kAlphabet));
  EXPECT_EQ(none.substr(28), "0ff2");
}

TEST(Identifiers, GuestCounterStartsAt0f0fAndMovesOnForRefusedBuffer) {
  char name[64];
  time_t before = std::time(nullptr);
  std::string first = GetGuestUser(name, sizeof name);
  ASSERT_EQ(first.size(), 31u);
  ExpectTimeDigits(first.substr(0, 4), before, std::time(nullptr));
  EXPECT_TRUE(AllIn(first.substr(4, 18), kAlphabet));
  EXPECT_EQ(first.substr(22), "0f0f@gust");

  char small[31];
  std::memset(small, 'x', sizeof small);
  EXPECT_EQ(GetGuestUser(small, sizeof small), small);
  EXPECT_EQ(std::string(small, sizeof small), std::string(31, 'x'));
  EXPECT_EQ(std::string(GetGuestUser(name, 32)).substr(22), "0f11@gust");
}

TEST(Identifiers, RandseqTakesThreeCharactersFromEachRandValue) {
  EXPECT_EQ(ipv4(), 0u);  // the seeds' address term
  std::srand(1234);
  int r1 = std::rand(), r2 = std::rand(), r3 = std::rand();
  char text[5] = "....";
  randseq(text, 4, 1234);
  EXPECT_EQ(std::rand(), r3);  // two values used, no more
  const char want[] = {kAlphabet[r2 & 63], kAlphabet[(r1 >> 12) & 63],
                       kAlphabet[(r1 >> 6) & 63], kAlphabet[r1 & 63], '\0'};
  EXPECT_STREQ(text, want);
  randseq(text, 0, 1);
  EXPECT_STREQ(text, want);
}

}  // namespace
