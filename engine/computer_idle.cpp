// The idle graph: the exact orbit of a view's centre with its derivative,
// and beside it two series in HFLOAT, of z_k in a start deviation dz and in a
// parameter deviation dc. The cores form a chain, so the orbit is stored and
// handed to the viewport in iteration order while the long products of later
// rounds already run ahead.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Mandelbrot.h"
#include "canvas/series.h"
#include "computer_internal.h"
#include "refiter.h"

using namespace computerdetail;

IDLESTEPPROC idlestephook = nullptr;

namespace {

constexpr int T = NTAYLORDEGREE;
constexpr ITER CHECKPOINTSPAN = 65536;
// Inputs of an idle core.
enum { IC_X2, IC_Y2, IC_X, IC_Y, IC_DX, IC_DY, IC_TJ, IC_NTJ, IC_TM, IC_NTM, IC_PREV };

// T^2 + 2 z T into c, z the round's incoming point.
void seriesstep(COMPUTER* c) {
  const HFLOATCOMPLEX* t = c->input[0]->hdata;
  HFLOATCOMPLEX z2 = cldexpHF(hfz(in(c, 1), in(c, 2)), 1);
  HFLOATCOMPLEX sq[T], lin[T];
  sqrtaylor_hfloat(sq, t, T);
  multaylorconst_hfloat(lin, t, z2, T);
  addtaylor_hfloat(c->hdata, sq, lin, T);
}

ENVIRONMENT* standardof(COMPUTERGROUP* g) {
  return static_cast<ENVIRONMENT*>(g->pdata[COMPUTER_IDLESTANDARD]);
}

// z_(iter-1), the round's incoming point, with its margin a, and the
// checkpoint of z_iter where one is due.
void storeorbit(COMPUTER* c, ENVIRONMENT* e, ITER iter, HFLOAT a) {
  ITER k = iter - 1;
  mpf_srcptr x = c->input[IC_X2]->input[0]->data;
  mpf_srcptr y = c->input[IC_Y2]->input[0]->data;
  if (e->refdatah && e->refdatad && k < e->nrefdata) {
    e->refdatah[k].value = hfz(x, y);
    e->refdatah[k].a = a;
    e->refdatad[k].value = complexd(mpf_get_d(x), mpf_get_d(y));
    e->refdatad[k].a = mpf_get_d(c->data);
  }
  if (iter % CHECKPOINTSPAN == 0) {
    int m = iter / CHECKPOINTSPAN - 1;
    if (m < e->nhpv && e->hpv[m]) {
      mpf_set(e->hpv[m]->v[0], in(c, IC_X));
      mpf_set(e->hpv[m]->v[1], in(c, IC_Y));
    }
  }
}

// The orbit has left the disc of radius sqrt 5: what is left of the
// environment's record are the two distances of its point.
void escaped(COMPUTER* c, ENVIRONMENT* e) {
  HFLOATCOMPLEX z = hfz(in(c, IC_X), in(c, IC_Y));
  HFLOATCOMPLEX dz = hfz(in(c, IC_DX), in(c, IC_DY));
  const HFLOATCOMPLEX* ntj = c->input[IC_NTJ]->hdata;
  HFLOAT dj = distjsquaredHF(z, ntj[1]);
  HFLOAT dm = distmsquaredHF(z, dz);
  e->flags |= E_ESCAPED;
  e->r2 = dj.mantissa == 0 ? ZEROH : sqrtHF(dj);
  e->r4 = dm.mantissa == 0 ? ZEROH : sqrtHF(dm);
}

}  // namespace

// ---------------------------------------------------------------- node kinds

// in0 = T, in1 = x, in2 = y: the series of z_k in dc one round on.
COMPUTER* __taylormstep(COMPUTER* c) {
  seriesstep(c);
  c->hdata[1] = caddHF(c->hdata[1], CONEH);
  return finishcomputer(c);
}

