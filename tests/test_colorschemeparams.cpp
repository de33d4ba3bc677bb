// The palette as JSON: only differences from the defaults are written, and
// reading starts from the defaults, checks every type and picks the scheme.
#include <gtest/gtest.h>

#include <string>

#include "MandelbrotColorscheme.h"
#include "jsontest.h"
#include "test_colorscheme_fakegl.h"

namespace {

using jsontest::json;
using jsontest::OBJ;

class ParamsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakegl::install();
    csdict = builtincolorschemes(NULL, "t.jpg");
    initParams(&p);
  }
  void TearDown() override {
    if (cs) {
      deactivateColorscheme(cs);
      releasejobject(cs);
    }
    releasejobject(csdict);
    setcolorschemegl(NULL);
  }
  Colorscheme* scheme(const char* name) { return static_cast<Colorscheme*>(getjdict(csdict, name)); }
  std::string written(const Colorscheme* s = NULL, int juliamode = 0) {
    OBJ d(newjdict());
    writeParams(d.get(), &p, s, juliamode);
    return json(d.get());
  }
  bool read(const char* text) {
    OBJ d(getobjectfromjson(text));
    EXPECT_NE(d, nullptr) << text;
    return readParams(NULL, d.get(), &p, &cs, csdict, NULL);
  }

  JDICT* csdict = NULL;
  Params p;
  Colorscheme* cs = NULL;
};

TEST_F(ParamsTest, DefaultsAsDesigned) {
  EXPECT_EQ(p.ncolor, 3);
  EXPECT_TRUE(UniformsColorEqual(&p.color[1], &INITIALCOLORS[1]));
  EXPECT_EQ(INITIALCOLORS[2].frequency, -0.023268627f);
  EXPECT_EQ(INITIALCOLORS[1].initial, -1.5f);
  EXPECT_EQ(p.color[3].c.x, 0);
  EXPECT_EQ(p.brightnessfinite, 1.0f);
  EXPECT_EQ(p.brightnessinfinite, 1.0f);
  EXPECT_EQ(p.frequency, -2.3025851f);
  EXPECT_EQ(p.initial, 0.0f);
  EXPECT_FALSE(p.inverse);
  for (float v : p.param) EXPECT_EQ(v, 0);
}

TEST_F(ParamsTest, UniformsColorEqualComparesAllFiveFloats) {
  UniformsColor a = INITIALCOLORS[0], b = a;
  EXPECT_TRUE(UniformsColorEqual(&a, &b));
  b.c.z = 1e-7f;
  EXPECT_FALSE(UniformsColorEqual(&a, &b));
  b = a;
  b.initial += 1;
  EXPECT_FALSE(UniformsColorEqual(&a, &b));
  b = a;
  b.frequency = 0;
  EXPECT_FALSE(UniformsColorEqual(&a, &b));
}

TEST_F(ParamsTest, TheDefaultPaletteWritesNoKey) {
  EXPECT_EQ(written(), "{ }");
  // "Iteration" is passed as no scheme by the savers; a built-in otherwise
  // goes by name.
  EXPECT_EQ(written(scheme("Distance")), "{\n  \"colorscheme\": {\n    \"name\": \"Distance\"\n  }\n}");
}

TEST_F(ParamsTest, OneComponentOfTheSecondWaveWritesThreeEntriesTheFirstEmpty) {
  p.color[1].c.y = 0.5f;
  EXPECT_EQ(written(),
            "{\n  \"colors\": [\n    { },\n    {\n      \"rgb\": [\n        0,\n        0.5,\n        0\n      ]\n"
            "    },\n    { }\n  ]\n}");
}

TEST_F(ParamsTest, WavesBeyondTheThirdWriteEverything) {
  p.ncolor = 4;
  p.color[3] = {{0.25f, 0, 1}, 0.5f, -1};
  p.color[0].initial = 2;
  OBJ d(newjdict());
  writeParams(d.get(), &p, NULL, 0);
  JOBJECT* colors = getjdict(d.get(), "colors");
  ASSERT_EQ(countjarray(colors), 4);
  EXPECT_EQ(json(getjarray(colors, 0)), "{\n  \"initial\": 2\n}");
  EXPECT_EQ(json(getjarray(colors, 3)),
            "{\n  \"rgb\": [\n    0.25,\n    0,\n    1\n  ],\n  \"initial\": -1,\n  \"frequency\": 0.5\n}");
}

