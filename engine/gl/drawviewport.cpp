// A viewport's frame drawn off-screen: the list the display takes, under the
// map p -> zoom * (p - delta) in screen units whose shorter side spans 2, and
// the colour scheme's program fed with where the picture lies in the plane.
// Deep zoom never reaches GL: the list's coordinates are within a few units
// of the origin, and only the per-pixel step `d` and the absolute corner `p`
// carry the view's scale, as floats the scheme uses for effects alone.
#include <glad/gl.h>
// after the loader
#include "displaygl.h"

#include <cmath>

namespace {

// The correction rides in the colour's alpha, which must hold it within
// [0, 1]; the scheme scales it back.
constexpr double CORRECTIONSCALE = 1.0 / 4294967296.0;  // 2^-32

// The texture unit of channel `channel` for a scheme reading `channels`: 2
// plus the channels it reads below, bit 3 counted. A list may carry a
// channel the scheme does not read (a host's extra output); that one is not
// bound at all, -1, so the scheme's own tiles keep their units.
int unitofchannel(int channels, int channel) {
  if (!(channels & (1 << channel))) return -1;
  int unit = 2;
  for (int bit = 0; bit < channel; bit++)
    if (channels & (1 << bit)) unit++;
  return unit;
}

void bindtiles(const DRAWRECT& dr, const GLuint* texture, int schemechannels) {
  for (int i = 0; i < dr.ichannels; i++) {
    int unit = schemechannels < 0 ? 2 + i : unitofchannel(schemechannels, dr.channel[i]);
    if (unit < 0) continue;
    bindtile(unit, texture[dr.texture[i]->texture]);
  }
}


// The channels the list's scheme reads, or -1 when it is unknown and the
// rectangle's own packing decides.
int schemechannels(VIEWPORT* viewport, int list) {
  COLORSCHEME* cs = viewport->schemes[list];
  if (!cs) return -1;
  Colorscheme* shader = cs->shader;
  return (shader ? shader->channels : cs->channels) & 0x1ff;
}

struct ORTHO {
  double left, right, bottom, top;
  complexd d;  // plane step per pixel
};

// The shorter side spans -1 to 1; `d` is the step of one pixel in the plane.
ORTHO aspect(int w, int h, complexd iz) {
  ORTHO o;
  if (w < h) {
    double s = 1.0 / w;
    o = ORTHO{-1, 1, -h * s, h * s, 2.0 * iz * s};
  } else {
    double s = 1.0 / h;
    o = ORTHO{-w * s, w * s, -1, 1, 2.0 * iz * s};
  }
  return o;
}

void loadtransform(const ORTHO& o, complexd zoom, complexd delta) {
  glMatrixMode(GL_MODELVIEW);
  glLoadIdentity();
  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  glOrtho(o.left, o.right, o.bottom, o.top, 0, 1);
  complexd zd = zoom * delta;
  const GLdouble m[16] = {zoom.real(), zoom.imag(), 0, 0, -zoom.imag(), zoom.real(), 0, 0,
                          0,           0,           1, 0, -zd.real(),   -zd.imag(),  0, 1};
  glMultMatrixd(m);
}

void juliaconstant(VIEWPORT* viewport, Uniforms* u) {
  REALM* realm = viewport->realm;
  HPVALUE* c = realm && realm->type == JULIA ? realm->info.c : nullptr;
  u->julia = c != nullptr;
  u->j = c ? vec2{static_cast<float>(mpf_get_d(c->v[0])), static_cast<float>(mpf_get_d(c->v[1]))}
           : vec2{0, 0};
}

}  // namespace

void __renderdisplaylist(OVCONTEXT*, VIEWPORT* viewport, int list, const GLuint* texture) {
  int channels = schemechannels(viewport, list);
  const DRAWRECT* rects = viewport->drawrect[list];
  unsigned int n = viewport->idrawrect[list];
  for (unsigned int r = 0; r < n; r++) {
    bindtiles(rects[r], texture, channels);
    renderdrawrect(rects[r]);
  }
  glActiveTexture(GL_TEXTURE0);
}

bool __drawviewport(OVCONTEXT* context, GLuint* currentshader, VIEWPORT* viewport, Params* params,
                    double time, int x, int y, int w, int h, const GLuint* texture, vec2 offset) {
  GLint oldviewport[4], oldscissor[4];
  glGetIntegerv(GL_VIEWPORT, oldviewport);
  glGetIntegerv(GL_SCISSOR_BOX, oldscissor);
  glScissor(x, y, w, h);
  glViewport(x, y, w, h);
  glClearColor(0, 0, 0, 0);
  glClear(GL_COLOR_BUFFER_BIT);

  complexd delta, zoom, delta2, zoom2, deltaabs, zoomabs;
  COLORSCHEME* cs = nullptr;
  int list = getactivelist(context, viewport, time, &delta, &zoom, &delta2, &zoom2, &deltaabs,
                           &zoomabs, &cs, nullptr, 0, nullptr, nullptr);
  bool drawn = false;
  Colorscheme* scheme = cs ? cs->shader : nullptr;
  if (list != -1 && scheme && scheme->prog) {
    complexd iz = 1.0 / zoomabs;
    ORTHO o = aspect(w, h, iz);
    loadtransform(o, zoom, delta);
    glUseProgram(scheme->prog);
    *currentshader = scheme->prog;
    Uniforms u{};
    complexd d = o.d;
    // A zero zoom makes `d` infinite; the corner then stays at the centre,
    // so that the infinity reaches `d` alone.
    complexd corner(h * d.imag() / 2 - w * d.real() / 2, -(w * d.imag() + h * d.real()) / 2);
    if (!std::isfinite(corner.real()) || !std::isfinite(corner.imag())) corner = 0;
    u.p = vec2{static_cast<float>(deltaabs.real() + corner.real()),
               static_cast<float>(deltaabs.imag() + corner.imag())};
    u.d = vec2{static_cast<float>(d.real()), static_cast<float>(d.imag())};
    u.globalcorrection = static_cast<float>(std::abs(zoom));
    juliaconstant(viewport, &u);
    u.screencoordoffset = offset;
    params->time = static_cast<float>(time);
    loadParams(scheme->prog, &u, params, scheme);
    __renderdisplaylist(context, viewport, list, texture);
    drawn = true;
  }
  if (list != -1) unlocklist(context, viewport);
  glScissor(oldscissor[0], oldscissor[1], oldscissor[2], oldscissor[3]);
  glViewport(oldviewport[0], oldviewport[1], oldviewport[2], oldviewport[3]);
  return drawn;
}

void renderdrawrect(const DRAWRECT& dr) {
  glBegin(GL_TRIANGLE_STRIP);
  glColor4d(0, 0, 0, dr.correction * CORRECTIONSCALE);
  double e = dr.epsilon;
  glTexCoord2d(dr.x0 * e, dr.y0 * e);
  glVertex2f(dr.c[0][0], dr.c[0][1]);
  glTexCoord2d(dr.x1 * e, dr.y0 * e);
  glVertex2f(dr.c[1][0], dr.c[1][1]);
  glTexCoord2d(dr.x0 * e, dr.y1 * e);
  glVertex2f(dr.c[3][0], dr.c[3][1]);
  glTexCoord2d(dr.x1 * e, dr.y1 * e);
  glVertex2f(dr.c[2][0], dr.c[2][1]);
  glEnd();
}

void bindtile(int unit, GLuint name) {
  glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(unit));
  glBindTexture(GL_TEXTURE_2D, name);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
}
