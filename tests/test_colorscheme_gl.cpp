// Colour schemes on a real GL: every built-in program and every channel
// define compiles and links as GLSL 1.10, and drawn into a framebuffer from
// tiles of known values the schemes give the colours their code defines.
#include <gtest/gtest.h>

#include "glcontext.h"
// after the loader
#include "schemedraw.h"
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <array>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

namespace {

using schemedraw::brightnessfactor;
using schemedraw::filled;
using schemedraw::itertexel;
using schemedraw::PIXELS;
using schemedraw::SIZE;
using schemedraw::TILE;

class ColorschemeGlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ready = gltest::open(); }
  static void TearDownTestSuite() { gltest::close(); }
  void SetUp() override { ASSERT_TRUE(ready) << "no GL context (run under xvfb-run)"; }
  static inline bool ready = false;
};

struct SCHEME {
  Colorscheme* cs;
  SCHEME(int channels, int samples, const char* code) : cs(newColorscheme()) {
    cs->name = newjstr("test");
    cs->code = newjstr(code);
    cs->channels = channels;
    cs->samples = samples;
  }
  ~SCHEME() { releasejobject(cs); }
};

// Compiles, and on failure gives the driver's reason.
std::string compile(Colorscheme* cs) {
  JSTR* error = NULL;
  if (compileColorscheme(NULL, cs, &error)) return "";
  std::string text = error ? getjstr(error) : "(no error text)";
  if (error) releasejobject(error);
  return text;
}

// ---------------------------------------------------------------- drawing

// One tile rectangle drawn as the display draws it, with no GL error.
PIXELS draw(Colorscheme* cs, const std::vector<TILE>& tiles, const Params& params, const Uniforms& uniforms,
            double correction = 1.0) {
  PIXELS out = schemedraw::draw(cs, tiles, params, uniforms, correction);
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  return out;
}

// The palette as the prelude's `pal` computes it, in 8-bit steps.
std::array<int, 3> cpupal(const Params& p, float iter, float brightness) {
  return schemedraw::bytes(schemedraw::pal(p, iter, brightness));
}

void expectnear(std::array<int, 3> got, std::array<int, 3> want, int tolerance, const char* what) {
  for (int k = 0; k < 3; k++)
    EXPECT_NEAR(got[k], want[k], tolerance) << what << " component " << k;
}

Colorscheme* builtin(JDICT* d, const char* name) { return static_cast<Colorscheme*>(getjdict(d, name)); }

// ---------------------------------------------------------------- compilation

TEST_F(ColorschemeGlTest, EveryBuiltinCompilesAndLinks) {
  JDICT* d = builtincolorschemes(NULL, "/nonexistent/texturesgl.jpg");
  ASSERT_EQ(countjdict(d), NBUILTINCOLORSCHEME);
  for (int i = 0; i < NBUILTINCOLORSCHEME; i++) {
    char* name = NULL;
    Colorscheme* cs = static_cast<Colorscheme*>(getjdictenum(d, i, &name));
    EXPECT_NE(cs->prog, 0u) << name;
    EXPECT_EQ(compile(cs), "") << name;
    GLint linked = 0;
    glGetProgramiv(cs->prog, GL_LINK_STATUS, &linked);
    EXPECT_TRUE(linked) << name;
  }
  releasejobject(d);
}

TEST_F(ColorschemeGlTest, EveryChannelDefineCompilesAlone) {
  const char* code = "vec4 color(Data data) { return vec4(data.pixelsize); }\n";
  for (int channels : {1, 2, 4, 8, 16, 32, 64, 128, 256, 4096, 0x11ff, 0}) {
    SCHEME s(channels, 2, code);
    EXPECT_EQ(compile(s.cs), "") << "channels " << channels;
  }
  SCHEME aux(1, 1, "vec4 color(Data data) { return texture2D(tex_aux, vec2(0.5)); }\n");
  aux.cs->auxfile = newjstr("x.jpg");
  EXPECT_EQ(compile(aux.cs), "");
}

TEST_F(ColorschemeGlTest, DerivativeAloneReadsTheValueTiles) {
  SCHEME s(32 | 64, 1, "vec4 color(Data data) { return vec4(data.derivative, 0.0, 1.0); }\n");
  EXPECT_EQ(compile(s.cs), "");
}

TEST_F(ColorschemeGlTest, BitThreeAloneDeclaresIter) {
  SCHEME s(8, 1, "vec4 color(Data data) { data.iter = 3; return vec4(float(data.iter)); }\n");
  EXPECT_EQ(compile(s.cs), "");
  // Without either define the member does not exist.
  SCHEME none(16, 1, "vec4 color(Data data) { return vec4(float(data.iter)); }\n");
  std::string error = compile(none.cs);
  EXPECT_EQ(error.rfind("Shader compilation failed: ", 0), 0u) << error;
  EXPECT_GT(error.size(), strlen("Shader compilation failed: "));
}

