// A viewport's frame drawn off-screen from a draw list made by hand: where
// the rectangles land under the list's transform, the tiles each scheme
// sampler reads, the correction and the uniforms that reach the scheme, the
// rectangle of the framebuffer that is touched, and the frames with nothing
// to draw.
#include <gtest/gtest.h>

#include <glad/gl.h>
// after the loader
#include <array>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "displaygl.h"
#include "eglcontext.h"

namespace {

typedef std::complex<double> cd;
constexpr int W = 64, H = 64;

EGLOFFSCREEN* gl = nullptr;

class DrawViewport : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string error;
    gl = openoffscreen(W, H, &error);
    if (!gl) fprintf(stderr, "no off-screen GL: %s\n", error.c_str());
  }
  static void TearDownTestSuite() {
    closeoffscreen(gl);
    gl = nullptr;
  }
  void SetUp() override { ASSERT_NE(gl, nullptr); }
};

// An iteration count as the tiles store it: count / 2^30.
float itertexel(int n) { return static_cast<float>(std::ldexp(static_cast<double>(n), -30)); }

struct TILE {
  std::vector<float> texels = std::vector<float>(TEXTURESIZE * TEXTURESIZE);
  TEXTURE record{};
  GLuint name = 0;
};

struct SCHEME {
  Colorscheme* cs;
  SCHEME(int channels, const char* code) : cs(newColorscheme()) {
    cs->name = newjstr("test");
    cs->code = newjstr(code);
    cs->channels = channels;
    cs->samples = 1;
    JSTR* error = nullptr;
    EXPECT_TRUE(compileColorscheme(nullptr, cs, &error)) << (error ? getjstr(error) : "");
    if (error) releasejobject(error);
  }
  ~SCHEME() { releasejobject(cs); }
};

// A viewport with one list of rectangles, made by hand: no engine runs; the
// draw reads the list, the viewport's position and the navigator.
struct SCENE {
  std::unique_ptr<OVCONTEXT> context{new OVCONTEXT()};
  VIEWPORT* v;
  HPVALUE centre;
  std::vector<std::unique_ptr<TILE>> tiles;
  std::vector<GLuint> names;
  std::vector<DRAWRECT> rects;

  SCENE() {
    v = static_cast<VIEWPORT*>(calloc(1, sizeof(VIEWPORT)));
    __initviewport(context.get(), v);
    for (int k = 0; k < 2; k++) mpf_init2(centre.v[k], 128);
    mpf_set_d(centre.v[0], -0.75);
    mpf_set_d(centre.v[1], 0.125);
    v->delta = &centre;
    v->zoom = CONEH;
    v->drawactive = true;
  }
  ~SCENE() {
    for (auto& t : tiles) glDeleteTextures(1, &t->name);
    for (int k = 0; k < 2; k++) mpf_clear(centre.v[k]);
    for (int k = 0; k < NVIEWPORTMP; k++) mpf_clear(v->mp[k]);
    for (int k = 0; k < 2; k++) {
      mpf_clear(v->idle_c[k]);
      mpf_clear(v->idle_d[k]);
      mpf_clear(v->moveparam[k]);
      mpf_clear(v->dummy[k]);
    }
    free(v);
  }

  TEXTURE* tile(float (*f)(int x, int y)) {
    auto t = std::make_unique<TILE>();
    for (int y = 0; y < TEXTURESIZE; y++)
      for (int x = 0; x < TEXTURESIZE; x++) t->texels[y * TEXTURESIZE + x] = f(x, y);
    t->record.texture = static_cast<int>(tiles.size());
    t->record.pixels = t->texels.data();
    glGenTextures(1, &t->name);
    glBindTexture(GL_TEXTURE_2D, t->name);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_R32F, TEXTURESIZE, TEXTURESIZE, 0, GL_RED, GL_FLOAT,
                 t->texels.data());
    names.push_back(t->name);
    tiles.push_back(std::move(t));
    return &tiles.back()->record;
  }

  // A rectangle over the square from `lo` to `hi` in the list's screen
  // units, the whole of its tiles.
  void rect(cd lo, cd hi, std::vector<std::pair<int, TEXTURE*>> channels, float correction = 1) {
    DRAWRECT d{};
    d.correction = correction;
    float c[4][2] = {{float(lo.real()), float(lo.imag())},
                     {float(hi.real()), float(lo.imag())},
                     {float(hi.real()), float(hi.imag())},
                     {float(lo.real()), float(hi.imag())}};
    memcpy(d.c, c, sizeof c);
    d.x0 = d.y0 = 0;
    d.x1 = d.y1 = TEXTURESIZE;
    d.epsilon = 1.0f / TEXTURESIZE;
    for (auto& [channel, t] : channels) {
      d.channel[d.ichannels] = channel;
      d.texture[d.ichannels++] = t;
    }
    rects.push_back(d);
  }

  void publish(Colorscheme* scheme, int list = 0) {
    v->drawrect[list] = rects.data();
    v->idrawrect[list] = static_cast<unsigned int>(rects.size());
    v->schemes[list] = scheme ? scheme->cs : nullptr;
    v->cslist[list] = 0;
    v->toactivatelist = list;
  }

  bool draw(int x = 0, int y = 0, int w = W, int h = H) {
    Params params;
    initParams(&params);
    GLuint shader = 0;
    bool drawn = __drawviewport(context.get(), &shader, v, &params, 0, x, y, w, h, names.data(),
                                vec2{0, 0});
    glUseProgram(0);
    glFinish();
    return drawn;
  }
};

