// The Newton graph: one pass iterates the candidate's orbit z_0 .. z_n with
// dz/dc, stores it in the environment and multiplies up the cycle's
// multiplier; at the pass's end the main thread moves c by z_n / dz_n and
// starts the next pass, until the step is below 2^-52 of the atom's size.
//
// The working precision starts low and rises with the atom's depth, without
// reallocation: the group is made at the environment's precision and only
// its raw precision moves, and it is brought back before the group goes.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>

#include "Mandelbrot.h"
#include "canvas/series.h"
#include "computer_internal.h"
#include "newton.h"
#include "refiter.h"

using namespace computerdetail;

NEWTONSTOPPROC newtonstophook = nullptr;
NEWTONENDPROC newtonendhook = nullptr;

namespace {

constexpr ITER CHECKPOINTSPAN = 65536;
// Inputs of a Newton core.
enum { NC_X2, NC_Y2, NC_X, NC_Y, NC_PREV };

ENVIRONMENT* environmentof(COMPUTERGROUP* g) { return static_cast<ENVIRONMENT*>(g->pdata[0]); }

}  // namespace

// Stores z_k (k the count of the cores before) and multiplies it into the
// multiplier, except z_0 = 0 and z_n, which is about 0 at a nucleus: the
// product over 1..n-1 is the cycle's multiplier.
COMPUTER* __newtonitercore(COMPUTER* c) {
  COMPUTERGROUP* g = c->computergroup;
  ENVIRONMENT* e = environmentof(g);
  COMPUTER* prev = c->input[NC_PREV];
  ITER k = prev->idata[0];
  c->idata[0] = k + 1;
  mpf_srcptr x = in(c, NC_X);
  mpf_srcptr y = in(c, NC_Y);
  mpf_ui_sub(c->data, 4, in(c, NC_X2));
  mpf_sub(c->data, c->data, in(c, NC_Y2));
  HFLOATCOMPLEX z = hfz(x, y);
  if (e->refdatah && e->refdatad && k < e->nrefdata) {
    e->refdatah[k].value = z;
    e->refdatah[k].a = mpf_get_HF(c->data);
    e->refdatad[k].value = complexd(mpf_get_d(x), mpf_get_d(y));
    e->refdatad[k].a = mpf_get_d(c->data);
  }
  if (k > 0 && k % CHECKPOINTSPAN == 0) {
    int m = k / CHECKPOINTSPAN - 1;
    if (m < e->nhpv && e->hpv[m]) {
      mpf_set(e->hpv[m]->v[0], x);
      mpf_set(e->hpv[m]->v[1], y);
    }
  }
  if (k == 0 || static_cast<UITER>(k) >= e->n)
    c->hdata[0] = prev->hdata[0];
  else
    c->hdata[0] = cmulHF(prev->hdata[0], cldexpHF(z, 1));
  return finishcomputer(c);
}

