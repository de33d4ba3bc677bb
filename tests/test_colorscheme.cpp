// Colour scheme records, handles, activation, the assembled program text,
// compilation and the upload of uniforms, against a recording GL table.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "MandelbrotColorscheme.h"
#include "test_colorscheme_fakegl.h"

namespace {

struct SCHEME {
  Colorscheme* cs;
  explicit SCHEME(int channels, int samples = 2, const char* code = "vec4 color(Data d) { return vec4(1.0); }\n")
      : cs(newColorscheme()) {
    cs->name = newjstr("test");
    cs->code = newjstr(code);
    cs->channels = channels;
    cs->samples = samples;
  }
  ~SCHEME() { releasejobject(cs); }
  std::string text() const {
    JSTR* s = assemblecolorscheme(cs);
    std::string t = getjstr(s);
    releasejobject(s);
    return t;
  }
};

class ColorschemeTest : public ::testing::Test {
 protected:
  void SetUp() override { fakegl::install(); }
  void TearDown() override { setcolorschemegl(NULL); }
};

// The part of the program before the prelude.
std::string head(const std::string& text) { return text.substr(0, text.find(template_custom)); }

// ---------------------------------------------------------------- handles

TEST_F(ColorschemeTest, AddcsStartsWithOneReferenceAndTheIterationChannel) {
  COLORSCHEME* cs = addcs(NULL);
  EXPECT_EQ(cs->count, 1);
  EXPECT_EQ(cs->channels, 1);
  EXPECT_TRUE(cs->positiondependent);
  EXPECT_FALSE(cs->timedependent);
  EXPECT_EQ(cs->shader, nullptr);
  EXPECT_EQ(cs->iauxtexture, 0);
  attachcs(cs);
  EXPECT_EQ(cs->count, 2);
  detachcs(cs);
  EXPECT_EQ(cs->count, 1);
  detachcs(cs);
}

TEST_F(ColorschemeTest, NewColorschemeIsACustomValueWithEveryFieldZero) {
  Colorscheme* cs = newColorscheme();
  EXPECT_EQ(cs->type, JOBJECT_CUSTOM);
  EXPECT_EQ(cs->count, 1);
  EXPECT_EQ(cs->freefct, freecolorscheme);
  EXPECT_EQ(cs->name, nullptr);
  EXPECT_EQ(cs->code, nullptr);
  EXPECT_EQ(cs->cs, nullptr);
  EXPECT_EQ(cs->auxfile, nullptr);
  EXPECT_EQ(cs->samples, 0);
  EXPECT_EQ(cs->channels, 0);
  EXPECT_EQ(cs->prog, 0u);
  releasejobject(cs);
}

TEST_F(ColorschemeTest, FreeingTheSchemeLeavesTheEngineAHandleWithoutShader) {
  SCHEME s(17);
  ASSERT_TRUE(compileColorscheme(NULL, s.cs, NULL));
  COLORSCHEME* handle = s.cs->cs;
  GLuint prog = s.cs->prog;
  attachcs(handle);  // a draw list's reference
  ASSERT_EQ(handle->count, 2);
  releasejobject(s.cs);
  s.cs = newColorscheme();
  EXPECT_EQ(handle->shader, nullptr);
  EXPECT_EQ(handle->count, 1);
  ASSERT_EQ(fakegl::state.deletedprograms.size(), 1u);
  EXPECT_EQ(fakegl::state.deletedprograms[0], prog);
  detachcs(handle);
}

// ---------------------------------------------------------------- program text

TEST_F(ColorschemeTest, EveryChannelDefineInItsOrder) {
  SCHEME s(0x1ff | 4096, 3);
  EXPECT_EQ(head(s.text()),
            "#version 110\n#define CHANNEL_ITER\n#define CHANNEL_ITERINT\n#define CHANNEL_VALUE\n"
            "#define CHANNEL_DIST\n#define CHANNEL_DERIVATIVE\n#define CHANNEL_COORD\n#define CHANNEL_SITER\n"
            "#define CHANNEL_DIST2\n#define SAMPLES 3\n#define CANVASSIZE 256\n");
}

TEST_F(ColorschemeTest, EitherBitOfAPairDefinesItsChannel) {
  EXPECT_EQ(head(SCHEME(4).text()), "#version 110\n#define CHANNEL_VALUE\n#define SAMPLES 2\n#define CANVASSIZE 256\n");
  EXPECT_EQ(head(SCHEME(32).text()),
            "#version 110\n#define CHANNEL_DERIVATIVE\n#define SAMPLES 2\n#define CANVASSIZE 256\n");
}

TEST_F(ColorschemeTest, AuxDefinedOnlyWithAnAuxFile) {
  SCHEME s(4103, 1);
  EXPECT_EQ(s.text().find("#define AUX\n"), std::string::npos);
  s.cs->auxfile = newjstr("/tmp/a.jpg");
  EXPECT_EQ(head(s.text()),
            "#version 110\n#define CHANNEL_ITER\n#define CHANNEL_VALUE\n#define CHANNEL_COORD\n#define AUX\n"
            "#define SAMPLES 1\n#define CANVASSIZE 256\n");
}

TEST_F(ColorschemeTest, TheUserCodeClosesTheProgram) {
  SCHEME s(1, 2, "vec4 color(Data data) { return vec4(0.25); }\n");
  std::string text = s.text();
  std::string tail = std::string(template_custom) + "vec4 color(Data data) { return vec4(0.25); }\n";
  ASSERT_GE(text.size(), tail.size());
  EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
}

TEST_F(ColorschemeTest, OneSampleMakesLoopsOfOneRound) {
  std::string text = SCHEME(1, 1).text();
  EXPECT_NE(text.find("#define SAMPLES 1\n"), std::string::npos);
  // The sample offset is a multiple of the loop indices, 0 in the one round.
  EXPECT_NE(text.find("for (int xx = 0; xx < SAMPLES; xx++)"), std::string::npos);
  EXPECT_NE(text.find("gl_TexCoord[0].xy +\n               vec2(float(xx) * dx.x + float(yy) * dy.x"), std::string::npos);
}

TEST_F(ColorschemeTest, BitThreeWithoutBitZeroDeclaresIterButDoesNotReadIt) {
  std::string text = SCHEME(8).text();
  EXPECT_NE(text.find("#define CHANNEL_ITERINT\n"), std::string::npos);
  EXPECT_EQ(text.find("#define CHANNEL_ITER\n"), std::string::npos);
  // The prelude declares the member under either define and reads the tile
  // under CHANNEL_ITER alone.
  EXPECT_NE(text.find("#if defined(CHANNEL_ITER) || defined(CHANNEL_ITERINT)\n  int iter;"), std::string::npos);
  EXPECT_NE(text.find("#ifdef CHANNEL_ITER\n      // The texel holds"), std::string::npos);
}

TEST_F(ColorschemeTest, ThePreludeDefinesThePublicNames) {
  const std::string t = template_custom;
  for (const char* name : {"#define NCOLOR 20", "#define NPARAM 10", "#define M_PI_H 3.1415926538",
                           "struct UniformsColor", "struct Params", "struct Uniforms", "uniform Params params;",
                           "uniform Uniforms uniforms;", "struct Data", "vec4 color(Data data);",
                           "vec3 pal(float iter, float brightness)", "uniform sampler2D tex_aux;",
                           "4294967296.0 * gl_Color.a * uniforms.globalcorrection",
                           "int(0.5 * texture2D(tex_iter, t).r * 2147483648.0)",
                           "if (uniforms.inverse) c.rgb = vec3(1.0) - c.rgb;"})
    EXPECT_NE(t.find(name), std::string::npos) << name;
  // The derivative reads the value's tiles, as the prelude has always done.
  EXPECT_NE(t.find("data.derivative = vec2(texture2D(tex_value_x, t).r, texture2D(tex_value_y, t).r);"),
            std::string::npos);
}

// ---------------------------------------------------------------- compilation

TEST_F(ColorschemeTest, CompilingHandsTheAssembledTextToGlAndMakesAHandle) {
  SCHEME s(145);
  JSTR* error = NULL;
  ASSERT_TRUE(compileColorscheme(NULL, s.cs, &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(fakegl::state.source, s.text());
  EXPECT_NE(s.cs->prog, 0u);
  ASSERT_NE(s.cs->cs, nullptr);
  EXPECT_EQ(s.cs->cs->shader, s.cs);
  EXPECT_EQ(s.cs->cs->channels, 145);
  EXPECT_EQ(s.cs->cs->count, 1);
}

TEST_F(ColorschemeTest, CompileFailureWithoutLog) {
  fakegl::state.compileok = false;
  SCHEME s(1);
  JSTR* error = NULL;
  EXPECT_FALSE(compileColorscheme(NULL, s.cs, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_STREQ(getjstr(error), "Shader compilation failed.");
  EXPECT_EQ(s.cs->prog, 0u);
  EXPECT_EQ(s.cs->cs, nullptr);
  releasejobject(error);
}

TEST_F(ColorschemeTest, CompileFailureWithLog) {
  fakegl::state.compileok = false;
  fakegl::state.log = "0:12(3): error: `x' undeclared\n";
  SCHEME s(1);
  JSTR* error = NULL;
  EXPECT_FALSE(compileColorscheme(NULL, s.cs, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_STREQ(getjstr(error), "Shader compilation failed: 0:12(3): error: `x' undeclared\n");
  releasejobject(error);
  // Without an error string the reason is dropped.
  EXPECT_FALSE(compileColorscheme(NULL, s.cs, NULL));
}

TEST_F(ColorschemeTest, LinkFailureDeletesTheProgram) {
  fakegl::state.linkok = false;
  SCHEME s(1);
  JSTR* error = NULL;
  EXPECT_FALSE(compileColorscheme(NULL, s.cs, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_STREQ(getjstr(error), "Shader linking failed.\n");
  EXPECT_EQ(fakegl::state.deletedprograms.size(), 1u);
  EXPECT_EQ(s.cs->prog, 0u);
  EXPECT_EQ(s.cs->cs, nullptr);
  releasejobject(error);
}

TEST_F(ColorschemeTest, RecompilingReplacesProgramAndHandle) {
  SCHEME s(1);
  ASSERT_TRUE(compileColorscheme(NULL, s.cs, NULL));
  COLORSCHEME* old = s.cs->cs;
  GLuint oldprog = s.cs->prog;
  attachcs(old);
  s.cs->channels = 256;
  ASSERT_TRUE(compileColorscheme(NULL, s.cs, NULL));
  EXPECT_NE(s.cs->cs, old);
  EXPECT_EQ(s.cs->cs->channels, 256);
  EXPECT_EQ(old->shader, nullptr);
  EXPECT_EQ(old->count, 1);
  ASSERT_EQ(fakegl::state.deletedprograms.size(), 1u);
  EXPECT_EQ(fakegl::state.deletedprograms[0], oldprog);
  detachcs(old);
}

TEST_F(ColorschemeTest, WithoutGlASchemeGetsAHandleButNoProgram) {
  setcolorschemegl(NULL);
  SCHEME s(17);
  EXPECT_TRUE(compileColorscheme(NULL, s.cs, NULL));
  EXPECT_EQ(s.cs->prog, 0u);
  ASSERT_NE(s.cs->cs, nullptr);
  EXPECT_EQ(s.cs->cs->channels, 17);
}

// ---------------------------------------------------------------- activation

bool fakereader(const char* url, unsigned char** pixels, int* w, int* h) {
  if (strcmp(url, "good.jpg")) return false;
  *pixels = static_cast<unsigned char*>(malloc(3 * 2 * 4));
  memset(*pixels, 7, 3 * 2 * 4);
  *w = 3;
  *h = 2;
  return true;
}

TEST_F(ColorschemeTest, TheAuxTextureLivesWhileTheSchemeIsActive) {
  SCHEME s(4103, 1);
  s.cs->auxfile = newjstr("good.jpg");
  activateColorscheme(s.cs, fakereader);
  EXPECT_EQ(s.cs->activecount, 1);
  EXPECT_NE(s.cs->auxtexture, 0u);
  EXPECT_EQ(s.cs->auxwidth, 3);
  EXPECT_EQ(s.cs->auxheight, 2);
  EXPECT_EQ(fakegl::state.teximagew, 3);
  EXPECT_EQ(fakegl::state.firstpixel[0], 7);
  GLuint tex = s.cs->auxtexture;
  fakegl::state.calls.clear();
  activateColorscheme(s.cs, fakereader);  // shared, not loaded again
  EXPECT_EQ(s.cs->activecount, 2);
  EXPECT_TRUE(fakegl::state.calls.empty());
  deactivateColorscheme(s.cs);
  EXPECT_EQ(s.cs->auxtexture, tex);
  EXPECT_TRUE(fakegl::state.deletedtextures.empty());
  deactivateColorscheme(s.cs);
  EXPECT_EQ(s.cs->activecount, 0);
  EXPECT_EQ(s.cs->auxtexture, 0u);
  ASSERT_EQ(fakegl::state.deletedtextures.size(), 1u);
  EXPECT_EQ(fakegl::state.deletedtextures[0], tex);
}

TEST_F(ColorschemeTest, AnUnreadableAuxImageLeavesTheSchemeWithoutTexture) {
  SCHEME s(4103, 1);
  s.cs->auxfile = newjstr("missing.jpg");
  activateColorscheme(s.cs, fakereader);
  EXPECT_EQ(s.cs->activecount, 1);
  EXPECT_EQ(s.cs->auxtexture, 0u);
  EXPECT_TRUE(fakegl::state.calls.empty());
  deactivateColorscheme(s.cs);
}

// ---------------------------------------------------------------- uniforms

TEST_F(ColorschemeTest, UniformsCarryTheViewAndTheInversionAsFloat) {
  SCHEME s(4096 | 1);
  Params params;
  initParams(&params);
  params.inverse = true;
  Uniforms u = {{1.5f, -2}, {0.25f, 0.5f}, {1e-3f, 2e-3f}, 3.0f, true, {10, 20}};
  loadParams(7, &u, &params, s.cs);
  EXPECT_EQ(fakegl::sent("uniforms.p"), (std::vector<float>{1.5f, -2}));
  EXPECT_EQ(fakegl::sent("uniforms.j"), (std::vector<float>{0.25f, 0.5f}));
  EXPECT_EQ(fakegl::sent("uniforms.d"), (std::vector<float>{1e-3f, 2e-3f}));
  EXPECT_EQ(fakegl::sent("uniforms.globalcorrection"), (std::vector<float>{3}));
  EXPECT_EQ(fakegl::sent("uniforms.julia"), (std::vector<float>{1}));
  EXPECT_EQ(fakegl::sent("uniforms.screencoordoffset"), (std::vector<float>{10, 20}));
  EXPECT_EQ(fakegl::sent("uniforms.inverse"), (std::vector<float>{1}));
}

TEST_F(ColorschemeTest, WavesGoUpWithTheGlobalFrequencyAndPhaseAdded) {
  SCHEME s(1);
  Params params;
  initParams(&params);
  params.frequency = 0.5f;
  params.initial = 0.25f;
  params.time = 12.5f;
  params.brightnessfinite = 0.75f;
  Uniforms u = {};
  loadParams(7, &u, &params, s.cs);
  EXPECT_EQ(fakegl::sent("params.ncolor"), (std::vector<float>{3}));
  EXPECT_EQ(fakegl::sent("params.color[1].c"), (std::vector<float>{0, 1, 0}));
  ASSERT_EQ(fakegl::sent("params.color[1].frequency").size(), 1u);
  EXPECT_FLOAT_EQ(fakegl::sent("params.color[1].frequency")[0], std::exp(-1.1363142f + 0.5f));
  EXPECT_EQ(fakegl::sent("params.color[2].initial"), (std::vector<float>{-0.5f + 0.25f}));
  EXPECT_EQ(fakegl::sent("params.brightnessfinite"), (std::vector<float>{0.75f}));
  EXPECT_EQ(fakegl::sent("params.brightnessinfinite"), (std::vector<float>{1}));
  EXPECT_EQ(fakegl::sent("params.time"), (std::vector<float>{12.5f}));
  EXPECT_EQ(fakegl::sent("params.brightnessfactor"), (std::vector<float>{1}));
  // nparam 0: the parameter array is not sent.
  EXPECT_TRUE(fakegl::sent("params.param").empty());
}

TEST_F(ColorschemeTest, BrightnessFactorIsTheLargestChannelSumOfTheWavesInUse) {
  SCHEME s(1);
  Params params;
  initParams(&params);
  params.ncolor = 5;
  params.color[3].c = {0.5f, 1, 0};
  params.color[4].c = {0.25f, 1, 0.5f};
  params.color[5].c = {9, 9, 9};  // beyond ncolor
  Uniforms u = {};
  loadParams(7, &u, &params, s.cs);
  EXPECT_EQ(fakegl::sent("params.brightnessfactor"), (std::vector<float>{3}));
  params.ncolor = 0;
  loadParams(7, &u, &params, s.cs);
  EXPECT_EQ(fakegl::sent("params.brightnessfactor"), (std::vector<float>{0}));
  params.ncolor = 1;
  params.color[0].c = {-1, -2, -3};
  loadParams(7, &u, &params, s.cs);
  EXPECT_EQ(fakegl::sent("params.brightnessfactor"), (std::vector<float>{0}));
}

TEST_F(ColorschemeTest, ParametersGoAsOneArrayOfNparamFloats) {
  SCHEME s(17);
  s.cs->nparam = 2;
  Params params;
  initParams(&params);
  params.param[0] = 0.5f;
  params.param[1] = -1;
  params.param[2] = 4;
  Uniforms u = {};
  loadParams(7, &u, &params, s.cs);
  EXPECT_EQ(fakegl::sent("params.param"), (std::vector<float>{0.5f, -1}));
}

TEST_F(ColorschemeTest, SamplerUnitsFollowTheChannelBitsAndBitThreeCounts) {
  SCHEME s(1 | 4 | 8 | 16 | 256);
  Params params;
  initParams(&params);
  Uniforms u = {};
  loadParams(7, &u, &params, s.cs);
  EXPECT_EQ(fakegl::sent("tex_iter"), (std::vector<float>{2}));
  EXPECT_EQ(fakegl::sent("tex_value_y"), (std::vector<float>{3}));
  EXPECT_EQ(fakegl::sent("tex_dist"), (std::vector<float>{5}));
  EXPECT_EQ(fakegl::sent("tex_smoothiter"), (std::vector<float>{6}));
  EXPECT_TRUE(fakegl::sent("tex_value_x").empty());
  EXPECT_TRUE(fakegl::sent("tex_aux").empty());
}

TEST_F(ColorschemeTest, UniformsTheCompilerDroppedAreSkipped) {
  SCHEME s(1);
  fakegl::state.dropped = {"params.time", "tex_iter"};
  Params params;
  initParams(&params);
  Uniforms u = {};
  loadParams(7, &u, &params, s.cs);
  EXPECT_TRUE(fakegl::sent("params.time").empty());
  EXPECT_TRUE(fakegl::sent("tex_iter").empty());
  EXPECT_FALSE(fakegl::sent("params.ncolor").empty());
}

TEST_F(ColorschemeTest, TheAuxImageIsBoundOnUnitOneRepeatedAndLinear) {
  SCHEME s(4103, 1);
  s.cs->auxfile = newjstr("good.jpg");
  activateColorscheme(s.cs, fakereader);
  fakegl::state.calls.clear();
  Params params;
  initParams(&params);
  Uniforms u = {};
  loadParams(7, &u, &params, s.cs);
  EXPECT_EQ(fakegl::sent("tex_aux"), (std::vector<float>{1}));
  EXPECT_EQ(fakegl::sent("params.auxwidth"), (std::vector<float>{3}));
  EXPECT_EQ(fakegl::sent("params.auxheight"), (std::vector<float>{2}));
  std::vector<std::string> expect = {
      "unit 1",
      "bind " + std::to_string(s.cs->auxtexture),
      "param " + std::to_string(CSGL_TEXTURE_WRAP_S) + " " + std::to_string(CSGL_REPEAT),
      "param " + std::to_string(CSGL_TEXTURE_WRAP_T) + " " + std::to_string(CSGL_REPEAT),
      "param " + std::to_string(CSGL_TEXTURE_MIN_FILTER) + " " + std::to_string(CSGL_LINEAR),
      "param " + std::to_string(CSGL_TEXTURE_MAG_FILTER) + " " + std::to_string(CSGL_LINEAR),
      "unit 0",
  };
  EXPECT_EQ(fakegl::state.calls, expect);
  deactivateColorscheme(s.cs);
}

TEST_F(ColorschemeTest, NoSchemeNoUpload) {
  Params params;
  initParams(&params);
  Uniforms u = {};
  loadParams(7, &u, &params, NULL);
  EXPECT_TRUE(fakegl::state.values.empty());
}

// ---------------------------------------------------------------- built-ins

TEST_F(ColorschemeTest, TheFiveBuiltinsInTheirOrder) {
  JDICT* d = builtincolorschemes(NULL, "/x/texturesgl.jpg");
  ASSERT_EQ(countjdict(d), NBUILTINCOLORSCHEME);
  struct {
    const char* name;
    int samples, nparam, channels;
    bool aux;
  } expect[] = {{"Iteration", 2, 0, 1, false},
                {"Smooth", 2, 0, 256, false},
                {"Distance", 2, 1, 17, false},
                {"Distance and iteration levels", 2, 2, 145, false},
                {"Texture", 1, 1, 4103, true}};
  for (int i = 0; i < NBUILTINCOLORSCHEME; i++) {
    char* key = NULL;
    Colorscheme* cs = static_cast<Colorscheme*>(getjdictenum(d, i, &key));
    EXPECT_STREQ(key, expect[i].name);
    EXPECT_STREQ(getjstr(cs->name), expect[i].name);
    EXPECT_TRUE(cs->builtin);
    EXPECT_EQ(cs->samples, expect[i].samples) << key;
    EXPECT_EQ(cs->nparam, expect[i].nparam) << key;
    EXPECT_EQ(cs->channels, expect[i].channels) << key;
    if (expect[i].aux)
      EXPECT_STREQ(getjstr(cs->auxfile), "/x/texturesgl.jpg");
    else
      EXPECT_EQ(cs->auxfile, nullptr);
    EXPECT_NE(std::string(getjstr(cs->code)).find("vec4 color(Data data)"), std::string::npos);
    ASSERT_NE(cs->cs, nullptr) << key;  // compiled
    EXPECT_EQ(cs->cs->channels, expect[i].channels);
  }
  releasejobject(d);
}

TEST_F(ColorschemeTest, BuiltinsAreKeptEvenWhenTheDriverRefusesThem) {
  fakegl::state.compileok = false;
  JDICT* d = builtincolorschemes(NULL, "t.jpg");
  EXPECT_EQ(countjdict(d), NBUILTINCOLORSCHEME);
  releasejobject(d);
}

TEST_F(ColorschemeTest, ChannelSamplerNames) {
  EXPECT_STREQ(channelsamplername(0), "tex_iter");
  EXPECT_EQ(channelsamplername(3), nullptr);
  EXPECT_STREQ(channelsamplername(8), "tex_smoothiter");
  EXPECT_EQ(channelsamplername(12), nullptr);
}

}  // namespace