struct FRAME {
  std::vector<unsigned char> rgba;
  // (x, y) from the lower left, as GL counts.
  std::array<int, 4> at(int x, int y) const {
    const unsigned char* p = &rgba[(static_cast<size_t>(H - 1 - y) * W + x) * 4];
    return {p[0], p[1], p[2], p[3]};
  }
};

FRAME frame() { return FRAME{readoffscreen(gl)}; }

// Red is the iteration count of the texel, in 8-bit steps.
const char* const CODE_RED = "vec4 color(Data data) { return vec4(float(data.iter) / 255.0, 0.0, 0.0, 1.0); }\n";

float columncount(int x, int) { return itertexel(x); }

}  // namespace

// A rectangle over the whole screen at zoom 1: pixel x shows texel column
// 4x + 2 (64 pixels over 256 texels, sampled at pixel centres).
TEST_F(DrawViewport, TheListIsDrawnUnderItsTransform) {
  SCENE s;
  SCHEME scheme(1, CODE_RED);
  TEXTURE* t = s.tile(columncount);
  s.rect(cd(-1, -1), cd(1, 1), {{0, t}});
  s.publish(scheme.cs);
  ASSERT_TRUE(s.draw());
  FRAME f = frame();
  for (int x = 0; x < W; x += 7)
    for (int y = 0; y < H; y += 9) {
      EXPECT_NEAR(f.at(x, y)[0], 4 * x + 2, 1) << x << "," << y;
      EXPECT_EQ(f.at(x, y)[3], 255);
    }
  EXPECT_FALSE(s.v->listslocked);  // the frame has ended
}

// The navigator zooms in by 2 and turns a quarter: screen point s shows list
// point s / (2i), so the rectangle of side 1 fills the screen, turned.
TEST_F(DrawViewport, TheNavigatorsZoomAndTurnMoveThePicture) {
  SCENE s;
  SCHEME scheme(1, CODE_RED);
  TEXTURE* t = s.tile(columncount);
  s.rect(cd(-0.5, -0.5), cd(0.5, 0.5), {{0, t}});
  s.publish(scheme.cs);
  s.v->nav_zoom = cd(0, 2);
  ASSERT_TRUE(s.draw());
  FRAME f = frame();
  for (int x = 2; x < W; x += 6) {
    for (int y = 2; y < H; y += 6) {
      cd screen((x + 0.5) / 32 - 1, (y + 0.5) / 32 - 1);
      cd p = screen / cd(0, 2);
      int column = static_cast<int>((p.real() + 0.5) * TEXTURESIZE);
      EXPECT_NEAR(f.at(x, y)[0], column, 2) << x << "," << y;
    }
  }
  // The list's columns now run up the screen: red grows with y, not x.
  EXPECT_LT(f.at(32, 5)[0], f.at(32, 58)[0]);
  EXPECT_NEAR(f.at(5, 32)[0], f.at(58, 32)[0], 2);
}

