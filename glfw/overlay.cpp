// What is drawn over a view: the orbit of a point (the trace) as lines and
// round points, or the marked point of the Julia constant. The points are
// gathered in the screen of the engine's newest coordinate step and drawn
// under the navigator's share of the transform, so they stay attached to the
// present picture.
#include <algorithm>
#include <cmath>

#include "app.h"
#include "viewtransform.h"

int gatheroverlay(OVCONTEXT* context, VIEWPORT* v, int vid, std::complex<double>* out, int max) {
  int n = 0;
  if (tracemode) {
    AREA* top = v->realm ? v->realm->top : nullptr;
    if (!top || !top->hpvalue) return 0;
    // The orbit runs in doubles; the engine places each point relative to
    // the tree's top, exactly.
    std::complex<double> origin(mpf_get_d(top->hpvalue->v[0]), mpf_get_d(top->hpvalue->v[1]));
    std::complex<double> z = tracez[vid], c = tracec[vid];
    for (; n < max && n < NTRACE; n++) {
      if (std::norm(z) > 10) break;
      out[n] = cdHF(translatepoint(context, v, cHFd(z - origin)));
      z = z * z + c;
    }
  } else if (displayjuliapoint && v->realm && v->realm->type == GENERAL && max > 0) {
    out[n++] = cdHF(getmarkedpoint(context, v, 1));
  }
  return n;
}

bool overlayshown(const VIEWPORT* v) {
  return tracemode || (juliamode == 1 && v->realm && v->realm->type == GENERAL);
}

namespace {

// While a new trace fades in (half a second up to `tracetime`), its points
// appear along the orbit; afterwards all are full.
float fade(int k, int n, double time) {
  if (!tracemode || time >= tracetime) return 1.0f;
  double progress = 1.0 - (tracetime - time) / 0.5;
  return static_cast<float>(std::clamp(progress * n - k, 0.0, 1.0));
}

}  // namespace

void drawoverlay(const std::complex<double>* points, int n, const ORTHO& box, std::complex<double> zoom2,
                 std::complex<double> delta2, double time) {
  if (n <= 0) return;
  glUseProgram(progpointsmooth);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  glOrtho(box.left, box.right, box.bottom, box.top, 0, 1);
  GLdouble m[16];
  viewmatrix(zoom2, delta2, m);
  glMultMatrixd(m);

  // Lines: a red of 0 asks the program for plain fragments.
  glLineWidth(std::max(1.0f, static_cast<float>(height) / 540.0f));
  glBegin(GL_LINES);
  for (int k = 1; k < n; k++) {
    glColor4f(0.0f, 1.0f, 1.0f, fade(k, n, time));
    glVertex2d(points[k - 1].real(), points[k - 1].imag());
    glVertex2d(points[k].real(), points[k].imag());
  }
  glEnd();

  glPointSize(static_cast<float>(pointsize));
  beginpoints();
  glBegin(GL_POINTS);
  for (int k = 0; k < n; k++) {
    glColor4f(1.0f, 1.0f, 1.0f, fade(k, n, time));
    glVertex2d(points[k].real(), points[k].imag());
  }
  glEnd();
  endpoints();
  glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE, GL_ZERO);
}
