// A Newton run started the way the idle search starts one for a candidate:
// period n, arrays for n + 1 points, the group at the environment's
// precision and working at a third of it. Shared by the Newton tests and the
// Newton benchmark. Call on the main thread; the caller keeps the reference
// it is handed back.
#pragma once

#include <cstdlib>

#include "Mandelbrot.h"

namespace newtonstart {

inline ENVIRONMENT* startnewtonrun(OVCONTEXT* c, mpf_srcptr cre, mpf_srcptr cim, unsigned n,
                                   mp_bitcnt_t precision, ITER steps, bool split,
                                   bool stopfirst = false) {
  ENVIRONMENT* e = adde(c, cre, cim, precision);
  e->flags = E_PERIODIC;
  e->n = n;
  e->nrefdata = static_cast<int>(n) + 1;
  e->refdatah = static_cast<REFDATAH*>(calloc(n + 1, sizeof(REFDATAH)));
  e->refdatad = static_cast<REFDATAD*>(calloc(n + 1, sizeof(REFDATAD)));
  __atomic_add_fetch(&c->mem_envrefdata, int64_t(64) * (n + 1), __ATOMIC_SEQ_CST);
  e->task = __addtask(c, TASKTYPE_NEWTON, 1);
  attache(e);
  COMPUTERGROUP* g = &e->computergroup;
  initcomputergroup(c, g, NCOMPUTER_ENV, precision);
  g->pdata[0] = e;
  g->prec = precision / 3;
  computergroupsetrawprecision(g);
  mpf_set(g->data[0], e->c->v[0]);
  mpf_set(g->data[1], e->c->v[1]);
  g->idata[2] = steps;
  g->hdata[0][0] = CONEH;
  g->stop = stopfirst;
  setupnewtoncomputergroup(c, g, split);
  return e;
}

}  // namespace newtonstart