// in0 = T, in1 = x, in2 = y, in3 = the previous core: the series of z_k in a
// deviation dz of z_1, which the first round brings in.
COMPUTER* __taylorjstep(COMPUTER* c) {
  seriesstep(c);
  if (c->input[3]->idata[0] == 0) c->hdata[1] = caddHF(c->hdata[1], CONEH);
  return finishcomputer(c);
}

COMPUTER* __idlecore(COMPUTER* c) {
  COMPUTERGROUP* g = c->computergroup;
  ITER iter = c->input[IC_PREV]->idata[0] + 1;
  c->idata[0] = iter;
  if (atomicload(&g->stop)) return finishcomputer(c);
  mpf_ui_sub(c->data, 4, in(c, IC_X2));
  mpf_sub(c->data, c->data, in(c, IC_Y2));
  HFLOAT a = mpf_get_HF(c->data);
  ENVIRONMENT* e = standardof(g);
  if (mpf_cmp_si(c->data, -1) > 0) {
    if (e) storeorbit(c, e, iter, a);
    IDLESTEPPROC step = idlestephook;
    if (step)
      step(g, iter, a, in(c, IC_X), in(c, IC_Y), in(c, IC_DX), in(c, IC_DY),
           c->input[IC_TJ]->hdata, c->input[IC_NTJ]->hdata, c->input[IC_TM]->hdata,
           c->input[IC_NTM]->hdata);
  } else {
    atomicstore(&g->stop, 1);
    if (e) escaped(c, e);
  }
  return finishcomputer(c);
}

// ---------------------------------------------------------------- rounds

namespace {

// h: x, y, dx, dy, tj, tm, core.
void idleround(COMPUTERGROUP* g, COMPUTER** h, bool split) {
  COMPUTER *x = h[0], *y = h[1], *dx = h[2], *dy = h[3];
  COMPUTER *x2, *y2, *xn, *yn, *a, *b, *p, *q;
  if (split) {
    x2 = splitsqr(g, x);
    y2 = splitsqr(g, y);
    xn = standardcomputer(g, __realitercomputer, x2, y2);
    yn = standardcomputer(g, __imagitercomputer, splitmul(g, x, y));
    a = splitmul(g, x, dx);
    b = splitmul(g, y, dy);
    p = splitmul(g, x, dy);
    q = splitmul(g, y, dx);
  } else {
    x2 = standardcomputer(g, __sqrcomputer, x);
    y2 = standardcomputer(g, __sqrcomputer, y);
    xn = standardcomputer(g, __realitercomputer, x2, y2);
    yn = standardcomputer(g, __imagitercomputer2, x, y);
    a = standardcomputer(g, __mulcomputer, x, dx);
    b = standardcomputer(g, __mulcomputer, y, dy);
    p = standardcomputer(g, __mulcomputer, x, dy);
    q = standardcomputer(g, __mulcomputer, y, dx);
  }
  COMPUTER* dxn = standardcomputer(g, __drealitercomputer, a, b);
  COMPUTER* dyn = standardcomputer(g, __dimagitercomputer, p, q);
  COMPUTER* tm = standardcomputer(g, __taylormstep, h[5], x, y);
  COMPUTER* tj = standardcomputer(g, __taylorjstep, h[4], x, y, h[6]);
  h[6] = standardcomputer(g, __idlecore, x2, y2, xn, yn, dxn, dyn, h[4], tj, h[5], tm, h[6]);
  h[0] = xn;
  h[1] = yn;
  h[2] = dxn;
  h[3] = dyn;
  h[4] = tj;
  h[5] = tm;
}

int idlenodes(bool split) {
  return NCOMPUTERHEAD_IDLE +
         NCOMPUTERSTRETCH * (split ? NCOMPUTERROUND_IDLESPLIT : NCOMPUTERROUND_IDLE) +
         NCOMPUTERTAIL_IDLE;
}

// Room in the standard environment for the points and the checkpoint the
// stretch may reach. The arrays' bytes count against the memory budget.
bool makeroom(OVCONTEXT* context, COMPUTERGROUP* g, ENVIRONMENT* e) {
  ITER done = g->idata[1];
  if (static_cast<int64_t>(done) + 1024 >= e->nrefdata) {
    int64_t want = static_cast<int64_t>(e->nrefdata) + NIDLEREFDATA;
    if (want > 0x7FFFFFFF) want = 0x7FFFFFFF;
    size_t n = static_cast<size_t>(want);
    REFDATAH* h = static_cast<REFDATAH*>(realloc(e->refdatah, n * sizeof(REFDATAH)));
    if (h) e->refdatah = h;
    REFDATAD* d = h ? static_cast<REFDATAD*>(realloc(e->refdatad, n * sizeof(REFDATAD))) : nullptr;
    if (d) e->refdatad = d;
    if (!h || !d || want <= static_cast<int64_t>(done) + 1024) {
      fputs("setupidlecomputergroup: realloc failed.\n", stderr);
      return false;
    }
    __atomic_add_fetch(&context->mem_envrefdata,
                       (want - e->nrefdata) * int64_t(sizeof(REFDATAH) + sizeof(REFDATAD)),
                       __ATOMIC_SEQ_CST);
    e->nrefdata = static_cast<int>(want);
  }
  if (static_cast<int64_t>(done) + 1023 >= (static_cast<int64_t>(e->nhpv) + 1) * CHECKPOINTSPAN) {
    HPVALUE* v = e->nhpv < NENVHPV ? addhpv(context, e->precision) : nullptr;
    if (!v) {
      fputs("COMPUTER overflow.\n", stderr);
      return false;
    }
    e->hpv[e->nhpv++] = v;
  }
  return true;
}

}  // namespace