TEST_F(ColorschemeGlTest, BrokenCodeReportsTheDriversLog) {
  SCHEME s(1, 1, "vec4 color(Data data) { return undefinedthing; }\n");
  std::string error = compile(s.cs);
  EXPECT_EQ(error.rfind("Shader compilation failed: ", 0), 0u) << error;
  EXPECT_NE(error.find("undefinedthing"), std::string::npos) << error;
  EXPECT_EQ(s.cs->prog, 0u);
  EXPECT_EQ(s.cs->cs, nullptr);
}

TEST_F(ColorschemeGlTest, AMissingColorFunctionFailsToLink) {
  SCHEME s(1, 1, "vec4 notcolor(Data data) { return vec4(1.0); }\n");
  EXPECT_EQ(compile(s.cs), "Shader linking failed.\n");
  EXPECT_EQ(s.cs->prog, 0u);
}

// ---------------------------------------------------------------- drawing

TEST_F(ColorschemeGlTest, IterationGivesThePaletteOfTheCountInsideAndOutside) {
  JDICT* d = builtincolorschemes(NULL, NULL);
  Colorscheme* cs = builtin(d, "Iteration");
  // Bounded (negative counts) on the left, escaped at 5 on the right.
  TILE iter = filled([](int x, int) { return itertexel(x < SIZE / 2 ? -37 : 5); });
  Params p;
  initParams(&p);
  p.brightnessinfinite = 0.5f;
  Uniforms u = {};
  PIXELS px = draw(cs, {iter}, p, u);
  float bf = brightnessfactor(p);
  expectnear(px.at(40, 100), cpupal(p, 37.5f, p.brightnessinfinite / bf), 2, "interior");
  expectnear(px.at(200, 30), cpupal(p, 5.5f, p.brightnessfinite / bf), 2, "exterior");
  // Inversion comes last, on the average of the samples.
  p.inverse = true;
  PIXELS inv = draw(cs, {iter}, p, u);
  for (int k = 0; k < 3; k++) {
    EXPECT_NEAR(inv.at(40, 100)[k], 255 - px.at(40, 100)[k], 1);
    EXPECT_NEAR(inv.at(200, 30)[k], 255 - px.at(200, 30)[k], 1);
  }
  releasejobject(d);
}

TEST_F(ColorschemeGlTest, IterationFollowsThePaletteAlongTheCounts) {
  JDICT* d = builtincolorschemes(NULL, NULL);
  Colorscheme* cs = builtin(d, "Iteration");
  // Blocks of 16 texels per count, so the two-by-two samples of a block's
  // inner pixels all read the same count.
  TILE iter = filled([](int x, int) { return itertexel(x / 16); });
  Params p;
  initParams(&p);
  p.frequency = 0.7f;  // waves fast enough to differ from block to block
  Uniforms u = {};
  PIXELS px = draw(cs, {iter}, p, u);
  for (int k = 0; k < SIZE / 16; k++)
    expectnear(px.at(16 * k + 8, 128), cpupal(p, k + 0.5f, 1 / brightnessfactor(p)), 2, "block");
  releasejobject(d);
}

TEST_F(ColorschemeGlTest, NoWavesGiveBlack) {
  JDICT* d = builtincolorschemes(NULL, NULL);
  Colorscheme* cs = builtin(d, "Iteration");
  TILE iter = filled([](int x, int) { return itertexel(x - 128); });
  Params p;
  initParams(&p);
  p.ncolor = 0;
  Uniforms u = {};
  PIXELS px = draw(cs, {iter}, p, u);
  expectnear(px.at(10, 10), {0, 0, 0}, 0, "interior");
  expectnear(px.at(200, 10), {0, 0, 0}, 0, "exterior");
  releasejobject(d);
}

TEST_F(ColorschemeGlTest, DistanceDrawsAWhiteOutlineThatFadesWithPixelDistance) {
  JDICT* d = builtincolorschemes(NULL, NULL);
  Colorscheme* cs = builtin(d, "Distance");
  // All escaped; the distance, in units of the area, grows along x. With a
  // correction of 256 a texel of 1/256 is one pixel.
  TILE iter = filled([](int, int) { return itertexel(3); });
  TILE dist = filled([](int x, int) { return (x / 32) * 0.25f / 256; });
  Params p;
  initParams(&p);
  p.brightnessfinite = 1;
  Uniforms u = {};
  u.globalcorrection = 1;
  PIXELS px = draw(cs, {iter, dist}, p, u, 256);
  // rr = dist in pixels (param 0 is 0): white at 1 - rr, black where rr is
  // 0 (no distance) or at least 1.
  for (int block = 0; block < 8; block++) {
    float rr = block * 0.25f;
    int level = (rr < 1 && rr != 0) ? static_cast<int>(std::lround(255 * (1 - rr))) : 0;
    expectnear(px.at(32 * block + 16, 64), {level, level, level}, 2, "outline");
  }
  releasejobject(d);
}

// The atlas of the "Texture" scheme: 4 x 4 cells of 16 pixels, each of one
// colour that names its column and row (rows counted from the top).
std::array<int, 3> cellcolor(int column, int row) { return {40 + 60 * column, 40 + 60 * row, 128}; }

