// The link notation: writing a dictionary as a query and reading it back.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>

#include "Array.h"
#include "jsontest.h"

namespace {

using namespace jsontest;

OBJ read(const std::string& query) { return OBJ(getobjectfromquery(query.c_str())); }

std::string query(JOBJECT* obj) {
  JSTR* s = getqueryfromobject(obj);
  std::string text = getjstr(s);
  releasejobject(s);
  return text;
}

// The JSON text of what a query reads as, or "<null>".
std::string readjson(const std::string& q) {
  OBJ obj = read(q);
  return obj ? json(obj.get()) : "<null>";
}

// A one-key dictionary {"k": value}, taking over value.
OBJ single(JOBJECT* value) {
  OBJ d(newjdict());
  addjdict(d.get(), "k", value);
  return d;
}

std::string escaped(const char* s) {
  JSTR* str = newjstr(nullptr);
  appendjstr_query(str, s);
  std::string text = getjstr(str);
  releasejobject(str);
  return text;
}

}  // namespace

// ---------------------------------------------------------------- edge cases

TEST(QueryEdge, String12RoundTripsAsUnderscore12AndNumber12As12) {
  OBJ s = single(newjstr("12"));
  OBJ n = single(newjnum(12));
  EXPECT_EQ(query(s.get()), "k=_12");
  EXPECT_EQ(query(n.get()), "k=12");
  OBJ s2 = read("k=_12"), n2 = read("k=12");
  ASSERT_TRUE(s2);
  ASSERT_TRUE(n2);
  JOBJECT* sv = getjdict(s2.get(), "k");
  JOBJECT* nv = getjdict(n2.get(), "k");
  ASSERT_TRUE(sv);
  ASSERT_TRUE(nv);
  EXPECT_EQ(sv->type, JOBJECT_STR);
  EXPECT_STREQ(getjstr(sv), "12");
  EXPECT_EQ(nv->type, JOBJECT_NUM);
  EXPECT_EQ(getjnum(nv), 12);
}

TEST(QueryEdge, StringTrueRoundTripsAsUnderscoreTrue) {
  OBJ s = single(newjstr("true"));
  EXPECT_EQ(query(s.get()), "k=_true");
  EXPECT_EQ(readjson("k=_true"), "{\n  \"k\": \"true\"\n}");
  EXPECT_EQ(readjson("k=true"), "{\n  \"k\": true\n}");
}

TEST(QueryEdge, BlanksAndUmlautEscapeAsPlusAndPercent) {
  OBJ s = single(newjstr("a b\xC3\xA4"));
  EXPECT_EQ(query(s.get()), "k=a+b%C3%A4");
  OBJ back = read("k=a+b%C3%A4");
  ASSERT_TRUE(back);
  EXPECT_STREQ(getjstr(getjdict(back.get(), "k")), "a b\xC3\xA4");
}

TEST(QueryEdge, EmptyStringValueWritesKeyEqualsAndThePairIsLostOnReading) {
  OBJ d(newjdict());
  addjdict(d.get(), "k", newjstr(""));
  addjdict(d.get(), "j", newjnum(1));
  std::string q = query(d.get());
  EXPECT_EQ(q, "k=&j=1");
  OBJ back = read(q);
  ASSERT_TRUE(back);
  EXPECT_EQ(countjdict(back.get()), 1);
  EXPECT_EQ(getjdict(back.get(), "k"), nullptr);
  EXPECT_EQ(getjnum(getjdict(back.get(), "j")), 1);
  EXPECT_EQ(readjson("k="), "{ }");
}

TEST(QueryEdge, EscapedPlusSurvivesAndRawPlusIsBlank) {
  OBJ s = single(newjstr("1+1"));
  EXPECT_EQ(query(s.get()), "k=1%2B1");
  EXPECT_EQ(readjson("k=1%2B1"), "{\n  \"k\": \"1+1\"\n}");
  EXPECT_EQ(readjson("k=1+1"), "{\n  \"k\": \"1 1\"\n}");
}

// ---------------------------------------------------------------- writer

TEST(QueryWriter, EscapeKeepsTokenBytesAndEncodesTheRestInCapitals) {
  EXPECT_EQ(escaped("AZaz09-.;_"), "AZaz09-.;_");
  EXPECT_EQ(escaped(" "), "+");
  EXPECT_EQ(escaped("=&*~+%/"), "%3D%26%2A%7E%2B%25%2F");
  EXPECT_EQ(escaped("\x01\x7f\xff"), "%01%7F%FF");
}