TEST_F(ParamsTest, EveryKeyInItsOrder) {
  Colorscheme* user = newColorscheme();
  user->name = newjstr("Mine");
  user->code = newjstr("vec4 color(Data data) { return vec4(1.0); }");
  user->channels = 17;
  user->samples = 1;
  user->nparam = 2;
  p.ncolor = 2;
  p.param[1] = 0.5f;
  p.param[2] = 9;  // beyond nparam
  p.brightnessfinite = 0.5f;
  p.brightnessinfinite = 2;
  p.frequency = 0;
  p.initial = 1;
  p.inverse = true;
  OBJ d(newjdict());
  writeParams(d.get(), &p, user, 2);
  std::string keys;
  for (int i = 0; i < countjdict(d.get()); i++) {
    char* key;
    getjdictenum(d.get(), i, &key);
    keys += std::string(key) + " ";
  }
  EXPECT_EQ(keys,
            "colors custom brightnessfinite brightnessinfinite juliamode frequency initial inverse colorscheme ");
  EXPECT_EQ(json(getjdict(d.get(), "custom")), "[\n  0,\n  0.5\n]");
  EXPECT_EQ(getjnum(getjdict(d.get(), "inverse")), 1);
  EXPECT_EQ(getjnum(getjdict(d.get(), "juliamode")), 2);
  JOBJECT* embedded = getjdict(d.get(), "colorscheme");
  EXPECT_STREQ(getjstr(getjdict(embedded, "codegl")), "vec4 color(Data data) { return vec4(1.0); }");
  EXPECT_EQ(getjnum(getjdict(embedded, "channels")), 17);
  releasejobject(user);
}

TEST_F(ParamsTest, CustomOnlyWhenAUsedParameterIsSet) {
  p.param[1] = 3;  // "Distance" uses one
  EXPECT_EQ(written(scheme("Distance")).find("custom"), std::string::npos);
  p.param[0] = -0.25f;
  EXPECT_NE(written(scheme("Distance")).find("\"custom\": [\n    -0.25\n  ]"), std::string::npos);
  EXPECT_EQ(written(NULL).find("custom"), std::string::npos);
}

TEST_F(ParamsTest, WrittenParamsReadBackEqual) {
  p.ncolor = 5;
  p.color[1].c.z = 0.125f;
  p.color[2].frequency = 1.1f;
  p.color[3] = {{0.1f, 0.2f, 0.3f}, -3.3f, 0.7f};
  p.color[4] = {{1, 1, 1}, 0.33f, 2.2f};
  p.param[0] = 0.37f;
  p.brightnessfinite = 0.3f;
  p.brightnessinfinite = 1.7f;
  p.frequency = -1.1f;
  p.initial = 0.9f;
  p.inverse = true;
  Params saved = p;
  std::string text = written(scheme("Distance"), 1);
  ASSERT_TRUE(read(text.c_str()));
  EXPECT_EQ(p.ncolor, 5);
  for (int i = 0; i < NCOLOR; i++) EXPECT_TRUE(UniformsColorEqual(&p.color[i], &saved.color[i])) << i;
  EXPECT_EQ(p.param[0], saved.param[0]);
  EXPECT_EQ(p.brightnessfinite, saved.brightnessfinite);
  EXPECT_EQ(p.brightnessinfinite, saved.brightnessinfinite);
  EXPECT_EQ(p.frequency, saved.frequency);
  EXPECT_EQ(p.initial, saved.initial);
  EXPECT_TRUE(p.inverse);
  EXPECT_EQ(cs, scheme("Distance"));
  EXPECT_EQ(cs->activecount, 1);
}

TEST_F(ParamsTest, NoDictionaryGivesDefaultsAndIteration) {
  p.brightnessfinite = 5;
  EXPECT_FALSE(readParams(NULL, NULL, &p, &cs, csdict, NULL));
  EXPECT_EQ(p.brightnessfinite, 1);
  EXPECT_EQ(cs, scheme("Iteration"));
  EXPECT_EQ(cs->count, 2);  // the dictionary's and ours
  EXPECT_EQ(cs->activecount, 1);
}

TEST_F(ParamsTest, TheOldSchemeIsDeactivatedAndReleased) {
  ASSERT_TRUE(read("{\"colorscheme\": {\"name\": \"Smooth\"}}"));
  Colorscheme* smooth = cs;
  EXPECT_EQ(smooth->count, 2);
  ASSERT_TRUE(read("{ }"));
  EXPECT_EQ(cs, scheme("Iteration"));
  EXPECT_EQ(smooth->count, 1);
  EXPECT_EQ(smooth->activecount, 0);
}

TEST_F(ParamsTest, AnUnknownSchemeNameFallsBackToIteration) {
  ASSERT_TRUE(read("{\"colorscheme\": {\"name\": \"Nowhere\"}}"));
  EXPECT_EQ(cs, scheme("Iteration"));
}

