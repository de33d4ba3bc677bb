// The explorer's drawing on Mesa's software renderer: the view arithmetic,
// the fixed programs and their failures, the round trace points, and the
// display lists of the views: compiled once per list, shown from the next
// frame, kept per view.
#include "glcontext.h"
// The GL context's header first: glad refuses to follow another GL header.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "app.h"
#include "viewtransform.h"

namespace {

constexpr int SIZE = 64;

class Draw : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_TRUE(gltest::open()); }
  static void TearDownTestSuite() { gltest::close(); }
  void SetUp() override {
    int w = 0, h = 0;
    glfwGetFramebufferSize(gltest::window, &w, &h);
    ASSERT_GE(w, SIZE);
    ASSERT_GE(h, SIZE);
    setfixedglstate();
    glViewport(0, 0, SIZE, SIZE);
    glScissor(0, 0, SIZE, SIZE);
    glMatrixMode(GL_PROJECTION);
    glLoadIdentity();
    glMatrixMode(GL_MODELVIEW);
    glLoadIdentity();
  }
};

void clear() {
  glClearColor(0, 0, 0, 0);
  glClear(GL_COLOR_BUFFER_BIT);
}

// Red, green, blue of one pixel of the back buffer.
std::vector<int> pixel(int x, int y) {
  unsigned char rgba[4];
  glReadBuffer(GL_BACK);
  glReadPixels(x, y, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, rgba);
  return {rgba[0], rgba[1], rgba[2]};
}

// What standard error receives during `fn`.
template <typename F>
std::string stderrof(F fn) {
  fflush(stderr);
  FILE* tmp = tmpfile();
  int saved = dup(2);
  dup2(fileno(tmp), 2);
  fn();
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  rewind(tmp);
  std::string s;
  char buf[512];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, tmp)) > 0) s.append(buf, n);
  fclose(tmp);
  return s;
}

}  // namespace

// ---------------------------------------------------------------- view arithmetic

TEST(ViewTransform, TheLongerSideRunsFromMinusOneToOne) {
  std::complex<float> d;
  ORTHO wide = aspectbox(640, 480, std::complex<double>(0, 2), &d);
  EXPECT_DOUBLE_EQ(wide.left, -640.0 / 480);
  EXPECT_DOUBLE_EQ(wide.right, 640.0 / 480);
  EXPECT_DOUBLE_EQ(wide.bottom, -1);
  EXPECT_DOUBLE_EQ(wide.top, 1);
  EXPECT_FLOAT_EQ(d.real(), 0);
  EXPECT_FLOAT_EQ(d.imag(), static_cast<float>(2.0 * 2 / 480));
  ORTHO tall = aspectbox(300, 600, std::complex<double>(1, 0), &d);
  EXPECT_DOUBLE_EQ(tall.left, -1);
  EXPECT_DOUBLE_EQ(tall.right, 1);
  EXPECT_DOUBLE_EQ(tall.bottom, -2);
  EXPECT_DOUBLE_EQ(tall.top, 2);
  EXPECT_FLOAT_EQ(d.real(), static_cast<float>(2.0 / 300));
}

TEST(ViewTransform, AZeroZoomReachesOnlyThePixelStep) {
  std::complex<double> iz = 1.0 / std::complex<double>(0, 0);
  std::complex<float> d;
  ORTHO box = aspectbox(640, 480, iz, &d);
  EXPECT_TRUE(std::isfinite(box.left) && std::isfinite(box.right) && std::isfinite(box.bottom) &&
              std::isfinite(box.top));
  EXPECT_FALSE(std::isfinite(d.real()) && std::isfinite(d.imag()));
}

TEST(ViewTransform, TheMatrixShowsPAtZoomTimesPMinusDelta) {
  std::complex<double> zoom(0.3, -1.7), delta(-0.75, 0.125);
  double m[16];
  viewmatrix(zoom, delta, m);
  for (std::complex<double> p : {std::complex<double>(0, 0), std::complex<double>(1, 2),
                                 std::complex<double>(-0.75, 0.125)}) {
    double x = m[0] * p.real() + m[4] * p.imag() + m[12];
    double y = m[1] * p.real() + m[5] * p.imag() + m[13];
    std::complex<double> want = zoom * (p - delta);
    EXPECT_NEAR(x, want.real(), 1e-12);
    EXPECT_NEAR(y, want.imag(), 1e-12);
  }
}