namespace {

// h: x, y, dx, dy, core.
void newtonround(COMPUTERGROUP* g, COMPUTER** h, bool last, bool split) {
  COMPUTER *x = h[0], *y = h[1], *dx = h[2], *dy = h[3];
  COMPUTER* x2 = split ? splitsqr(g, x) : standardcomputer(g, __sqrcomputer, x);
  COMPUTER* y2 = split ? splitsqr(g, y) : standardcomputer(g, __sqrcomputer, y);
  if (!last) {
    COMPUTER *yn, *a, *b, *p, *q;
    COMPUTER* xn = standardcomputer(g, __realitercomputer, x2, y2);
    if (split) {
      yn = standardcomputer(g, __imagitercomputer, splitmul(g, x, y));
      a = splitmul(g, x, dx);
      b = splitmul(g, y, dy);
      p = splitmul(g, x, dy);
      q = splitmul(g, y, dx);
    } else {
      yn = standardcomputer(g, __imagitercomputer2, x, y);
      a = standardcomputer(g, __mulcomputer, x, dx);
      b = standardcomputer(g, __mulcomputer, y, dy);
      p = standardcomputer(g, __mulcomputer, x, dy);
      q = standardcomputer(g, __mulcomputer, y, dx);
    }
    h[0] = xn;
    h[1] = yn;
    h[2] = standardcomputer(g, __drealitercomputer, a, b);
    h[3] = standardcomputer(g, __dimagitercomputer, p, q);
  }
  h[4] = standardcomputer(g, __newtonitercore, x2, y2, x, y, h[4]);
}

int newtonnodes(int rounds, bool haslast, bool split) {
  int full = split ? NCOMPUTERROUND_NEWTONSPLIT : NCOMPUTERROUND_NEWTON;
  int last = split ? NCOMPUTERROUND_NEWTONLASTSPLIT : NCOMPUTERROUND_NEWTONLAST;
  return NCOMPUTERHEAD_NEWTON + (rounds - (haslast ? 1 : 0)) * full + (haslast ? last : 0) +
         NCOMPUTERTAIL_NEWTON;
}

bool issplit(COMPUTERGROUP* g) { return g->width == COMPUTERWIDTH_NEWTONSPLIT; }

// The binary exponent of an mpf number as frexp gives it; far below
// everything for 0.
long exponentof(mpf_srcptr v) {
  if (mpf_sgn(v) == 0) return LONG_MIN / 2;
  long e;
  mpf_get_d_2exp(&e, v);
  return e;
}

int exponentof(HFLOAT v) {
  if (v.mantissa == 0) return INT_MIN / 2;
  return ilogbHF(v) + 1;
}

void restoreprecision(COMPUTERGROUP* g, ENVIRONMENT* e) {
  if (g->prec == e->precision) return;
  g->prec = e->precision;
  computergroupsetrawprecision(g);
}

void giveup(OVCONTEXT* context, COMPUTERGROUP* g, ENVIRONMENT* e) {
  restoreprecision(g, e);
  freecomputergroup(g);
  if (newtonendhook) newtonendhook(context, e, false);
  __removetask(context, e->task);
  e->task = nullptr;
  detache(context, e);
}

void converged(OVCONTEXT* context, COMPUTERGROUP* g, ENVIRONMENT* e) {
  WORKER* w = addworker(context, THREAD_WORKER, worker_calctaylorenvironment);
  if (!w) {
    giveup(context, g, e);
    return;
  }
  restoreprecision(g, e);
  freecomputergroup(g);
  if (newtonendhook) newtonendhook(context, e, true);
  w->pdata[0] = e;
  w->prio = 0;
  dispatch(context, w);
}

// The task's expected units: passes still to come, each of n / 512 stretches.
void setdue(ENVIRONMENT* e, COMPUTERGROUP* g, HFLOATCOMPLEX dvld, int L) {
  long D = 52 - L - exponentof(cabsHF(dvld));
  if (D < 1) D = 1;
  long E = std::max(exponentof(g->data[2]), exponentof(g->data[3]));
  if (E < -1) D = 2 * D / (-E);
  int lg = D > 0 ? static_cast<int>(std::ilogb(static_cast<double>(D))) : 0;
  e->due = (lg + e->timesrun + 1) * static_cast<int>(e->n >> 9);
  if (e->task) atomicstore(&e->task->due, e->due);
}

}  // namespace

bool newtonatomworthhaving(HFLOAT tmpr2) {
  return subHF(tmpr2, HFd(NEWTONMAXTMPR2)).mantissa <= 0;
}

void newtoniter(COMPUTERGROUP* group, COMPUTER** handles, bool last) {
  newtonround(group, handles, last, false);
}

void newtoniterclamp(COMPUTERGROUP* group, COMPUTER** handles, bool last) {
  newtonround(group, handles, last, true);
}

