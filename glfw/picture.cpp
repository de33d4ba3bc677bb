// Each view keeps its coloured picture in a texture of its own (a frame
// buffer object) and the window is given a copy of it every frame. A new
// list then costs the shading of the cells it changed, not of the whole
// view, and that shading is spread over frames within a budget of time: on
// a software renderer a scheme's program over a full-screen view takes
// seconds, which no frame can wait for. A view that moves, or whose palette
// changes, is drawn whole at once as before.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "app.h"
#include "displaygl.h"
#include "picturecells.h"

namespace {

// The frame buffer entry points: GL 3.0 or ARB_framebuffer_object, beyond
// the loader's GL 2.1.
using GENFRAMEBUFFERS = void (*)(GLsizei, GLuint*);
using DELETEFRAMEBUFFERS = void (*)(GLsizei, const GLuint*);
using BINDFRAMEBUFFER = void (*)(GLenum, GLuint);
using FRAMEBUFFERTEXTURE2D = void (*)(GLenum, GLenum, GLenum, GLuint, GLint);
using CHECKFRAMEBUFFERSTATUS = GLenum (*)(GLenum);

constexpr GLenum FRAMEBUFFER = 0x8D40;
constexpr GLenum COLOR_ATTACHMENT0 = 0x8CE0, FRAMEBUFFER_COMPLETE = 0x8CD5;

struct FBOGL {
  GENFRAMEBUFFERS gen = nullptr;
  DELETEFRAMEBUFFERS del = nullptr;
  BINDFRAMEBUFFER bind = nullptr;
  FRAMEBUFFERTEXTURE2D texture2d = nullptr;
  CHECKFRAMEBUFFERSTATUS check = nullptr;
  bool ok() const { return gen && del && bind && texture2d && check; }
};
FBOGL fbo;
bool pictureson = false;

struct KEY {
  complexd delta, zoom, deltaabs, zoomabs;
  const COLORSCHEME* cs;
  bool operator==(const KEY& o) const {
    return delta == o.delta && zoom == o.zoom && deltaabs == o.deltaabs && zoomabs == o.zoomabs && cs == o.cs;
  }
};

struct PICTURE {
  GLuint fbo = 0, tex = 0;
  int w = 0, h = 0;
  bool haskey = false;  // something was drawn under `key`
  KEY key{};
  int list = -1;
  uint64_t uploads = 0;  // `tileuploads` when the cells were last wanted
  PICTURECELLS cells;
  std::vector<PIXELBOX> rects;  // where each rectangle of the list lies, in pixels
};
PICTURE pictures[2];

// The shading budget of a frame, in the cells' cost units (pixels times
// covering rectangles), and what one unit is taking, measured.
// A full-screen frame's copy and swap alone take some 20 ms on a software
// renderer; the shading gets the rest of a frame of 30 fps.
constexpr double FRAMEWORK = 0.028;  // seconds of work a frame may take
int64_t budget = 16384;
int64_t spent = 0;
double unitseconds = 1.2e-6;

void makepicture(PICTURE* p, int w, int h) {
  if (!p->fbo) {
    fbo.gen(1, &p->fbo);
    glGenTextures(1, &p->tex);
  }
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, p->tex);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, w, h, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
  fbo.bind(FRAMEBUFFER, p->fbo);
  fbo.texture2d(FRAMEBUFFER, COLOR_ATTACHMENT0, GL_TEXTURE_2D, p->tex, 0);
  bool complete = fbo.check(FRAMEBUFFER) == FRAMEBUFFER_COMPLETE;
  fbo.bind(FRAMEBUFFER, 0);
  if (!complete) {
    fprintf(stderr, "orvanta: no frame buffer for the kept picture; views are drawn whole every frame\n");
    pictureson = false;
    return;
  }
  p->w = w;
  p->h = h;
  p->haskey = false;
  p->list = -1;
  p->cells.resize(w, h);
}

uint64_t mix(uint64_t h, uint64_t v) {
  h ^= v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
  return h;
}

uint64_t bits(float f) {
  uint32_t u;
  memcpy(&u, &f, sizeof u);
  return u;
}