TEST(ViewTransform, TheLowerLeftPixel) {
  // Unrotated: half the screen left and down from the centre.
  std::complex<double> p = lowerleft({0.5, -0.25}, 4, 2, {0.5f, 0.0f});
  EXPECT_DOUBLE_EQ(p.real(), 0.5 - 1.0);
  EXPECT_DOUBLE_EQ(p.imag(), -0.25 - 0.5);
  // A quarter turn: the screen's lower left is the plane's lower right.
  p = lowerleft({0, 0}, 2, 2, {0.0f, 1.0f});
  EXPECT_DOUBLE_EQ(p.real(), 1);
  EXPECT_DOUBLE_EQ(p.imag(), -1);
}

// ---------------------------------------------------------------- programs

TEST_F(Draw, TheFixedProgramsBuild) {
  std::string err = stderrof([] { setupfixedprograms(); });
  EXPECT_EQ(err, "");
  EXPECT_NE(progtex, 0u);
  EXPECT_NE(progcolor, 0u);
  EXPECT_NE(progpointsmooth, 0u);
}

TEST_F(Draw, AShaderThatDoesNotCompileGivesZeroAndTheLog) {
  GLuint p = 1;
  std::string err = stderrof([&] { p = setup_shader("#version 110\nvoid main() { gl_FragColor = nonsense; }\n"); });
  EXPECT_EQ(p, 0u);
  EXPECT_EQ(err.rfind("shader compilation failed", 0), 0u) << err;
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST_F(Draw, AShaderThatDoesNotLinkGivesZeroAndTheLog) {
  GLuint p = 1;
  // Compiles, but calls a function nobody defines.
  std::string err = stderrof([&] {
    p = setup_shader("#version 110\nvec4 elsewhere();\nvoid main() { gl_FragColor = elsewhere(); }\n");
  });
  EXPECT_EQ(p, 0u);
  EXPECT_EQ(err.rfind("shader linking failed", 0), 0u) << err;
}

TEST_F(Draw, PlainFillIsTheColour) {
  setupfixedprograms();
  clear();
  glUseProgram(progcolor);
  glColor4f(0.0f, 1.0f, 0.0f, 1.0f);
  glRectf(-1, -1, 1, 1);
  glUseProgram(0);
  EXPECT_EQ(pixel(SIZE / 2, SIZE / 2), (std::vector<int>{0, 255, 0}));
}

TEST_F(Draw, TracePointsAreRoundAndAPlainPointIsSquare) {
  setupfixedprograms();
  for (bool round : {true, false}) {
    clear();
    glUseProgram(progpointsmooth);
    glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    glPointSize(31);
    beginpoints();
    glBegin(GL_POINTS);
    glColor4f(round ? 1.0f : 0.0f, 1.0f, 1.0f, 1.0f);
    glVertex2f(0, 0);
    glEnd();
    endpoints();
    glUseProgram(0);
    EXPECT_EQ(pixel(SIZE / 2, SIZE / 2), (std::vector<int>{255, 255, 255}));
    // Near a corner of the 31-pixel square: outside the circle.
    std::vector<int> corner = pixel(SIZE / 2 - 14, SIZE / 2 - 14);
    if (round)
      EXPECT_EQ(corner, (std::vector<int>{0, 0, 0}));
    else
      EXPECT_EQ(corner, (std::vector<int>{255, 255, 255}));
    // Well outside the point nothing is drawn.
    EXPECT_EQ(pixel(2, 2), (std::vector<int>{0, 0, 0}));
  }
  glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE, GL_ZERO);
}

// ---------------------------------------------------------------- display lists

namespace {

// A program that shows the tile on unit 2 as red and the rectangle's
// correction (carried in the colour's alpha) as green, in hundredths.
GLuint probeprogram() {
  GLuint p = setup_shader(R"GLSL(#version 110
uniform sampler2D t;
void main() {
  gl_FragColor = vec4(texture2D(t, gl_TexCoord[0].xy).r, gl_Color.a * 4294967296.0 / 100.0, 0.0, 1.0);
}
)GLSL");
  glUseProgram(p);
  glUniform1i(glGetUniformLocation(p, "t"), 2);
  return p;
}

// One tile: 0.25 on its left half, 0.75 on its right half.
GLuint halftile() {
  std::vector<float> texels(TEXTURESIZE * TEXTURESIZE);
  for (int y = 0; y < TEXTURESIZE; y++)
    for (int x = 0; x < TEXTURESIZE; x++) texels[y * TEXTURESIZE + x] = x < TEXTURESIZE / 2 ? 0.25f : 0.75f;
  GLuint name = 0;
  glGenTextures(1, &name);
  glBindTexture(GL_TEXTURE_2D, name);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_R32F, TEXTURESIZE, TEXTURESIZE, 0, GL_RED, GL_FLOAT, texels.data());
  return name;
}