TEST(QueryWriter, EmptyDictionaryGivesEmptyText) {
  OBJ d(newjdict());
  EXPECT_EQ(query(d.get()), "");
  OBJ back = read("");
  ASSERT_TRUE(back);
  EXPECT_EQ(back->type, JOBJECT_DICT);
  EXPECT_EQ(countjdict(back.get()), 0);
}

TEST(QueryWriter, AnythingButADictionaryGivesEmptyText) {
  OBJ a(newjarray());
  addjarray(a.get(), newjnum(1));
  EXPECT_EQ(query(a.get()), "");
  EXPECT_EQ(query(nullptr), "");
}

TEST(QueryWriter, NumbersUseSixteenDigitsAndZeroForTheRest) {
  OBJ d(newjdict());
  addjdict(d.get(), "a", newjnum(0.1));
  addjdict(d.get(), "b", newjnum(-1.5));
  addjdict(d.get(), "c", newjnum(1.0 / 3.0));
  addjdict(d.get(), "d", newjnum(4.9e-324));
  addjdict(d.get(), "e", newjnum(NAN));
  addjdict(d.get(), "f", newjnum(0.0));
  addjdict(d.get(), "g", newjnum(INFINITY));
  EXPECT_EQ(query(d.get()), "a=0.1&b=-1.5&c=0.3333333333333333&d=0&e=0&f=0&g=0");
}

// The "+" of an exponent would read back as a blank, so it is escaped.
TEST(QueryWriter, ExponentPlusIsEscapedAndReadsBackAsNumber) {
  OBJ n = single(newjnum(1e300));
  EXPECT_EQ(query(n.get()), "k=1e%2B300");
  OBJ back = read("k=1e%2B300");
  ASSERT_TRUE(back);
  JOBJECT* v = getjdict(back.get(), "k");
  ASSERT_EQ(v->type, JOBJECT_NUM);
  EXPECT_EQ(getjnum(v), 1e300);
  EXPECT_EQ(query(single(newjnum(2.5e-12)).get()), "k=2.5e-12");
}

TEST(QueryWriter, BoolAndNull) {
  OBJ d(newjdict());
  addjdict(d.get(), "t", newjbool(true));
  addjdict(d.get(), "f", newjbool(false));
  addjdict(d.get(), "n", newjnull());
  EXPECT_EQ(query(d.get()), "t=true&f=false&n=null");
  OBJ back = read("t=true&f=false&n=null");
  ASSERT_TRUE(back);
  EXPECT_EQ(getjdict(back.get(), "t")->type, JOBJECT_BOOL);
  EXPECT_TRUE(getjbool(getjdict(back.get(), "t")));
  EXPECT_FALSE(getjbool(getjdict(back.get(), "f")));
  EXPECT_EQ(getjdict(back.get(), "n")->type, JOBJECT_NULL);
}

TEST(QueryWriter, StringsThatLookLikeNumbersOrWordsGetUnderscore) {
  OBJ d(newjdict());
  addjdict(d.get(), "a", newjstr("-1.5e3"));
  addjdict(d.get(), "b", newjstr("null"));
  addjdict(d.get(), "c", newjstr("false"));
  addjdict(d.get(), "d", newjstr("1e-310"));  // not a number by the grammar's rules
  addjdict(d.get(), "e", newjstr("12a"));
  addjdict(d.get(), "f", newjstr("True"));
  EXPECT_EQ(query(d.get()), "a=_-1.5e3&b=_null&c=_false&d=1e-310&e=12a&f=True");
}

TEST(QueryWriter, KeysAreEscapedWithoutUnderscore) {
  OBJ d(newjdict());
  addjdict(d.get(), "a b/c", newjnum(1));
  addjdict(d.get(), "12", newjnum(2));
  addjdict(d.get(), "true", newjnum(3));
  std::string q = query(d.get());
  EXPECT_EQ(q, "a+b%2Fc=1&12=2&true=3");
  OBJ back = read(q);
  ASSERT_TRUE(back);
  EXPECT_EQ(json(back.get()), json(d.get()));
}

TEST(QueryWriter, NestingWithStarAndTilde) {
  OBJ root(newjdict());
  JOBJECT* arr = newjarray();
  addjarray(arr, newjnum(1));
  JOBJECT* inner = newjdict();
  addjdict(inner, "x", newjstr("y z"));
  addjdict(inner, "e", newjarray());
  addjarray(arr, inner);
  addjarray(arr, newjstr("s"));
  addjdict(root.get(), "a", arr);
  addjdict(root.get(), "b", newjbool(true));
  std::string q = query(root.get());
  EXPECT_EQ(q, "a=*1&*x=y+z&e=*~~&s~&b=true");
  OBJ back = read(q);
  ASSERT_TRUE(back);
  EXPECT_EQ(json(back.get()), json(root.get()));
}