std::string writeatlas() {
  const int w = 64;
  std::vector<unsigned char> rgb(w * w * 3);
  for (int y = 0; y < w; y++)
    for (int x = 0; x < w; x++) {
      std::array<int, 3> c = cellcolor(x / 16, y / 16);
      for (int k = 0; k < 3; k++) rgb[(y * w + x) * 3 + k] = static_cast<unsigned char>(c[k]);
    }
  tjhandle tj = tjInitCompress();
  unsigned char* jpeg = NULL;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(tj, rgb.data(), w, 0, w, TJPF_RGB, &jpeg, &size, TJSAMP_444, 100, 0), 0);
  tjDestroy(tj);
  std::string path = "/tmp/orvanta-atlas-" + std::to_string(getpid()) + ".jpg";
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<char*>(jpeg), size);
  tjFree(jpeg);
  return path;
}

TEST_F(ColorschemeGlTest, TextureTakesTheAtlasCellOfTheFinalCount) {
  std::string atlas = writeatlas();
  JDICT* d = builtincolorschemes(NULL, atlas.c_str());
  Colorscheme* cs = builtin(d, "Texture");
  activateColorscheme(cs, readimagefct);
  ASSERT_NE(cs->auxtexture, 0u);
  EXPECT_EQ(cs->auxwidth, 64);
  // z already beyond the limit (param 0 is 0: limit e^1.65), so the shader
  // does not iterate: |z|^2 = limit e^(pi/6) and arg z = pi/12 put the
  // sample in the middle of a cell. Count b in the b-th block of 16 texels,
  // inside on the last rows.
  const double limit = std::exp(1.65), r = std::sqrt(limit * std::exp(M_PI / 6));
  const float zx = static_cast<float>(r * std::cos(M_PI / 12)), zy = static_cast<float>(r * std::sin(M_PI / 12));
  TILE iter = filled([](int x, int y) { return itertexel(y < 240 ? x / 16 : -9); });
  TILE valuex(SIZE * SIZE, zx), valuey(SIZE * SIZE, zy);
  Params p;
  initParams(&p);
  Uniforms u = {};
  PIXELS px = draw(cs, {iter, valuex, valuey}, p, u);
  for (int b = 0; b < 16; b++) {
    int fi = b % 15;
    // Column fi mod 4; texture rows run from the image's top, and the cell
    // row is 3 - fi/4 of them.
    expectnear(px.at(16 * b + 8, 100), cellcolor(fi % 4, 3 - fi / 4), 6, ("block " + std::to_string(b)).c_str());
  }
  expectnear(px.at(100, 250), cpupal(p, 9.5f, 1 / brightnessfactor(p)), 2, "interior");
  deactivateColorscheme(cs);
  EXPECT_EQ(cs->auxtexture, 0u);
  releasejobject(d);
  unlink(atlas.c_str());
}

TEST_F(ColorschemeGlTest, OneSampleReadsEachTexelExactly) {
  SCHEME s(1, 1, "vec4 color(Data data) { return vec4(float(data.iter) / 255.0, 0.0, 0.0, 1.0); }\n");
  ASSERT_EQ(compile(s.cs), "");
  TILE iter = filled([](int x, int) { return itertexel(x); });
  Params p;
  initParams(&p);
  Uniforms u = {};
  PIXELS px = draw(s.cs, {iter}, p, u);
  for (int x = 0; x < SIZE; x++) ASSERT_EQ(px.at(x, 77)[0], x) << "column " << x;
}

TEST_F(ColorschemeGlTest, CoordinatesArePlanePositionsOfThePixels) {
  SCHEME s(4096, 1, "vec4 color(Data data) { return vec4(data.coord, 0.0, 1.0); }\n");
  ASSERT_EQ(compile(s.cs), "");
  Params p;
  initParams(&p);
  Uniforms u = {};
  u.p = {0.1f, 0.2f};
  u.d = {1.0f / 512, 0};  // half a unit across the framebuffer
  PIXELS px = draw(s.cs, {}, p, u);
  for (int x : {0, 100, 255})
    for (int y : {0, 60, 255}) {
      std::array<int, 3> want = {static_cast<int>(std::lround(255 * (0.1 + (x + 0.5) / 512))),
                                 static_cast<int>(std::lround(255 * (0.2 + (y + 0.5) / 512))), 0};
      expectnear(px.at(x, y), want, 1, "coord");
    }
  // A quarter turn of the step: d = i/512 maps (x, y) to (-y, x)/512.
  u.p = {0.9f, 0.1f};
  u.d = {0, 1.0f / 512};
  px = draw(s.cs, {}, p, u);
  expectnear(px.at(200, 40), {static_cast<int>(std::lround(255 * (0.9 - 40.5 / 512))),
                              static_cast<int>(std::lround(255 * (0.1 + 200.5 / 512))), 0},
             1, "rotated");
  // A Julia set's coordinate is its constant.
  u.julia = true;
  u.j = {0.25f, 0.75f};
  px = draw(s.cs, {}, p, u);
  expectnear(px.at(10, 200), {64, 191, 0}, 1, "julia");
}

}  // namespace