// The whole screen (-1..1) as one rectangle of the tile's sub-square from
// texel column x0 to x1.
DRAWRECT screenrect(TEXTURE* t, int x0, int x1, float correction) {
  DRAWRECT r{};
  r.correction = correction;
  const float c[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
  for (int k = 0; k < 4; k++) {
    r.c[k][0] = c[k][0];
    r.c[k][1] = c[k][1];
  }
  r.x0 = x0;
  r.x1 = x1;
  r.y0 = 0;
  r.y1 = TEXTURESIZE;
  r.epsilon = 1.0f / TEXTURESIZE;
  r.ichannels = 1;
  r.texture[0] = t;
  r.channel[0] = 0;
  return r;
}

struct VIEWS {
  VIEWPORT* v[2];
  DRAWRECT rect[2][NDISPLAYLISTS];
  TEXTURE tile{};
  GLuint names[2] = {0, 0};
  VIEWS() {
    names[0] = halftile();
    tile.texture = 0;
    for (int i = 0; i < 2; i++) {
      v[i] = static_cast<VIEWPORT*>(calloc(1, sizeof(VIEWPORT)));
      v[i]->nav_viewportid = i;
      for (int l = 0; l < NDISPLAYLISTS; l++) {
        // List 1 shows the whole tile, the others its right half only.
        rect[i][l] = l == 1 ? screenrect(&tile, 0, TEXTURESIZE, 50) : screenrect(&tile, TEXTURESIZE / 2, TEXTURESIZE, 25);
        v[i]->drawrect[l] = &rect[i][l];
        v[i]->idrawrect[l] = 1;
      }
    }
    displaylist[0] = glGenLists(1);
    displaylist[1] = glGenLists(1);
    oldlist[0] = oldlist[1] = -1;
  }
  ~VIEWS() {
    glDeleteLists(displaylist[0], 1);
    glDeleteLists(displaylist[1], 1);
    glDeleteTextures(1, names);
    free(v[0]);
    free(v[1]);
  }
  void frame(int view, int list) {
    clear();
    renderdisplaylist(nullptr, v[view], list, names);
  }
};

}  // namespace

TEST_F(Draw, ANewListIsCompiledOnceAndShownAtOnce) {
  GLuint probe = probeprogram();
  VIEWS views;
  views.frame(0, 1);
  EXPECT_TRUE(hardframe);
  EXPECT_EQ(oldlist[0], 1);
  EXPECT_EQ(oldlist[1], -1);
  // The frame that compiles the list shows it too: no cleared frame between
  // two lists.
  EXPECT_NEAR(pixel(8, 32)[0], 64, 2);
  EXPECT_NEAR(pixel(56, 32)[0], 191, 2);
  // The compiled list is what later frames call: changing the rectangles
  // without a new list number changes nothing on the screen.
  views.rect[0][1] = screenrect(&views.tile, TEXTURESIZE / 2, TEXTURESIZE, 25);
  views.frame(0, 1);
  EXPECT_FALSE(hardframe);
  // The tile's halves, at their places: texture coordinates reached the
  // shader, and so did the correction.
  std::vector<int> left = pixel(8, 32), right = pixel(56, 32);
  EXPECT_NEAR(left[0], 64, 2);
  EXPECT_NEAR(right[0], 191, 2);
  EXPECT_NEAR(left[1], 128, 3);
  glUseProgram(0);
  glDeleteProgram(probe);
}

TEST_F(Draw, ASubSquareOfATileFillsTheRectangle) {
  GLuint probe = probeprogram();
  VIEWS views;
  views.frame(0, 2);
  views.frame(0, 2);
  EXPECT_NEAR(pixel(8, 32)[0], 191, 2);
  EXPECT_NEAR(pixel(56, 32)[0], 191, 2);
  EXPECT_NEAR(pixel(8, 32)[1], 64, 3);
  glUseProgram(0);
  glDeleteProgram(probe);
}

TEST_F(Draw, TheSameListNumberInTheOtherViewIsNotShared) {
  GLuint probe = probeprogram();
  VIEWS views;
  views.frame(0, 1);
  views.frame(0, 1);
  EXPECT_FALSE(hardframe);
  views.frame(1, 1);
  EXPECT_TRUE(hardframe) << "view 1 compiles its own list";
  EXPECT_EQ(oldlist[1], 1);
  views.frame(1, 1);
  EXPECT_FALSE(hardframe);
  EXPECT_NEAR(pixel(8, 32)[0], 64, 2);
  // A new list in view 0 doesn't disturb view 1's.
  views.frame(0, 2);
  EXPECT_TRUE(hardframe);
  views.frame(1, 1);
  EXPECT_NEAR(pixel(8, 32)[0], 64, 2);
  glUseProgram(0);
  glDeleteProgram(probe);
}

