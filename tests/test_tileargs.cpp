// orvanta-tile's command line: every argument error is refused with a reason,
// decimals are taken exactly, and a dyadic corner is written with all of its
// digits.
#include <gmp.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tileargs.h"

namespace {

bool parse(std::vector<const char*> words, TILEARGS* args, std::string* error) {
  words.insert(words.begin(), "orvanta-tile");
  return parsetileargs(static_cast<int>(words.size()), words.data(), args, error);
}

std::string exact(const char* text) {
  mpq_t q;
  mpq_init(q);
  EXPECT_TRUE(parsedecimal(text, q)) << text;
  char* s = mpq_get_str(nullptr, 10, q);
  std::string r(s);
  void (*freefunc)(void*, size_t);
  mp_get_memory_functions(nullptr, nullptr, &freefunc);
  freefunc(s, r.size() + 1);
  mpq_clear(q);
  return r;
}

TEST(TileArgs, FullCommandLine) {
  TILEARGS a;
  std::string error;
  ASSERT_TRUE(parse({"--depth", "12", "--re", "-0.75", "--im", "0.1", "--realm", "julia",
                     "--julia-re", "-0.8", "--julia-im", "0.156", "--format", "longdouble",
                     "--channels", "0,3,8", "--flags", "0x30021006", "--out", "/tmp/x"},
                    &a, &error))
      << error;
  EXPECT_EQ(a.depth, 12);
  EXPECT_EQ(a.re, "-0.75");
  EXPECT_TRUE(a.julia);
  EXPECT_EQ(a.juliaim, "0.156");
  EXPECT_EQ(a.format, 48u);
  EXPECT_EQ(a.channels, (1u << 0) | (1u << 3) | (1u << 8));
  EXPECT_TRUE(a.hasflags);
  EXPECT_EQ(a.flags, 0x30021006u);
  EXPECT_EQ(a.out, "/tmp/x");
}

TEST(TileArgs, DefaultsAreChannelThreeAutomaticMandelbrot) {
  TILEARGS a;
  std::string error;
  ASSERT_TRUE(parse({"--depth", "0", "--re", "0", "--im", "0", "--out", "p"}, &a, &error));
  EXPECT_EQ(a.channels, 8u);
  EXPECT_EQ(a.format, 0u);
  EXPECT_FALSE(a.julia);
  EXPECT_FALSE(a.hasflags);
}

TEST(TileArgs, ErrorsNameTheirCause) {
  struct CASE {
    std::vector<const char*> words;
    const char* cause;
  } cases[] = {
      {{"--re", "0", "--im", "0", "--out", "p"}, "--depth is required"},
      {{"--depth", "3", "--im", "0", "--out", "p"}, "--re and --im are required"},
      {{"--depth", "3", "--re", "0", "--im", "0"}, "--out is required"},
      {{"--depth", "-1", "--re", "0", "--im", "0", "--out", "p"}, "bad depth"},
      {{"--depth", "3x", "--re", "0", "--im", "0", "--out", "p"}, "bad depth"},
      {{"--depth", "3", "--re", "1..2", "--im", "0", "--out", "p"}, "not a decimal"},
      {{"--depth", "3", "--re", "0", "--im", "0", "--out", "p", "--realm", "x"}, "unknown realm"},
      {{"--depth", "3", "--re", "0", "--im", "0", "--out", "p", "--format", "quad"},
       "unknown format"},
      {{"--depth", "3", "--re", "0", "--im", "0", "--out", "p", "--channels", "9"},
       "bad channel list"},
      {{"--depth", "3", "--re", "0", "--im", "0", "--out", "p", "--channels", "3,"},
       "bad channel list"},
      {{"--depth", "3", "--re", "0", "--im", "0", "--out", "p", "--flags", "xyz"},
       "bad flag word"},
      {{"--depth", "3", "--re", "0", "--im", "0", "--out", "p", "--julia-re", "1"},
       "need --realm julia"},
      {{"--depth", "3", "--re", "0", "--im", "0", "--out"}, "missing value"},
      {{"--depth", "3", "--re", "0", "--im", "0", "--out", "p", "--fast", "1"},
       "unknown option"},
  };
  for (const CASE& c : cases) {
    TILEARGS a;
    std::string error;
    EXPECT_FALSE(parse(c.words, &a, &error)) << c.cause;
    EXPECT_NE(error.find(c.cause), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos);
  }
}

TEST(TileArgs, DecimalsAreExact) {
  EXPECT_EQ(exact("0.1"), "1/10");
  EXPECT_EQ(exact("-1.25"), "-5/4");
  EXPECT_EQ(exact("+3"), "3");
  EXPECT_EQ(exact("2.5e-3"), "1/400");
  EXPECT_EQ(exact("7E2"), "700");
  EXPECT_EQ(exact(".5"), "1/2");
  EXPECT_EQ(exact("5."), "5");
  // More digits than any double holds survive unrounded.
  EXPECT_EQ(exact("0.1000000000000000000000000000000000000001"),
            "1000000000000000000000000000000000000001/"
            "10000000000000000000000000000000000000000");
  mpq_t q;
  mpq_init(q);
  for (const char* bad : {"", "-", ".", "1e", "1e+", "--1", "1.2.3", "1e5.0", "0x10", "1 ", "e5"})
    EXPECT_FALSE(parsedecimal(bad, q)) << bad;
  mpq_clear(q);
}

TEST(TileArgs, DyadicCornerHasEveryDigit) {
  mpq_t q;
  mpq_init(q);
  mpq_set_si(q, -3, 8);
  EXPECT_EQ(dyadicdecimal(q), "-0.375");
  mpq_set_si(q, 5, 1);
  EXPECT_EQ(dyadicdecimal(q), "5");
  mpq_set_si(q, 0, 1);
  EXPECT_EQ(dyadicdecimal(q), "0");
  // 1/2^70 has 70 digits after the point, the last a 5.
  mpq_set_ui(q, 1, 1);
  mpz_mul_2exp(mpq_denref(q), mpq_denref(q), 70);
  std::string s = dyadicdecimal(q);
  EXPECT_EQ(s.size(), 72u);
  EXPECT_EQ(s.substr(0, 2), "0.");
  EXPECT_EQ(s.back(), '5');
  // The text read back is the same rational.
  mpq_t back;
  mpq_init(back);
  ASSERT_TRUE(parsedecimal(s, back));
  EXPECT_TRUE(mpq_equal(q, back));
  mpq_clears(q, back, nullptr);
}

}  // namespace