TEST_F(ParamsTest, AnEmbeddedSchemeIsCompiledFromItsOwnCode) {
  ASSERT_TRUE(read("{\"colorscheme\": {\"name\": \"Smooth\", \"codegl\": \"vec4 color(Data data) { return "
                   "vec4(0.5); }\", \"channels\": 16, \"nparam\": 1}}"));
  ASSERT_NE(cs, nullptr);
  EXPECT_NE(cs, scheme("Smooth"));
  EXPECT_STREQ(getjstr(cs->code), "vec4 color(Data data) { return vec4(0.5); }");
  EXPECT_EQ(cs->channels, 16);
  EXPECT_EQ(cs->nparam, 1);
  EXPECT_EQ(cs->count, 1);
  EXPECT_EQ(scheme("Smooth")->count, 1);  // the looked-up scheme is not kept
  EXPECT_NE(fakegl::state.source.find("return vec4(0.5);"), std::string::npos);
}

TEST_F(ParamsTest, AnEmbeddedSchemeThatFailsToCompileFallsBackToIteration) {
  fakegl::state.compileok = false;
  ASSERT_TRUE(read("{\"colorscheme\": {\"name\": \"X\", \"codegl\": \"nonsense\", \"channels\": 1}}"));
  EXPECT_EQ(cs, scheme("Iteration"));
}

TEST_F(ParamsTest, AnEmptyColorEntryKeepsItsSlot) {
  ASSERT_TRUE(read("{\"colors\": [[], {\"initial\": 4}, [], [], {\"rgb\": [1]}]}"));
  EXPECT_EQ(p.ncolor, 5);
  EXPECT_TRUE(UniformsColorEqual(&p.color[0], &INITIALCOLORS[0]));
  EXPECT_EQ(p.color[1].initial, 4);
  EXPECT_EQ(p.color[1].frequency, INITIALCOLORS[1].frequency);
  EXPECT_EQ(p.color[1].c.y, 1);
  EXPECT_TRUE(UniformsColorEqual(&p.color[2], &INITIALCOLORS[2]));
  // Slot 3 stays as Params held it, counted by ncolor all the same.
  EXPECT_EQ(p.color[3].c.x, 0);
  EXPECT_EQ(p.color[3].frequency, 0);
  EXPECT_EQ(p.color[4].c.x, 1);
  EXPECT_EQ(p.color[4].c.y, 0);
}

TEST_F(ParamsTest, AShortRgbChangesItsFirstValuesAndSkipsNulls) {
  ASSERT_TRUE(read("{\"colors\": [{\"rgb\": [null, 0.5]}]}"));
  EXPECT_EQ(p.ncolor, 1);
  EXPECT_EQ(p.color[0].c.x, 1);
  EXPECT_EQ(p.color[0].c.y, 0.5f);
  EXPECT_EQ(p.color[0].c.z, 0);
}

TEST_F(ParamsTest, CustomKeepsTheFirstTenAndNullsLeaveZero) {
  ASSERT_TRUE(read("{\"custom\": [1, null, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, \"x\"]}"));
  EXPECT_EQ(p.param[0], 1);
  EXPECT_EQ(p.param[1], 0);
  EXPECT_EQ(p.param[9], 10);
}

TEST_F(ParamsTest, NonZeroInverseIsTrue) {
  ASSERT_TRUE(read("{\"inverse\": -2}"));
  EXPECT_TRUE(p.inverse);
  ASSERT_TRUE(read("{\"inverse\": 0}"));
  EXPECT_FALSE(p.inverse);
}

TEST_F(ParamsTest, WrongTypesAreRefused) {
  for (const char* text : {
           "{\"brightnessfinite\": \"1\"}",
           "{\"brightnessinfinite\": true}",
           "{\"initial\": []}",
           "{\"frequency\": null}",
           "{\"inverse\": true}",
           "{\"custom\": 1}",
           "{\"custom\": [1, \"x\"]}",
           "{\"colorscheme\": \"Smooth\"}",
           "{\"colorscheme\": {\"name\": 3}}",
           "{\"colorscheme\": {}}",
           "{\"colors\": {}}",
           "{\"colors\": [1]}",
           "{\"colors\": [[1]]}",
           "{\"colors\": [{\"rgb\": [1, 2, 3, 4]}]}",
           "{\"colors\": [{\"rgb\": [\"a\"]}]}",
           "{\"colors\": [[], [], [], [], [], [], [], [], [], [], [], [], [], [], [], [], [], [], [], [], []]}",
       }) {
    EXPECT_FALSE(read(text)) << text;
    EXPECT_EQ(cs, nullptr) << text;  // the scheme is left alone
  }
  EXPECT_TRUE(read("{\"colors\": [[], [], [], [], [], [], [], [], [], [], [], [], [], [], [], [], [], [], [], []]}"));
  EXPECT_EQ(p.ncolor, 20);
}

TEST_F(ParamsTest, ARefusedPaletteReleasesAnEmbeddedScheme) {
  EXPECT_FALSE(read("{\"colorscheme\": {\"name\": \"Smooth\"}, \"colors\": 5}"));
  EXPECT_EQ(cs, nullptr);
  EXPECT_EQ(scheme("Smooth")->count, 1);
}

}  // namespace