TEST_F(Draw, AHardFrameOfTheFirstViewIsForgottenWhenTheSecondIsUnchanged) {
  GLuint probe = probeprogram();
  VIEWS views;
  views.frame(0, 1);
  views.frame(1, 1);
  views.frame(1, 1);
  // One frame of both views: the main view's list is new, the Julia
  // view's is not; the frame counts as soft.
  clear();
  renderdisplaylist(nullptr, views.v[0], 2, views.names);
  EXPECT_TRUE(hardframe);
  renderdisplaylist(nullptr, views.v[1], 1, views.names);
  EXPECT_FALSE(hardframe);
  glUseProgram(0);
  glDeleteProgram(probe);
}

// A rectangle may carry a channel its scheme doesn't read: each tile goes to
// the unit the scheme's sampler reads, the others are not bound.
TEST_F(Draw, TilesGoToTheUnitsOfTheListsScheme) {
  GLuint probe = probeprogram();
  VIEWS views;
  // A second tile, 0.5 everywhere, as channel 3 next to channel 0.
  std::vector<float> half(TEXTURESIZE * TEXTURESIZE, 0.5f);
  glGenTextures(1, &views.names[1]);
  glBindTexture(GL_TEXTURE_2D, views.names[1]);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_R32F, TEXTURESIZE, TEXTURESIZE, 0, GL_RED, GL_FLOAT, half.data());
  TEXTURE second{};
  second.texture = 1;
  DRAWRECT& r = views.rect[0][1];
  r.ichannels = 2;
  r.channel[1] = 3;
  r.texture[1] = &second;
  COLORSCHEME cs{};
  views.v[0]->schemes[1] = &cs;

  cs.channels = 1 << 3;  // reads channel 3 alone: its tile on unit 2
  views.frame(0, 1);
  views.frame(0, 1);
  EXPECT_NEAR(pixel(8, 32)[0], 128, 2);
  EXPECT_NEAR(pixel(56, 32)[0], 128, 2);

  cs.channels = 1 | (1 << 3);  // reads both: channel 0 on unit 2, channel 3 on unit 3
  oldlist[0] = -1;
  views.frame(0, 1);
  views.frame(0, 1);
  EXPECT_NEAR(pixel(8, 32)[0], 64, 2);
  EXPECT_NEAR(pixel(56, 32)[0], 191, 2);

  glDeleteTextures(1, &views.names[1]);
  views.names[1] = 0;
  glUseProgram(0);
  glDeleteProgram(probe);
}

// ---------------------------------------------------------------- overlay

namespace {

// A view of the plane without an engine: centre 0, the start zoom (the set
// upright), no steps pending; the tree's top at (-4, -4).
struct FAKEVIEW {
  VIEWPORT* v;
  REALM realm{};
  AREA top{};
  HPVALUE corner{}, centre{};
  explicit FAKEVIEW(REALMTYPE type) {
    v = static_cast<VIEWPORT*>(calloc(1, sizeof(VIEWPORT)));
    for (int k = 0; k < 2; k++) {
      mpf_init2(corner.v[k], 128);
      mpf_set_si(corner.v[k], -4);
      mpf_init2(centre.v[k], 128);
    }
    for (auto& m : v->mp) mpf_init2(m, 128);
    top.hpvalue = &corner;
    realm.top = &top;
    realm.type = type;
    v->realm = &realm;
    v->delta = &centre;
    v->zoom = cHFd(std::complex<double>(0, -0.5));
  }
  ~FAKEVIEW() {
    for (int k = 0; k < 2; k++) {
      mpf_clear(corner.v[k]);
      mpf_clear(centre.v[k]);
    }
    for (auto& m : v->mp) mpf_clear(m);
    free(v);
  }
};

struct OVERLAYSTATE {
  OVERLAYSTATE() { reset(); }
  ~OVERLAYSTATE() { reset(); }
  static void reset() {
    tracemode = false;
    displayjuliapoint = false;
    juliamode = 0;
    tracetime = 0;
    NTRACE = 1000;
    pointsize = 5;
    tracez[0] = tracec[0] = tracez[1] = tracec[1] = 0;
  }
};

}  // namespace