void idleiter(COMPUTERGROUP* group, COMPUTER** handles) { idleround(group, handles, false); }

void idleiterclamp(COMPUTERGROUP* group, COMPUTER** handles) { idleround(group, handles, true); }

void setupidlecomputergroup(OVCONTEXT* context, COMPUTERGROUP* group, bool split) {
  int width = stretchwidth(context, group, split ? COMPUTERWIDTH_IDLESPLIT : COMPUTERWIDTH_IDLE);
  int nodes = idlenodes(split);
  group->context = context;
  bool reuse = group->endcompute && group->width == width && group->icomputer == nodes;
  group->width = width;
  lendwidth(context, group, width);
  if (!checkstore(group, nodes)) return;
  ENVIRONMENT* e = standardof(group);
  if (e && !makeroom(context, group, e)) {
    atomicstore(&group->stop, 1);
    postend(group);
    return;
  }
  ITER start = group->idata[1];
  if (reuse) {
    rearm(group, nodes);
  } else {
    group->icomputer = 0;
    group->activecomputer = 0;
    COMPUTER* h[NCOMPUTERHEAD_IDLE];
    for (COMPUTER*& c : h) c = headcomputer(group);
    for (int r = 0; r < NCOMPUTERSTRETCH; r++) idleround(group, h, split);
    for (int k = 0; k < 4; k++) standardcomputerd(group, __output, 2 + k, h[k]);
    standardcomputerd(group, __houtput, 0, h[4]);
    standardcomputerd(group, __houtput, 1, h[5]);
  }
  group->idata[1] = start + NCOMPUTERSTRETCH;
  // The heads take the registers: the running point, the two series, and
  // the count the core chain goes on from.
  for (int k = 0; k < 4; k++) mpf_set(group->computer[k].data, group->data[2 + k]);
  memcpy(group->computer[4].hdata, group->hdata[0], sizeof(group->computer[4].hdata));
  memcpy(group->computer[5].hdata, group->hdata[1], sizeof(group->computer[5].hdata));
  group->computer[6].idata[0] = start;
  TASK* task = static_cast<TASK*>(group->pdata[COMPUTER_IDLETASK]);
  if (task) {
    accomplish(task, 1, false);
    atomicstore(&task->iter, group->idata[1]);
  }
  startstretch(context, group, NCOMPUTERHEAD_IDLE);
}