TEST(QueryWriter, CustomValuesWriteNothing) {
  JOBJECT custom;
  custom.type = JOBJECT_CUSTOM;
  custom.freefct = nullptr;
  custom.count = 2;
  OBJ d(newjdict());
  addjdict(d.get(), "c", &custom);
  addjdict(d.get(), "n", newjnum(1));
  EXPECT_EQ(query(d.get()), "c=&n=1");
  d.reset();
  EXPECT_EQ(custom.count, 1);
}

// ---------------------------------------------------------------- reader

TEST(QueryReader, EmptyArrayIsStarTilde) {
  EXPECT_EQ(readjson("a=*~"), "{\n  \"a\": [ ]\n}");
  OBJ d = single(newjarray());
  EXPECT_EQ(query(d.get()), "k=*~");
}

TEST(QueryReader, EmptyDictionaryComesBackAsEmptyArray) {
  OBJ d = single(newjdict());
  std::string q = query(d.get());
  EXPECT_EQ(q, "k=*~");
  OBJ back = read(q);
  ASSERT_TRUE(back);
  EXPECT_EQ(getjdict(back.get(), "k")->type, JOBJECT_ARRAY);
}

TEST(QueryReader, NestedArraysAndDictionaries) {
  EXPECT_EQ(readjson("a=**1&2~&*3~~"), "{\n  \"a\": [\n    [\n      1,\n      2\n    ],\n    [\n      3\n    ]\n  ]\n}");
  EXPECT_EQ(readjson("a=*b=*c=1~~"), "{\n  \"a\": {\n    \"b\": {\n      \"c\": 1\n    }\n  }\n}");
  EXPECT_EQ(readjson("a=*b=1&c=x~&d=2"), "{\n  \"a\": {\n    \"b\": 1,\n    \"c\": \"x\"\n  },\n  \"d\": 2\n}");
}

TEST(QueryReader, TokensBecomeValuesByKind) {
  EXPECT_EQ(readjson("a=-2.5&b=1e5&c=007&d=abc&e=null&f=1.0.0&g=-"),
            "{\n  \"a\": -2.5,\n  \"b\": 100000,\n  \"c\": 7,\n  \"d\": \"abc\",\n  \"e\": null,\n"
            "  \"f\": \"1.0.0\",\n  \"g\": \"-\"\n}");
}

TEST(QueryReader, NumbersTheGrammarRefusesStayStrings) {
  EXPECT_EQ(readjson("a=1e-310&b=1e999&c=1."), "{\n  \"a\": \"1e-310\",\n  \"b\": \"1e999\",\n  \"c\": \"1.\"\n}");
}

TEST(QueryReader, LeadingUnderscoreIsDroppedOnce) {
  EXPECT_EQ(readjson("a=__x&b=_&c=_abc"), "{\n  \"a\": \"_x\",\n  \"b\": \"\",\n  \"c\": \"abc\"\n}");
}

TEST(QueryReader, UnderscoreAfterDecodingCounts) {
  EXPECT_EQ(readjson("a=%5F12"), "{\n  \"a\": \"12\"\n}");
}

TEST(QueryReader, KeysAreDecodedAndKeepTheirUnderscore) {
  EXPECT_EQ(readjson("_a=1&a%20b=2&x+y=3"), "{\n  \"_a\": 1,\n  \"a b\": 2,\n  \"x y\": 3\n}");
}

TEST(QueryReader, DuplicateKeyKeepsFirstPositionWithLastValue) {
  EXPECT_EQ(readjson("a=1&b=2&a=3"), "{\n  \"a\": 3,\n  \"b\": 2\n}");
}

TEST(QueryReader, EmptyMembersAreSkipped) {
  EXPECT_EQ(readjson("&&a=1&&"), "{\n  \"a\": 1\n}");
  EXPECT_EQ(readjson("a=*&1&&2&~"), "{\n  \"a\": [\n    1,\n    2\n  ]\n}");
}

TEST(QueryReader, PairWithoutKeyIsLost) {
  EXPECT_EQ(readjson("=1&a=2"), "{\n  \"a\": 2\n}");
  EXPECT_EQ(readjson("="), "{ }");
  OBJ d(newjdict());
  addjdict(d.get(), "", newjnum(1));
  EXPECT_EQ(query(d.get()), "=1");
}