TEST(Overlay, TheTraceIsTheOrbitOnTheScreen) {
  OVERLAYSTATE state;
  FAKEVIEW view(GENERAL);
  std::complex<double> out[16];
  EXPECT_EQ(gatheroverlay(nullptr, view.v, 0, out, 16), 0) << "nothing without the trace";
  EXPECT_FALSE(overlayshown(view.v));
  tracemode = true;
  EXPECT_TRUE(overlayshown(view.v));
  // c = -1: 0, -1, 0, -1, ... up to NTRACE points.
  tracez[0] = 0;
  tracec[0] = -1;
  NTRACE = 5;
  ASSERT_EQ(gatheroverlay(nullptr, view.v, 0, out, 16), 5);
  for (int k = 0; k < 5; k++) {
    // A plane point p shows at p * zoom = p * (-i/2).
    std::complex<double> want = (k % 2 ? -1.0 : 0.0) * std::complex<double>(0, -0.5);
    EXPECT_NEAR(std::abs(out[k] - want), 0, 1e-12) << k;
  }
  // c = 1: 0, 1, 2, then 5 is beyond |z|^2 = 10 and ends it.
  NTRACE = 1000;
  tracec[0] = 1;
  ASSERT_EQ(gatheroverlay(nullptr, view.v, 0, out, 16), 3);
  EXPECT_NEAR(std::abs(out[2] - std::complex<double>(0, -1)), 0, 1e-12);
  // Each view has its own trace.
  tracez[1] = std::complex<double>(0.5, 0.5);
  tracec[1] = 0;
  ASSERT_GE(gatheroverlay(nullptr, view.v, 1, out, 16), 1);
  EXPECT_NEAR(std::abs(out[0] - std::complex<double>(0.5, 0.5) * std::complex<double>(0, -0.5)), 0, 1e-12);
  // The room given bounds the count.
  tracec[0] = -1;
  EXPECT_EQ(gatheroverlay(nullptr, view.v, 0, out, 4), 4);
}

TEST(Overlay, TheJuliaPointOfTheGeneralRealm) {
  OVERLAYSTATE state;
  FAKEVIEW view(GENERAL);
  mpf_set_d(view.v->mp[2], 0.25);
  mpf_set_d(view.v->mp[3], 0);
  std::complex<double> out[4];
  displayjuliapoint = true;
  ASSERT_EQ(gatheroverlay(nullptr, view.v, 0, out, 4), 1);
  EXPECT_NEAR(std::abs(out[0] - std::complex<double>(0, -0.125)), 0, 1e-12);
  EXPECT_FALSE(overlayshown(view.v)) << "shown only with the small Julia window";
  juliamode = 1;
  EXPECT_TRUE(overlayshown(view.v));
  FAKEVIEW julia(JULIA);
  EXPECT_EQ(gatheroverlay(nullptr, julia.v, 0, out, 4), 0);
  EXPECT_FALSE(overlayshown(julia.v));
}

TEST_F(Draw, TheOverlayDrawsLinesAndPointsUnderTheNavigatorsTransform) {
  OVERLAYSTATE state;
  setupfixedprograms();
  ORTHO box{-1, 1, -1, 1};
  const std::complex<double> pts[2] = {{-0.5, 0}, {0.5, 0}};
  clear();
  drawoverlay(pts, 2, box, 1.0, 0.0, 0);
  glUseProgram(0);
  // A one-pixel line on the boundary between rows 31 and 32 takes one of them.
  EXPECT_TRUE(pixel(32, 31) == (std::vector<int>{255, 255, 255}) || pixel(32, 32) == (std::vector<int>{255, 255, 255}))
      << "on the line";
  EXPECT_EQ(pixel(16, 32), (std::vector<int>{255, 255, 255})) << "on the first point";
  EXPECT_EQ(pixel(32, 50), (std::vector<int>{0, 0, 0})) << "off the line";
  // delta2 and zoom2: the point at 0.5 shows at zoom2 * (0.5 - delta2).
  const std::complex<double> one[1] = {{0.5, 0}};
  clear();
  drawoverlay(one, 1, box, 1.0, std::complex<double>(0.5, 0), 0);
  EXPECT_EQ(pixel(32, 32), (std::vector<int>{255, 255, 255}));
  EXPECT_EQ(pixel(48, 32), (std::vector<int>{0, 0, 0}));
  clear();
  drawoverlay(one, 1, box, std::complex<double>(0, 1), 0.0, 0);  // a quarter turn: to (0, 0.5)
  EXPECT_EQ(pixel(32, 48), (std::vector<int>{255, 255, 255}));
  EXPECT_EQ(pixel(48, 32), (std::vector<int>{0, 0, 0}));
  glUseProgram(0);
}