TEST_F(DrawViewport, OutsideTheRectanglesTheFrameIsTransparentBlack) {
  SCENE s;
  SCHEME scheme(1, CODE_RED);
  TEXTURE* t = s.tile([](int, int) { return itertexel(200); });
  s.rect(cd(0, -1), cd(1, 1), {{0, t}});
  s.publish(scheme.cs);
  glClearColor(0.5f, 0.5f, 0.5f, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  ASSERT_TRUE(s.draw());
  FRAME f = frame();
  EXPECT_EQ(f.at(10, 30), (std::array<int, 4>{0, 0, 0, 0}));
  EXPECT_EQ(f.at(50, 30), (std::array<int, 4>{200, 0, 0, 255}));
}

// A list may carry a channel its scheme doesn't read (here 3, which the
// renderer asks for its own output): the scheme's samplers still find their
// own tiles, the smooth count on the unit after the count's.
TEST_F(DrawViewport, ExtraChannelsDoNotShiftTheSchemesSamplers) {
  SCENE s;
  SCHEME scheme(1 | 256, "vec4 color(Data data) { return vec4(float(data.iter) / 255.0, "
                         "data.smoothiter, 0.0, 1.0); }\n");
  TEXTURE* iter = s.tile([](int, int) { return itertexel(100); });
  TEXTURE* count = s.tile([](int, int) { return 0.9f; });
  TEXTURE* smooth = s.tile([](int, int) { return 0.25f; });
  s.rect(cd(-1, -1), cd(1, 1), {{0, iter}, {3, count}, {8, smooth}});
  s.publish(scheme.cs);
  ASSERT_TRUE(s.draw());
  FRAME f = frame();
  EXPECT_NEAR(f.at(20, 20)[0], 100, 1);
  EXPECT_NEAR(f.at(20, 20)[1], 64, 1);
}

// The rectangle's correction reaches the scheme through the colour's alpha,
// scaled by the present zoom: 2 texels a pixel, zoomed by 2, make 4.
TEST_F(DrawViewport, CorrectionAndGlobalCorrectionMakeThePixelSize) {
  SCENE s;
  SCHEME scheme(1, "vec4 color(Data data) { return vec4(data.pixelsize / 8.0, 0.0, 0.0, 1.0); }\n");
  TEXTURE* t = s.tile(columncount);
  s.rect(cd(-1, -1), cd(1, 1), {{0, t}}, 2.0f);
  s.publish(scheme.cs);
  s.v->nav_zoom = 2;
  ASSERT_TRUE(s.draw());
  EXPECT_NEAR(frame().at(32, 32)[0], 128, 1);
}

// The plane position of the lower left pixel and the step per pixel: a view
// at zoom 1/2 on a 64-pixel square spans 4, so d = 1/16 and the corner is
// the centre less 2 on both axes.
TEST_F(DrawViewport, UniformsCarryTheAbsolutePositionAndStep) {
  SCENE s;
  SCHEME scheme(1, "vec4 color(Data data) { return vec4(-uniforms.p.x / 4.0, -uniforms.p.y / 4.0, "
                   "uniforms.d.x * 8.0, uniforms.julia ? 0.5 : 1.0); }\n");
  TEXTURE* t = s.tile(columncount);
  s.rect(cd(-1, -1), cd(1, 1), {{0, t}});
  s.publish(scheme.cs);
  s.v->zoom = cHFd(cd(0.5, 0));
  ASSERT_TRUE(s.draw());
  std::array<int, 4> px = frame().at(32, 32);
  EXPECT_NEAR(px[0], 2.75 / 4 * 255, 1);
  EXPECT_NEAR(px[1], 1.875 / 4 * 255, 1);
  EXPECT_NEAR(px[2], 0.5 * 255, 1);
  EXPECT_EQ(px[3], 255);
}

TEST_F(DrawViewport, AJuliaRealmSendsItsConstant) {
  SCENE s;
  SCHEME scheme(1, "vec4 color(Data data) { return vec4(uniforms.julia ? 1.0 : 0.0, "
                   "uniforms.j.x + 0.5, uniforms.j.y + 0.5, 1.0); }\n");
  TEXTURE* t = s.tile(columncount);
  s.rect(cd(-1, -1), cd(1, 1), {{0, t}});
  s.publish(scheme.cs);
  REALM realm{};
  realm.type = JULIA;
  HPVALUE c;
  for (int k = 0; k < 2; k++) mpf_init2(c.v[k], 64);
  mpf_set_d(c.v[0], -0.25);
  mpf_set_d(c.v[1], 0.25);
  realm.info.c = &c;
  s.v->realm = &realm;
  ASSERT_TRUE(s.draw());
  std::array<int, 4> px = frame().at(32, 32);
  EXPECT_EQ(px[0], 255);
  EXPECT_NEAR(px[1], 0.25 * 255, 1);
  EXPECT_NEAR(px[2], 0.75 * 255, 1);
  realm.type = GENERAL;
  ASSERT_TRUE(s.draw());
  px = frame().at(32, 32);
  EXPECT_EQ(px[0], 0);
  EXPECT_NEAR(px[1], 0.5 * 255, 1);
  for (int k = 0; k < 2; k++) mpf_clear(c.v[k]);
  s.v->realm = nullptr;
}

// A zoom of 0 makes the step per pixel infinite; the list's own transform
// doesn't depend on it, so the picture stays where it was.
TEST_F(DrawViewport, AZeroZoomStillDrawsThePictureInPlace) {
  SCENE s;
  SCHEME scheme(1, CODE_RED);
  TEXTURE* t = s.tile(columncount);
  s.rect(cd(-1, -1), cd(0.5, 1), {{0, t}});
  s.publish(scheme.cs);
  ASSERT_TRUE(s.draw());
  FRAME normal = frame();
  s.v->zoom = CZEROH;
  s.v->toactivatelist = 0;
  ASSERT_TRUE(s.draw());
  FRAME zero = frame();
  EXPECT_EQ(normal.rgba, zero.rgba);
  EXPECT_NE(zero.at(10, 10)[3], 0);
}

// Only the given rectangle of the framebuffer is touched, and the caller's
// viewport and scissor come back.
TEST_F(DrawViewport, DrawsIntoItsRectangleAlone) {
  SCENE s;
  SCHEME scheme(1, CODE_RED);
  TEXTURE* t = s.tile([](int, int) { return itertexel(77); });
  s.rect(cd(-1, -1), cd(1, 1), {{0, t}});
  s.publish(scheme.cs);
  glViewport(0, 0, W, H);
  glScissor(0, 0, W, H);
  glClearColor(0, 0, 1, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  ASSERT_TRUE(s.draw(16, 8, 32, 24));
  FRAME f = frame();
  // The shorter side spans -1 to 1: the list's square covers the middle 24
  // columns of the 32; the rest of the rectangle is cleared.
  EXPECT_EQ(f.at(21, 9), (std::array<int, 4>{77, 0, 0, 255}));
  EXPECT_EQ(f.at(42, 31), (std::array<int, 4>{77, 0, 0, 255}));
  EXPECT_EQ(f.at(17, 20), (std::array<int, 4>{0, 0, 0, 0}));
  EXPECT_EQ(f.at(46, 20), (std::array<int, 4>{0, 0, 0, 0}));
  EXPECT_EQ(f.at(15, 10), (std::array<int, 4>{0, 0, 255, 255}));
  EXPECT_EQ(f.at(20, 32), (std::array<int, 4>{0, 0, 255, 255}));
  EXPECT_EQ(f.at(48, 10), (std::array<int, 4>{0, 0, 255, 255}));
  GLint box[4], port[4];
  glGetIntegerv(GL_SCISSOR_BOX, box);
  glGetIntegerv(GL_VIEWPORT, port);
  EXPECT_EQ(box[2], W);
  EXPECT_EQ(port[3], H);
}

// Without a list, or with a list without scheme, nothing is drawn, the
// rectangle is cleared and no list stays locked.
TEST_F(DrawViewport, NoListOrNoSchemeDrawsNothing) {
  SCENE s;
  SCHEME scheme(1, CODE_RED);
  TEXTURE* t = s.tile([](int, int) { return itertexel(77); });
  s.rect(cd(-1, -1), cd(1, 1), {{0, t}});
  glClearColor(0, 1, 0, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  EXPECT_FALSE(s.draw());  // nothing published yet
  EXPECT_EQ(frame().at(30, 30), (std::array<int, 4>{0, 0, 0, 0}));
  EXPECT_FALSE(s.v->listslocked);
  s.publish(nullptr);
  EXPECT_FALSE(s.draw());
  EXPECT_FALSE(s.v->listslocked);
  s.v->schemes[0] = scheme.cs->cs;
  s.v->drawactive = false;
  EXPECT_FALSE(s.draw());
  s.v->drawactive = true;
  EXPECT_TRUE(s.draw());
}

// Two views whose lists have the same number draw each their own.
TEST_F(DrawViewport, TwoViewsWithTheSameListNumberShareNothing) {
  SCENE a, b;
  SCHEME scheme(1, CODE_RED);
  TEXTURE* ta = a.tile([](int, int) { return itertexel(40); });
  TEXTURE* tb = b.tile([](int, int) { return itertexel(160); });
  a.rect(cd(-1, -1), cd(1, 1), {{0, ta}});
  b.rect(cd(-1, -1), cd(1, 1), {{0, tb}});
  a.publish(scheme.cs, 1);
  b.publish(scheme.cs, 1);
  ASSERT_TRUE(a.draw());
  EXPECT_EQ(frame().at(30, 30)[0], 40);
  ASSERT_TRUE(b.draw());
  EXPECT_EQ(frame().at(30, 30)[0], 160);
  a.v->toactivatelist = 1;
  ASSERT_TRUE(a.draw());
  EXPECT_EQ(frame().at(30, 30)[0], 40);
}