TEST(QueryReader, PercentInTokenDecodesToAnyByte) {
  EXPECT_EQ(readjson("a=%2A%3D%7E%26"), "{\n  \"a\": \"*=~&\"\n}");
}

// ---------------------------------------------------------------- syntax errors

TEST(QuerySyntax, ByteOutsideTheAllowedSetFails) {
  for (const char* q : {"a=b c", "a=b#", "a=b/c", "a=b?", "a=\xC3\xA4", "a=b\n", "a!=1", "a=\"x\""})
    EXPECT_EQ(read(q), nullptr) << q;
}

TEST(QuerySyntax, BadPercentEscapeFails) {
  EXPECT_EQ(read("a=%zz"), nullptr);
  EXPECT_EQ(read("a=%4"), nullptr);
  EXPECT_EQ(read("a=100%"), nullptr);
  EXPECT_EQ(read("a%g1=1"), nullptr);
  EXPECT_EQ(read("a=*1&%x~"), nullptr);
}

TEST(QuerySyntax, UnbalancedNestingFails) {
  EXPECT_EQ(read("a=*1&2"), nullptr);
  EXPECT_EQ(read("a=1~"), nullptr);
  EXPECT_EQ(read("a=**1~"), nullptr);
  EXPECT_EQ(read("~"), nullptr);
}

TEST(QuerySyntax, PlainItemAtTopLevelOrBesidePairsFails) {
  EXPECT_EQ(read("a"), nullptr);
  EXPECT_EQ(read("a&b"), nullptr);
  EXPECT_EQ(read("a=1&b"), nullptr);
  EXPECT_EQ(read("a=*b=1&c~"), nullptr);
}

TEST(QuerySyntax, MisplacedMarksFail) {
  EXPECT_EQ(read("a=b=c"), nullptr);
  EXPECT_EQ(read("a==b"), nullptr);
  EXPECT_EQ(read("a=*x~y"), nullptr);
  EXPECT_EQ(read("*x~=1"), nullptr);
  EXPECT_EQ(read("a=*1~*2~"), nullptr);
  EXPECT_EQ(read("a=1*"), nullptr);
}

TEST(QuerySyntax, NestingUpTo512LevelsOnly) {
  EXPECT_NE(read("a=" + std::string(512, '*') + std::string(512, '~')), nullptr);
  EXPECT_EQ(read("a=" + std::string(513, '*') + std::string(513, '~')), nullptr);
}

TEST(QuerySyntax, NullTextFails) { EXPECT_EQ(getobjectfromquery(nullptr), nullptr); }

// ---------------------------------------------------------------- round trip

TEST(QueryRoundTrip, JsonToQueryToJsonIsIdentical) {
  const char* text =
      "{\n"
      "  \"center\": [\n"
      "    \"-0.7453\",\n"
      "    \"0.1127\"\n"
      "  ],\n"
      "  \"zoom\": 1e+300,\n"
      "  \"angle\": -0.25,\n"
      "  \"julia\": false,\n"
      "  \"name\": \"Elephant valley & co.\",\n"
      "  \"colors\": {\n"
      "    \"palette\": [\n"
      "      1,\n"
      "      [\n"
      "        \"null\"\n"
      "      ],\n"
      "      null\n"
      "    ],\n"
      "    \"shift\": 0.5\n"
      "  }\n"
      "}";
  OBJ obj(getobjectfromjson(text));
  ASSERT_TRUE(obj);
  std::string q = query(obj.get());
  EXPECT_EQ(q,
            "center=*_-0.7453&_0.1127~&zoom=1e%2B300&angle=-0.25&julia=false&name=Elephant+valley+%26+co."
            "&colors=*palette=*1&*_null~&null~&shift=0.5~");
  OBJ back = read(q);
  ASSERT_TRUE(back);
  EXPECT_EQ(json(back.get()), text);
}

TEST(QueryWriter, StringStartingWithUnderscoreKeepsItOnRoundTrip) {
  JDICT* d = newjdict();
  addjdict(d, "k", newjstr("_x"));
  JSTR* q = getqueryfromobject(d);
  EXPECT_STREQ(getjstr(q), "k=__x");
  JOBJECT* back = getobjectfromquery(getjstr(q));
  ASSERT_NE(back, nullptr);
  EXPECT_STREQ(getjstr(getjdict(back, "k")), "_x");
  releasejobject(back);
  releasejobject(q);
  releasejobject(d);
}