TEST_F(Draw, ANewTraceFadesInAlongItsPoints) {
  OVERLAYSTATE state;
  setupfixedprograms();
  tracemode = true;
  ORTHO box{-1, 1, -1, 1};
  const std::complex<double> pts[2] = {{-0.5, 0}, {0.5, 0}};
  tracetime = 10.5;  // the fade runs from 10 to 10.5
  clear();
  drawoverlay(pts, 2, box, 1.0, 0.0, 10.0);
  EXPECT_EQ(pixel(16, 32), (std::vector<int>{0, 0, 0})) << "nothing at the start";
  clear();
  drawoverlay(pts, 2, box, 1.0, 0.0, 10.25);
  EXPECT_EQ(pixel(16, 32), (std::vector<int>{255, 255, 255})) << "the first point at half time";
  EXPECT_EQ(pixel(48, 32), (std::vector<int>{0, 0, 0})) << "not yet the second";
  clear();
  drawoverlay(pts, 2, box, 1.0, 0.0, 10.5);
  EXPECT_EQ(pixel(48, 32), (std::vector<int>{255, 255, 255})) << "all at the end";
  glUseProgram(0);
}

// ---------------------------------------------------------------- kept pictures

#include "picturecells.h"

namespace {

// The corners of the pixel box x0..x1, y0..y1.
void boxcorners(double x0, double y0, double x1, double y1, double c[4][2]) {
  const double v[4][2] = {{x0, y0}, {x1, y0}, {x1, y1}, {x0, y1}};
  for (int i = 0; i < 4; i++) {
    c[i][0] = v[i][0];
    c[i][1] = v[i][1];
  }
}

// 4 x 2 cells of 64 pixels, the last column and row cut short.
PICTURECELLS cellsof(const std::vector<std::vector<double>>& boxes, PICTURECELLS* cells = nullptr) {
  PICTURECELLS fresh;
  if (!cells) {
    fresh.resize(200, 100);
    cells = &fresh;
  }
  cells->beginlist();
  uint64_t hash = 1;
  for (const std::vector<double>& b : boxes) {
    double c[4][2];
    boxcorners(b[0], b[1], b[2], b[3], c);
    cells->addrect(c, b.size() > 4 ? static_cast<uint64_t>(b[4]) : hash++);
  }
  return *cells;
}

int area(const std::vector<CELLRUN>& runs) {
  int a = 0;
  for (const CELLRUN& r : runs) a += (r.box.x1 - r.box.x0) * (r.box.y1 - r.box.y0);
  return a;
}

}  // namespace

TEST(PictureCells, AFreshPictureIsDirtyEverywhereAndOneTakeDrawsItAll) {
  PICTURECELLS cells = cellsof({});
  EXPECT_EQ(cells.columns(), 4);
  EXPECT_EQ(cells.rows(), 2);
  EXPECT_EQ(cells.dirtycells(), 8);
  std::vector<CELLRUN> runs = cells.takeall();
  // One run per row, each the whole width: the picture's every pixel once.
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(area(runs), 200 * 100);
  EXPECT_EQ(runs[0].box.y0, 64);  // rows from the top
  EXPECT_EQ(runs[0].box.y1, 100);
  EXPECT_EQ(runs[0].box.x1, 200);
  EXPECT_EQ(cells.dirtycells(), 0);
}

TEST(PictureCells, TheSameListAgainLeavesEveryCellStanding) {
  PICTURECELLS cells;
  cells.resize(200, 100);
  cellsof({{0, 0, 200, 100, 7}, {10, 10, 50, 50, 8}}, &cells);
  cells.takeall();
  cellsof({{0, 0, 200, 100, 7}, {10, 10, 50, 50, 8}}, &cells);
  EXPECT_EQ(cells.dirtycells(), 0);
  EXPECT_TRUE(cells.take(1 << 20).empty());
}