// What a rectangle shows: its tiles (GL name and upload count) on the units
// the scheme reads, where it lies and which texels it takes.
uint64_t recthash(const DRAWRECT& dr, const COLORSCHEME* scheme, const GLuint* texture) {
  uint64_t h = 0;
  for (int i = 0; i < dr.ichannels; i++) {
    if (scheme && !(scheme->channels & (1 << dr.channel[i]))) continue;
    int t = dr.texture[i]->texture;
    h = mix(h, (static_cast<uint64_t>(dr.channel[i]) << 40) ^ texture[t]);
    h = mix(h, info.generation ? info.generation[t] : 0);
  }
  for (int k = 0; k < 4; k++) h = mix(h, bits(dr.c[k][0]) << 32 | bits(dr.c[k][1]));
  h = mix(h, static_cast<uint64_t>(static_cast<uint32_t>(dr.x0)) << 32 | static_cast<uint32_t>(dr.y0));
  h = mix(h, static_cast<uint64_t>(static_cast<uint32_t>(dr.x1)) << 32 | static_cast<uint32_t>(dr.y1));
  return mix(h, bits(dr.epsilon) << 32 | bits(dr.correction));
}

PIXELBOX pixelbox(const double corners[4][2]) {
  double xmin = corners[0][0], xmax = xmin, ymin = corners[0][1], ymax = ymin;
  for (int i = 1; i < 4; i++) {
    xmin = std::min(xmin, corners[i][0]);
    xmax = std::max(xmax, corners[i][0]);
    ymin = std::min(ymin, corners[i][1]);
    ymax = std::max(ymax, corners[i][1]);
  }
  if (!(xmax >= xmin && ymax >= ymin)) return PIXELBOX{0, 0, 0, 0};
  auto clampint = [](double v) { return static_cast<int>(std::clamp(v, -1e9, 1e9)); };
  return PIXELBOX{clampint(std::floor(xmin)) - 1, clampint(std::floor(ymin)) - 1, clampint(std::ceil(xmax)) + 1,
                  clampint(std::ceil(ymax)) + 1};
}

bool overlaps(const PIXELBOX& a, const PIXELBOX& b) {
  return a.x0 < b.x1 && b.x0 < a.x1 && a.y0 < b.y1 && b.y0 < a.y1;
}

// The cells each rectangle of the list covers, through the projection that
// is loaded, in the picture's pixels.
void wantlist(PICTURE* p, VIEWPORT* v, int list, const GLuint* texture) {
  GLdouble m[16];
  glGetDoublev(GL_PROJECTION_MATRIX, m);
  const COLORSCHEME* scheme = v->schemes[list];
  p->cells.beginlist();
  unsigned int n = v->idrawrect[list];
  p->rects.resize(n);
  for (unsigned int k = 0; k < n; k++) {
    const DRAWRECT& dr = v->drawrect[list][k];
    double corners[4][2];
    for (int i = 0; i < 4; i++) {
      double x = dr.c[i][0], y = dr.c[i][1];
      double cx = m[0] * x + m[4] * y + m[12], cy = m[1] * x + m[5] * y + m[13], cw = m[3] * x + m[7] * y + m[15];
      corners[i][0] = (cx / cw + 1) * 0.5 * p->w;
      corners[i][1] = (cy / cw + 1) * 0.5 * p->h;
    }
    p->cells.addrect(corners, recthash(dr, scheme, texture));
    p->rects[k] = pixelbox(corners);
  }
}

// The list's rectangles over one run, in the list's order: only those, as a
// software renderer pays for every rectangle it is given, scissored or not.
void drawrun(const PICTURE* p, VIEWPORT* v, int list, const CELLRUN& r, const GLuint* texture) {
  const COLORSCHEME* scheme = v->schemes[list];
  GLuint bound[8] = {};
  for (size_t k = 0; k < p->rects.size(); k++) {
    if (!overlaps(p->rects[k], r.box)) continue;
    const DRAWRECT& dr = v->drawrect[list][k];
    for (int i = 0; i < dr.ichannels; i++) {
      int unit = tileunit(scheme, dr.channel[i], i);
      if (unit < 0) continue;
      GLuint name = texture[dr.texture[i]->texture];
      if (unit < 8 && bound[unit] == name) continue;
      if (unit < 8) bound[unit] = name;
      bindtile(unit, name);
    }
    renderdrawrect(dr);
  }
}

void drawruns(PICTURE* p, const std::vector<CELLRUN>& runs, VIEWPORT* v, int list, const GLuint* texture) {
  if (runs.empty()) return;
  fbo.bind(FRAMEBUFFER, p->fbo);
  glViewport(0, 0, p->w, p->h);
  glClearColor(0, 0, 0, 0);
  for (const CELLRUN& r : runs) {
    glScissor(r.box.x0, r.box.y0, r.box.x1 - r.box.x0, r.box.y1 - r.box.y0);
    glClear(GL_COLOR_BUFFER_BIT);
    drawrun(p, v, list, r, texture);
    spent += r.cost;
  }
  fbo.bind(FRAMEBUFFER, 0);
}

