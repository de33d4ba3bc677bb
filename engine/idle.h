// idle.h: the idle search of a view and the environments' scan after a move.
//
// When a general view stops moving, the exact orbit of its centre is iterated
// at full precision on the idle graph. Along it: candidates for periodic
// references (refined by Newton in the background and accepted into
// `echain`), the Julia stack levels the orbit's series can define, and at the
// end the view's standard environment `enonsat`. After a move `envloop`
// picks the best known environment for the new position.
//
// Threads. Everything here runs on the main thread except `idlestep`, which
// the idle graph's cores call in strict iteration order on any worker; it
// reads the view, writes the standard environment's arrays (through the
// cores) and the `idle_*` counters, and publishes by posting messages.
#pragma once

#include "Mandelbrot.h"

// A run whose budget is "unbounded" (0x3FFFFFFF and above) ends after this
// many iterations: enough for the depth of the view.
ITER idlebudget(const VIEWPORT* viewport);

void idlestart(OVCONTEXT* context, VIEWPORT* viewport);
void idlestop(OVCONTEXT* context, VIEWPORT* viewport);
// One round's bookkeeping: x, y is z_iter, dx, dy its derivative in c; tj, tm
// the series of the round before, ntj, ntm those of this round.
void idlestep(VIEWPORT* viewport, ITER iter, HFLOAT a, mpf_srcptr x, mpf_srcptr y, mpf_srcptr dx,
              mpf_srcptr dy, const HFLOATCOMPLEX* tj, const HFLOATCOMPLEX* ntj,
              const HFLOATCOMPLEX* tm, const HFLOATCOMPLEX* ntm);
void __idleendcompute(COMPUTERGROUP* group);
void worker_idlefinish(OVCONTEXT* context, WORKER* worker);
void idlejulia(OVCONTEXT* context, VIEWPORT* viewport);
// The idle run of a Julia realm's view, on a worker: pdata[0] the view,
// idata[0] the view's depth, idata[1] the budget.
void worker_idlejulia(OVCONTEXT* context, WORKER* worker);

// Stack data found by `idlestep`: pdata[0] the view, idata[0..1] the levels
// lo..hi-1.
void worker_env_julia(OVCONTEXT* context, WORKER* worker);
void worker_env_julia2(OVCONTEXT* context, WORKER* worker);
void worker_env_julia_bypass(OVCONTEXT* context, WORKER* worker);

// A candidate: pdata[0] the view, pdata[1] the candidate's point (IDLECANDIDATE),
// idata[0] its period, idata[1] the Newton task's expected units.
void worker_env_investigate(OVCONTEXT* context, WORKER* worker);

// Does a periodic environment iterated directly (`E_PERIODIC` without
// `E_SERIES`) hold the whole view of scale `zoom` at (x, y) inside an
// attracting component of its own period, so far from the component's
// boundary that every point of the view's areas, also as the canvases'
// formats round it, is interior of that period? Such an environment serves
// the view whatever its series says: direct iteration there loses only
// digits that change nothing, and its canvases prove every corner interior.
// Defined with the environments' checks (envcheck.cpp); any thread.
bool environmentholdsview(const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y, HFLOATCOMPLEX zoom);
// The same test of the component alone, for an environment with a series
// as well: one whose series does not reach the view can serve it without.
bool atomholdsview(const ENVIRONMENT* e, mpf_srcptr x, mpf_srcptr y, HFLOATCOMPLEX zoom);

// The environments' scan (movingstart is declared in viewport.h).
void envloop(OVCONTEXT* context, VIEWPORT* viewport);
void investigateenvironment(OVCONTEXT* context, VIEWPORT* viewport, ENVIRONMENT* e,
                            ITERINFO* info, int prec);
void movingfinish(OVCONTEXT* context, VIEWPORT* viewport);
// The view's run against e on a worker at priority 3; back on the main thread
// it goes on in `investigateenvironment`.
void worker_calciterenvironmentex(OVCONTEXT* context, WORKER* worker);

// The Julia stack levels one round k of an orbit defines by its series in
// the start deviation (`ntj`, of z_k) and in the parameter (`ntm`), z the
// round's z_k: levels [bypasslo, bypasshi) by the bypass from this round's
// series, the radius of levels [radiuslo, radiushi) from `radius` (|tm1| /
// |tj1|), levels [plainlo, plainhi) from the series of round k - 1 (up to
// the bypass levels, when the round gives any, so that none lies between
// the two kinds). The counters of levels defined so far (`jst` radius,
// `jst1` plain, `jst0` bypass) move past each range, so that a range is
// given once. `bypass`:
// the realm allows bypass levels; `js` the size of a level's side.
struct JULIASTACKRANGES {
  int bypasslo, bypasshi;
  int radiuslo, radiushi;
  HFLOAT radius;
  int plainlo, plainhi;
};
JULIASTACKRANGES juliastackranges(double js, int njuliastack, bool bypass, ITER iter, HFLOATCOMPLEX z,
                                  const HFLOATCOMPLEX* ntj, const HFLOATCOMPLEX* ntm, int* jst,
                                  int* jst1, int* jst0);
// The cubic of a bypass level defined at round k, in the level's start point
// d: the series `ntj` is in the deviation of z_1, which a start point d makes
// d^2, so z_k(d) = z_k + t1 d^2 up to terms the level's range leaves out.
void juliabypasscubic(HFLOATCOMPLEX z, const HFLOATCOMPLEX* ntj, HFLOATCOMPLEX* t);
// The parameter radius within which level s stays valid, for the ratio
// |tm1| / |tj1| of the round that defined it.
HFLOAT juliastackradius(double js, HFLOAT ratio, int s);
// `neededjuliastack` for a seed's run: the number of levels whose square is
// still wider than the seed's distance to its Julia set (`distj`, kept
// squared, for an escaping seed; `dj` for a cycle), 2 when none is known.
int juliastackneeded(const ITERINFO* info);

// Internal to the idle files.
void idlestartjulia(OVCONTEXT* context, VIEWPORT* viewport);
void idlefinishjulia(OVCONTEXT* context, VIEWPORT* viewport);
// The series depth the view's standard environment gives a Julia view now;
// negative when it no longer serves.
int juliastandardprec(const VIEWPORT* viewport, const ENVIRONMENT* e);
struct IDLECANDIDATE {
  mpf_t c[2];
};
// Installs the idle search's handlers into the graphs' hooks.
void idleinstallhooks();
// One activity of the run (the orbit or a Newton candidate) has ended.
void idleactivityended(OVCONTEXT* context, VIEWPORT* viewport);
// A paused orbit goes on (or ends, when stopped) unless a candidate still
// holds it.
void idleresume(OVCONTEXT* context, VIEWPORT* viewport);
// A Newton candidate's activity has ended, accepted or not.
void idlenewtonended(OVCONTEXT* context, VIEWPORT* viewport);
// Puts a message back on the view's `movemsg`, to run when the move ends.
void parkonmove(VIEWPORT* viewport, WORKER* worker);
// Inserts e into `echain` by period; the chain takes over the caller's
// reference.
void insertenvironment(VIEWPORT* viewport, ENVIRONMENT* e);