TEST(PictureCells, ANewRectangleDirtiesOnlyTheCellsUnderIt) {
  PICTURECELLS cells;
  cells.resize(200, 100);
  cellsof({{0, 0, 200, 100, 7}}, &cells);
  cells.takeall();
  // Inside the first cell, its margin included.
  cellsof({{0, 0, 200, 100, 7}, {10, 10, 50, 50, 8}}, &cells);
  EXPECT_EQ(cells.dirtycells(), 1);
  std::vector<CELLRUN> runs = cells.takeall();
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].box.x0, 0);
  EXPECT_EQ(runs[0].box.y0, 0);
  EXPECT_EQ(runs[0].box.x1, 64);
  EXPECT_EQ(runs[0].box.y1, 64);
  // Across the border of the second and third column of the top row.
  cellsof({{0, 0, 200, 100, 7}, {10, 10, 50, 50, 8}, {100, 70, 140, 90, 9}}, &cells);
  EXPECT_EQ(cells.dirtycells(), 2);
}

TEST(PictureCells, ARectangleThatGoesAwayOrChangesItsTilesDirtiesItsCells) {
  PICTURECELLS cells;
  cells.resize(200, 100);
  cellsof({{0, 0, 200, 100, 7}, {10, 10, 50, 50, 8}}, &cells);
  cells.takeall();
  cellsof({{0, 0, 200, 100, 7}}, &cells);
  EXPECT_EQ(cells.dirtycells(), 1);
  cells.takeall();
  // The same place with other pixels (another hash): dirty everywhere.
  cellsof({{0, 0, 200, 100, 11}}, &cells);
  EXPECT_EQ(cells.dirtycells(), 8);
}

TEST(PictureCells, TheOrderOfTheRectanglesCounts) {
  PICTURECELLS cells;
  cells.resize(200, 100);
  cellsof({{0, 0, 60, 60, 1}, {0, 0, 60, 60, 2}}, &cells);
  cells.takeall();
  cellsof({{0, 0, 60, 60, 2}, {0, 0, 60, 60, 1}}, &cells);
  EXPECT_EQ(cells.dirtycells(), 1);
}

TEST(PictureCells, ABudgetSpreadsTheCellsOverFrames) {
  PICTURECELLS cells;
  cells.resize(256, 128);
  // Every cell under two rectangles: a cell costs 2 * 64 * 64.
  cellsof({{0, 0, 256, 128, 1}, {0, 0, 256, 128, 2}}, &cells);
  int takes = 0, total = 0;
  while (cells.dirtycells() > 0 && takes < 100) {
    std::vector<CELLRUN> runs = cells.take(3 * 2 * 64 * 64);
    int64_t cost = 0;
    for (const CELLRUN& r : runs) cost += r.cost;
    EXPECT_LE(cost, 3 * 2 * 64 * 64);
    EXPECT_GT(cost, 0);
    total += area(runs);
    takes++;
  }
  // 8 cells, 3 a frame.
  EXPECT_EQ(takes, 3);
  EXPECT_EQ(total, 256 * 128);
}

TEST(PictureCells, ACellDearerThanTheBudgetIsStillDrawn) {
  PICTURECELLS cells = cellsof({{0, 0, 200, 100, 1}});
  std::vector<CELLRUN> runs = cells.take(1);
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(area(runs), 64 * 36);  // the top row's first cell, cut short
  EXPECT_EQ(cells.dirtycells(), 7);
}

TEST(PictureCells, ARectangleOffThePictureOrNotANumberCoversNothing) {
  PICTURECELLS cells;
  cells.resize(200, 100);
  cellsof({}, &cells);
  cells.takeall();
  cellsof({{300, 300, 400, 400, 1}, {-100, -100, -50, -50, 2}, {NAN, 0, 10, 10, 3}}, &cells);
  EXPECT_EQ(cells.dirtycells(), 0);
}