// The picture into the window rectangle as one textured quad without
// blending: a software renderer copies that on its fast path, where a frame
// buffer blit of a full screen took it 20 to 40 ms.
void showpicture(const PICTURE* p, int x, int y, int w, int h) {
  glViewport(x, height - y - h, w, h);
  glScissor(x, height - y - h, w, h);
  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  glUseProgram(progtex);
  glUniform1i(glGetUniformLocation(progtex, "tex0"), 0);
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, p->tex);
  glDisable(GL_BLEND);
  glBegin(GL_TRIANGLE_STRIP);
  glTexCoord2f(0, 0);
  glVertex2f(-1, -1);
  glTexCoord2f(1, 0);
  glVertex2f(1, -1);
  glTexCoord2f(0, 1);
  glVertex2f(-1, 1);
  glTexCoord2f(1, 1);
  glVertex2f(1, 1);
  glEnd();
  glEnable(GL_BLEND);
}

}  // namespace

void initpictures() {
  fbo.gen = reinterpret_cast<GENFRAMEBUFFERS>(glfwGetProcAddress("glGenFramebuffers"));
  fbo.del = reinterpret_cast<DELETEFRAMEBUFFERS>(glfwGetProcAddress("glDeleteFramebuffers"));
  fbo.bind = reinterpret_cast<BINDFRAMEBUFFER>(glfwGetProcAddress("glBindFramebuffer"));
  fbo.texture2d = reinterpret_cast<FRAMEBUFFERTEXTURE2D>(glfwGetProcAddress("glFramebufferTexture2D"));
  fbo.check = reinterpret_cast<CHECKFRAMEBUFFERSTATUS>(glfwGetProcAddress("glCheckFramebufferStatus"));
  const char* text = reinterpret_cast<const char*>(glGetString(GL_VERSION));
  bool version = text && atoi(text) >= 3;
  pictureson = fbo.ok() && (version || glfwExtensionSupported("GL_ARB_framebuffer_object"));
  const char* off = getenv("ORVANTA_KEPT_PICTURE");
  if (off && strcmp(off, "0") == 0) pictureson = false;
}

bool picturesavailable() { return pictureson; }

void freepictures() {
  for (PICTURE& p : pictures) {
    if (p.fbo) fbo.del(1, &p.fbo);
    if (p.tex) glDeleteTextures(1, &p.tex);
    p = PICTURE{};
  }
}

bool picturepending(int vid) {
  const PICTURE& p = pictures[vid & 1];
  return pictureson && p.haskey && p.cells.dirtycells() > 0;
}

bool pictureunfinished() { return picturepending(0) || picturepending(1); }

bool drawpicture(VIEWPORT* v, int vid, int list, complexd delta, complexd zoom, complexd deltaabs,
                 complexd zoomabs, const COLORSCHEME* cs, bool whole, int x, int y, int w, int h,
                 GLuint* texture) {
  if (!pictureson || w <= 0 || h <= 0) return false;
  PICTURE* p = &pictures[vid & 1];
  if (p->w != w || p->h != h) makepicture(p, w, h);
  if (!pictureson) return false;
  // The GL list is made as before, for the frames drawn without the
  // picture; the picture draws the rectangles it needs itself.
  bool compiled = compiledisplaylist(v, list, texture);
  KEY key{delta, zoom, deltaabs, zoomabs, cs};
  bool moved = p->haskey && !(key == p->key);
  // New pixels in a tile of the same list change what its cells want too.
  if (compiled || moved || !p->haskey || list != p->list || p->uploads != tileuploads) {
    wantlist(p, v, list, texture);
    p->uploads = tileuploads;
  }
  // A view in motion, or under a new palette, is drawn whole: a picture
  // mixed of two places or two palettes would show seams.
  if (moved || (whole && p->haskey)) {
    p->cells.forget();
    drawruns(p, p->cells.takeall(), v, list, texture);
  } else {
    drawruns(p, p->cells.take(std::max<int64_t>(budget - spent, 1)), v, list, texture);
  }
  p->key = key;
  p->haskey = true;
  p->list = list;
  showpicture(p, x, y, w, h);
  return true;
}

void picturebudget(double seconds) {
  if (spent > 0 && seconds > 0) {
    double measured = seconds / static_cast<double>(spent);
    unitseconds = 0.7 * unitseconds + 0.3 * measured;
    budget = std::clamp(static_cast<int64_t>(FRAMEWORK / unitseconds), int64_t{PICTURECELLS::CELL * PICTURECELLS::CELL},
                        int64_t{1} << 40);
  }
  spent = 0;
}
