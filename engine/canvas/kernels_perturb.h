// canvas/kernels_perturb.h: the perturbation step shared by the kernels that
// follow a difference delta to a reference orbit X, for the Mandelbrot and
// the Julia recurrence, and the walk along a vertex's stored orbit. Private
// to the kernel files.
#pragma once

#include "canvas/kernels.h"
#include "canvas/kernelsupport.h"

namespace canvaskernels {

// What one step found.
constexpr int STEP_ON = 0;
constexpr int STEP_ESCAPED = 1;   // X_{n+1} + delta' left the radius: keep the old state
constexpr int STEP_PRECISION = 2; // rounding noise no longer small against a grid step
constexpr int STEP_TRAPPED = 3;   // Julia: fell into the attractor trap

// The constants of one kernel call.
template <typename T>
struct KERNELCONST {
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  typedef canvasmodel::NUM<FLOAT> N;
  FLOAT B;        // the derivative bound
  COMPLEX DC;     // the derivative's constant term (0 for Julia)
  FLOAT Zfactor;
  FLOAT four;
  FLOAT near4;
  bool trap;
  COMPLEX trapcentre;
  FLOAT trapradius;  // r * r / 4, against |z - t|^2

  KERNELCONST(const typename T::CANVAS* canvas, bool forced, bool julia) {
    B = forced ? N::max() : canvas->dbound;
    DC = julia ? N::czero() : N::creal(N::fromHF(canvas->dfactor));
    Zfactor = canvas->Zfactor;
    four = N::fromd(4.0);
    near4 = nearfour<T>();
    trap = false;
    trapcentre = N::czero();
    trapradius = N::zero();
    const WORKER* w = canvas->__worker;
    if (julia && w && w->idata[JOB_ATTRACTOR] < 0) {
      trap = true;
      trapcentre = N::cfromHF(w->hdata[JOB_TRAPCENTRE]);
      FLOAT r = N::fromHF(crealHF(w->hdata[JOB_TRAPRADIUS]));
      trapradius = N::mul(N::mul(r, r), N::fromd(0.25));
    }
  }

  // |d|^2 > max(L, B)
  bool pastbound(COMPLEX d, FLOAT L) const {
    FLOAT bound = N::less(L, B) ? B : L;
    return N::less(bound, N::abss(d));
  }
  bool trapped(COMPLEX z) const { return trap && N::less(N::abss(N::csub(z, trapcentre)), trapradius); }
};

// The state of a difference orbit at iteration n: delta, its square carried
// from the step that made it, z = X_n + delta with L = |z|^2, d and Z.
template <typename T>
struct PERTURB {
  typedef typename T::FLOAT FLOAT;
  typedef typename T::COMPLEX COMPLEX;
  COMPLEX delta;
  COMPLEX dsq;
  COMPLEX z;
  COMPLEX d;
  FLOAT L;
  FLOAT Z;

  void start(COMPLEX X, COMPLEX delta0, COMPLEX d0, FLOAT Z0) {
    typedef canvasmodel::NUM<FLOAT> N;
    delta = delta0;
    FLOAT len;
    dsq = csqrlen<T>(delta0, &len);
    z = N::cadd(X, delta0);
    L = N::abss(z);
    d = d0;
    Z = Z0;
  }

  // One iteration from sample X_n to X_{n+1} (margin a1) into `next`:
  // delta' = 2 X delta + delta^2 (+ dc), d' = 2 z d (+ D), Z' = 4 L Z + |delta'|^2.
  template <bool JULIA>
  int step(const KERNELCONST<T>& k, COMPLEX X, COMPLEX X1, FLOAT a1, COMPLEX dc,
           bool testprecision, PERTURB* next) const {
    typedef canvasmodel::NUM<FLOAT> N;
    COMPLEX delta1 = N::cadd(N::cmul(N::ctwice(X), delta), dsq);
    COMPLEX d1 = N::cmul(N::ctwice(z), d);
    if constexpr (!JULIA) {
      delta1 = N::cadd(delta1, dc);
      d1 = N::cadd(d1, k.DC);
    }
    FLOAT dl;
    COMPLEX dsq1 = csqrlen<T>(delta1, &dl);
    COMPLEX z1 = N::cadd(X1, delta1);
    FLOAT L1 = N::abss(z1);
    if (N::less(k.near4, L1) && exactescape<T>(X1, a1, delta1, dl)) return STEP_ESCAPED;
    next->delta = delta1;
    next->dsq = dsq1;
    next->z = z1;
    next->d = d1;
    next->L = L1;
    next->Z = N::add(N::mul(N::mul(k.four, L), Z), dl);
    if constexpr (JULIA) {
      if (k.trapped(z1)) return STEP_TRAPPED;
    }
    if (testprecision && N::less(N::mul(N::abss(d1), k.Zfactor), next->Z)) return STEP_PRECISION;
    return STEP_ON;
  }
};

// A walk along the stored orbit of a reference vertex, block by block.
template <typename T>
struct ORBITCURSOR {
  typename T::CANVAS* canvas;
  int block;
  int k;

  // Places the cursor on sample n, starting from block `from`; false when
  // the orbit's blocks do not reach it.
  bool seek(typename T::CANVAS* c, int from, UITER n) {
    canvas = c;
    block = from;
    while (block != -1 &&
           static_cast<long>(n) > static_cast<long>(canvas->data[block].iter) + CDATAGRAN - 1)
      block = canvas->data[block].next;
    if (block == -1 || static_cast<long>(n) < static_cast<long>(canvas->data[block].iter))
      return false;
    k = static_cast<int>(n - canvas->data[block].iter);
    return true;
  }
  typename T::COMPLEX X() const { return canvas->data[block].value[k]; }
  typename T::FLOAT a() const { return canvas->data[block].a[k]; }
  // To the next sample; where the blocks run out the last one stays.
  void advance() {
    if (k < CDATAGRAN - 1) {
      k++;
    } else if (canvas->data[block].next != -1) {
      block = canvas->data[block].next;
      k = 0;
    }
  }
};

}  // namespace canvaskernels

namespace canvaskernels {

// The answer to a failed precision test (kernels_ref.cpp): -1 to carry on.
template <typename T, bool JULIA>
int precisionfailure(OVCONTEXT* context, typename T::CANVAS* canvas, int x, int y, int self,
                     typename T::CVALUE* cvalue, ITER maxiter, int* ii, bool forced, int idepth,
                     CHPVALUE* h, UITER n, typename T::COMPLEX z, typename T::COMPLEX d);

}  // namespace canvaskernels