void setupnewtoncomputergroup(OVCONTEXT* context, COMPUTERGROUP* group, bool split) {
  ENVIRONMENT* e = environmentof(group);
  int width = stretchwidth(context, group, split ? COMPUTERWIDTH_NEWTONSPLIT : COMPUTERWIDTH_NEWTON);
  ITER start = group->idata[1];
  int64_t left = static_cast<int64_t>(e->n) + 1 - start;
  int rounds = static_cast<int>(std::min<int64_t>(left, NCOMPUTERSTRETCH));
  bool haslast = left <= NCOMPUTERSTRETCH;
  int nodes = newtonnodes(rounds, haslast, split);
  group->context = context;
  bool reuse = group->endcompute && group->width == width && group->icomputer == nodes;
  group->width = width;
  group->endcompute = __newtonendcompute;
  lendwidth(context, group, width);
  if (rounds < 1) {
    // A pass that has nothing left to iterate cannot step: the run ends.
    atomicstore(&group->stop, 1);
    atomicstore(&group->activecomputer, 0);
    group->icomputer = 0;
    postend(group);
    return;
  }
  if (!checkstore(group, nodes)) return;
  if (reuse) {
    rearm(group, nodes);
  } else {
    group->icomputer = 0;
    group->activecomputer = 0;
    COMPUTER* h[NCOMPUTERHEAD_NEWTON];
    for (COMPUTER*& c : h) c = headcomputer(group);
    for (int r = 0; r < rounds; r++) newtonround(group, h, haslast && r == rounds - 1, split);
    for (int k = 0; k < 4; k++) standardcomputerd(group, __output, 2 + k, h[k]);
    standardcomputerd(group, __houtput, 0, h[4]);
  }
  group->idata[1] = start + rounds;
  for (int k = 0; k < 4; k++) mpf_set(group->computer[k].data, group->data[2 + k]);
  group->computer[4].idata[0] = start;
  group->computer[4].hdata[0] = group->hdata[0][0];
  startstretch(context, group, NCOMPUTERHEAD_NEWTON);
}

void __newtonendcompute(COMPUTERGROUP* group) {
  OVCONTEXT* context = group->context;
  ENVIRONMENT* e = environmentof(group);
  accomplish(e->task, 1, false);
  if (newtonstophook && newtonstophook(e)) return giveup(context, group, e);
  if (static_cast<int64_t>(group->idata[1]) != static_cast<int64_t>(e->n) + 1) {
    // A stop between the stretches of a pass ends the run: a pass cut short
    // has no step to take.
    if (atomicload(&group->stop)) return giveup(context, group, e);
    setupnewtoncomputergroup(context, group, issplit(group));
    return;
  }
  HFLOATCOMPLEX dvld = hfz(group->data[4], group->data[5]);
  HFLOATCOMPLEX r = cmulHF(group->hdata[0][0], dvld);
  HFLOAT ar = cabsHF(r);
  e->tmpr2 = ar.mantissa == 0 ? HFLOAT_MAX : divHF(FOURH, ar);
  e->timesrun++;
  int L = ilogbHF(e->tmpr2);
  int tol = L - 52;
  setdue(e, group, dvld, L);
  // The step: z_n / dz_n into data[0..1], where c is no longer read.
  mpf_t d[4];
  for (mpf_t& v : d) mpf_init2(v, group->prec);
  bool ok = divide(&group->data[0], &group->data[2], &group->data[4], d);
  for (mpf_t& v : d) mpf_clear(v);
  if (!ok) return giveup(context, group, e);
  mpf_sub(e->c->v[0], e->c->v[0], group->data[0]);
  mpf_sub(e->c->v[1], e->c->v[1], group->data[1]);
  long exp1 = exponentof(group->data[0]);
  long exp2 = exponentof(group->data[1]);
  if (mpf_sgn(group->data[0]) == 0 && mpf_sgn(group->data[1]) == 0)
    return converged(context, group, e);
  // Bits to resolve the tolerance, up to what the group was made with.
  int64_t need = 32 - static_cast<int64_t>(tol);
  if (need >= static_cast<int64_t>(group->prec)) {
    group->prec = std::min<mp_bitcnt_t>(static_cast<mp_bitcnt_t>(need), e->precision);
    computergroupsetrawprecision(group);
  }
  if (!newtonatomworthhaving(e->tmpr2)) return giveup(context, group, e);
  ITER steps = group->idata[2];
  group->idata[2] = steps - 1;
  if (steps <= 0 || atomicload(&group->stop)) return giveup(context, group, e);
  if (exp1 > tol || exp2 > tol) {
    mpf_set(group->data[0], e->c->v[0]);
    mpf_set(group->data[1], e->c->v[1]);
    for (int k = 2; k < 6; k++) mpf_set_ui(group->data[k], 0);
    group->idata[1] = 0;
    group->hdata[0][0] = CONEH;
    group->endcompute = nullptr;
    setupnewtoncomputergroup(context, group, issplit(group));
    return;
  }
  converged(context, group, e);
}
