// One on-screen frame of a view: the newest draw list, shown under the
// transform from the list's coordinates to the present, through the colour
// scheme's program. The rectangles of a list are compiled once into a GL
// display list; a frame without a new list costs one glCallList. Where the
// views keep their pictures (picture.cpp) a frame at rest costs the cells a
// new list changed and a copy of the picture instead.
#include <algorithm>
#include <cmath>
#include <vector>

#include "app.h"
#include "displaygl.h"
#include "viewtransform.h"

namespace {

// Projection: the box, then p -> zoom * (p - delta).
void loadtransform(const ORTHO& box, std::complex<double> zoom, std::complex<double> delta) {
  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  glOrtho(box.left, box.right, box.bottom, box.top, 0, 1);
  GLdouble m[16];
  viewmatrix(zoom, delta, m);
  glMultMatrixd(m);
}

void senduniforms(const COLORSCHEME* cs, VIEWPORT* v, int w, int h, std::complex<float> d,
                  std::complex<double> deltaabs, std::complex<double> zoom) {
  Colorscheme* scheme = cs->shader;
  bool send = changeuniform || cs->positiondependent || !scheme->builtin;
  if (!send) return;
  changeuniform = false;
  Uniforms u{};
  std::complex<double> p = lowerleft(deltaabs, w, h, d);
  u.p.x = static_cast<float>(p.real());
  u.p.y = static_cast<float>(p.imag());
  u.d.x = d.real();
  u.d.y = d.imag();
  u.globalcorrection = static_cast<float>(std::abs(zoom));
  REALM* realm = v->realm;
  if (realm && realm->type == JULIA && realm->info.c) {
    u.julia = true;
    u.j.x = static_cast<float>(mpf_get_d(realm->info.c->v[0]));
    u.j.y = static_cast<float>(mpf_get_d(realm->info.c->v[1]));
  }
  params.time = static_cast<float>(_curtime);
  loadParams(scheme->prog, &u, &params, scheme);
}

}  // namespace

namespace {

// Room for the longest trace, made once.
std::vector<std::complex<double>>& overlaypoints() {
  static std::vector<std::complex<double>> points;
  size_t want = static_cast<size_t>(std::max(1, NTRACE));
  if (points.size() < want) points.resize(want);
  return points;
}

}  // namespace

// The unit of the tile of `channel`, the i-th of its rectangle: the sampler
// the scheme's program reads it from, 2 plus the scheme's channels below it,
// as the uniforms assign them; a channel the scheme doesn't read is not bound
// (-1). Without a scheme the rectangle's packing decides.
int tileunit(const COLORSCHEME* scheme, int channel, int i) {
  if (!scheme) return 2 + i;
  if (!(scheme->channels & (1 << channel))) return -1;
  int unit = 2;
  for (int bit = 0; bit < channel; bit++)
    if (scheme->channels & (1 << bit)) unit++;
  return unit;
}

bool compiledisplaylist(VIEWPORT* viewport, int list, GLuint* texture) {
  int v = viewport->nav_viewportid;
  if (oldlist[v] == list) return false;
  const COLORSCHEME* scheme = viewport->schemes[list];
  glNewList(displaylist[v], GL_COMPILE);
  unsigned int n = viewport->idrawrect[list];
  for (unsigned int k = 0; k < n; k++) {
    const DRAWRECT& dr = viewport->drawrect[list][k];
    for (int i = 0; i < dr.ichannels; i++) {
      int unit = tileunit(scheme, dr.channel[i], i);
      if (unit < 0) continue;
      bindtile(unit, texture[dr.texture[i]->texture]);
    }
    renderdrawrect(dr);
  }
  glEndList();
  oldlist[v] = list;
  return true;
}

void renderdisplaylist(OVCONTEXT*, VIEWPORT* viewport, int list, GLuint* texture) {
  // A new list is drawn at once as well: a frame that only compiled would
  // be swapped to the screen cleared, a black flash at every new list.
  hardframe = compiledisplaylist(viewport, list, texture);
  glCallList(displaylist[viewport->nav_viewportid]);
}

namespace {

// What a view's last drawn frame showed. A frame that would show the same
// again is not drawn: the picture on the screen stands, and the processor
// is left to the engine (and to a software renderer, the whole cost of a
// frame).
struct SHOWN {
  bool valid;
  int list;
  const COLORSCHEME* cs;
  int x, y, w, h;
  complexd delta, zoom, deltaabs, zoomabs;
};
SHOWN shown[2];

bool sameframe(const SHOWN& a, const SHOWN& b) {
  return a.valid && b.valid && a.list == b.list && a.cs == b.cs && a.x == b.x && a.y == b.y && a.w == b.w &&
         a.h == b.h && a.delta == b.delta && a.zoom == b.zoom && a.deltaabs == b.deltaabs &&
         a.zoomabs == b.zoomabs;
}

}  // namespace

bool drawviewport(OVCONTEXT* context, VIEWPORT* v, int vid, double time, int x, int y, int w, int h,
                  GLuint* texture, bool force) {
  complexd delta, zoom, delta2, zoom2, deltaabs, zoomabs;
  COLORSCHEME* cs = nullptr;
  int list = getactivelist(context, v, time, &delta, &zoom, &delta2, &zoom2, &deltaabs, &zoomabs, &cs,
                           nullptr, 0, nullptr, nullptr);
  SHOWN now{true, list, cs, x, y, w, h, delta, zoom, deltaabs, zoomabs};
  SHOWN& last = shown[vid & 1];
  bool changing = changeuniform || overlayshown(v) || (cs && cs->timedependent) || picturepending(vid);
  if (!force && !changing && sameframe(now, last)) {
    if (list >= 0) unlocklist(context, v);
    hardframe = false;
    return false;
  }
  last = now;
  framehadtiles = false;
  hardframe = false;

  glScissor(x, height - y - h, w, h);
  glViewport(x, height - y - h, w, h);
  glClearColor(0, 0, 0, 0);
  glClear(GL_COLOR_BUFFER_BIT);
  if (list >= 0 && cs && cs->shader && cs->shader->prog) {
    std::vector<std::complex<double>>& points = overlaypoints();
    int npoints = gatheroverlay(context, v, vid, points.data(), static_cast<int>(points.size()));
    std::complex<double> iz = 1.0 / std::complex<double>(zoomabs);
    std::complex<float> d;
    ORTHO box = aspectbox(w, h, iz, &d);
    loadtransform(box, zoom, delta);
    glUseProgram(cs->shader->prog);
    bool palette = changeuniform;
    int before = oldlist[v->nav_viewportid];
    senduniforms(cs, v, w, h, d, deltaabs, zoom);
    if (drawpicture(v, vid, list, delta, zoom, deltaabs, zoomabs, cs, palette || cs->timedependent, x, y, w, h,
                    texture)) {
      hardframe = oldlist[v->nav_viewportid] != before;
    } else {
      renderdisplaylist(context, v, list, texture);
    }
    framehadtiles = true;
    if (overlayshown(v)) drawoverlay(points.data(), npoints, box, zoom2, delta2, time);
  }
  // A list taken is given back even when nothing could be drawn from it.
  if (list >= 0) unlocklist(context, v);
  glScissor(0, 0, width, height);
  glViewport(0, 0, width, height);
  return true;
}