namespace {

// The 64 x 64 pixels of the back buffer's lower left corner, red only.
std::vector<int> reds() {
  std::vector<unsigned char> rgba(SIZE * SIZE * 4);
  glReadBuffer(GL_BACK);
  glReadPixels(0, 0, SIZE, SIZE, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
  std::vector<int> r(SIZE * SIZE);
  for (int i = 0; i < SIZE * SIZE; i++) r[i] = rgba[i * 4];
  return r;
}

// A frame of view 0 through its kept picture, list `list`, the view at rest.
bool pictureframe(VIEWS* views, int list) {
  clear();
  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  complexd zero{0, 0}, one{1, 0};
  return drawpicture(views->v[0], 0, list, zero, one, zero, one, nullptr, false, 0, 0, SIZE, SIZE, views->names);
}

}  // namespace

TEST_F(Draw, AKeptPictureShowsWhatTheListDrawsAndFollowsANewList) {
  width = height = SIZE;
  initpictures();
  ASSERT_TRUE(picturesavailable()) << "Mesa offers frame buffers";
  GLuint probe = probeprogram();
  VIEWS views;
  // Drawn directly, list 1 then list 2, for reference.
  views.frame(0, 1);
  std::vector<int> direct1 = reds();
  views.frame(0, 2);
  std::vector<int> direct2 = reds();
  ASSERT_NE(direct1, direct2);

  oldlist[0] = -1;
  glUseProgram(probe);
  ASSERT_TRUE(pictureframe(&views, 1));
  EXPECT_FALSE(picturepending(0));  // a 64 x 64 view fits one frame's budget
  EXPECT_EQ(reds(), direct1);
  // A new list: the picture follows it.
  glUseProgram(probe);
  ASSERT_TRUE(pictureframe(&views, 2));
  EXPECT_EQ(reds(), direct2);
  // The window's contents lost: the next frame brings the picture back
  // without drawing a rectangle.
  clear();
  glUseProgram(probe);
  ASSERT_TRUE(pictureframe(&views, 2));
  EXPECT_EQ(reds(), direct2);
  glUseProgram(0);
  glDeleteProgram(probe);
  freepictures();
}

TEST_F(Draw, AKeptPictureRedrawsATileThatWasUploadedAgain) {
  width = height = SIZE;
  initpictures();
  ASSERT_TRUE(picturesavailable());
  GLuint probe = probeprogram();
  VIEWS views;
  uint32_t generation[1] = {0};
  info.generation = generation;
  oldlist[0] = -1;
  ASSERT_TRUE(pictureframe(&views, 1));
  EXPECT_NEAR(reds()[32 * SIZE + 8], 64, 2);
  // New pixels in the same tile, in a new list with the same rectangle.
  std::vector<float> texels(TEXTURESIZE * TEXTURESIZE, 0.5f);
  CALLBACKINFO cb{views.names, generation};
  textureuploadcallback(nullptr, 0, texels.data(), &cb);
  EXPECT_EQ(generation[0], 1u);
  views.rect[0][0] = views.rect[0][1];
  glUseProgram(probe);
  ASSERT_TRUE(pictureframe(&views, 0));
  EXPECT_NEAR(reds()[32 * SIZE + 8], 128, 2);
  info.generation = nullptr;
  glUseProgram(0);
  glDeleteProgram(probe);
  freepictures();
}

TEST_F(Draw, AKeptPictureRedrawsATileUploadedAgainUnderTheSameList) {
  width = height = SIZE;
  initpictures();
  ASSERT_TRUE(picturesavailable());
  GLuint probe = probeprogram();
  VIEWS views;
  uint32_t generation[1] = {0};
  info.generation = generation;
  oldlist[0] = -1;
  ASSERT_TRUE(pictureframe(&views, 1));
  EXPECT_NEAR(reds()[32 * SIZE + 56], 191, 2);
  std::vector<float> texels(TEXTURESIZE * TEXTURESIZE, 0.5f);
  CALLBACKINFO cb{views.names, generation};
  textureuploadcallback(nullptr, 0, texels.data(), &cb);
  glUseProgram(probe);
  ASSERT_TRUE(pictureframe(&views, 1));
  EXPECT_NEAR(reds()[32 * SIZE + 56], 128, 2);
  info.generation = nullptr;
  glUseProgram(0);
  glDeleteProgram(probe);
  freepictures();
}

TEST_F(Draw, ATilesFirstUploadMakesItsStorage) {
  GLuint name = 0;
  glGenTextures(1, &name);
  uint32_t generation[1] = {0};
  CALLBACKINFO cb{&name, generation};
  std::vector<float> texels(TEXTURESIZE * TEXTURESIZE, 0.25f);
  textureuploadcallback(nullptr, 0, texels.data(), &cb);
  GLint w = 0, h = 0, format = 0;
  glBindTexture(GL_TEXTURE_2D, name);
  glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &w);
  glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &h);
  glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_INTERNAL_FORMAT, &format);
  EXPECT_EQ(w, TEXTURESIZE);
  EXPECT_EQ(h, TEXTURESIZE);
  EXPECT_EQ(format, GL_R32F);
  // The next upload goes into the same storage.
  texels.assign(texels.size(), 0.75f);
  textureuploadcallback(nullptr, 0, texels.data(), &cb);
  EXPECT_EQ(generation[0], 2u);
  std::vector<float> back(TEXTURESIZE * TEXTURESIZE);
  glBindTexture(GL_TEXTURE_2D, name);
  glGetTexImage(GL_TEXTURE_2D, 0, GL_RED, GL_FLOAT, back.data());
  EXPECT_EQ(back[0], 0.75f);
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  glDeleteTextures(1, &name);
}
