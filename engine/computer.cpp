// Dataflow computers: graphs of arbitrary-precision operations whose nodes
// fire, as soon as their inputs are final, on whichever thread serves the
// context's ready queue.
//
// A node is handed from thread to thread by nothing but its `inputwait`
// count and the lock-free queue: the predecessor that finds the count below 2
// delivered the last input, and either runs the node itself (the first ready
// successor, so a chain stays on one thread and in its cache) or queues it.
// The barrier before the count-down and the compare-and-swap on the count are
// what make a node's inputs final when it runs. No node takes a lock, and no
// stretch has a barrier per iteration.
//
// The main thread builds a stretch, counts it off with `activecomputer`, and
// gets `worker_compute_end` from whichever thread finished the last node.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Mandelbrot.h"
#include "computer_internal.h"

using namespace computerdetail;

namespace {

constexpr int ONCOMPUTING = offsetof(COMPUTER, nextcomputing);

// How many nodes ahead of the running one a serial stretch fetches records.
constexpr int SERIALAHEAD = 4;

// Beyond this many limbs of exponent a number is long past any escape radius
// or any derivative the engine meets; products of such numbers saturate
// instead of letting GMP's exponent arithmetic overflow in the rounds that
// still run after an escape.
constexpr mp_exp_t WILDEXP = mp_exp_t(1) << 30;

bool wild(mpf_srcptr a) { return a->_mp_exp > WILDEXP || a->_mp_exp < -WILDEXP; }

// The product of two numbers of which one is wild: the larger one for a
// huge product, 0 for a tiny one. Either way the exponent stops growing.
void saturate(mpf_ptr d, mpf_srcptr a, mpf_srcptr b) {
  if (a->_mp_exp + b->_mp_exp > 0)
    mpf_set(d, a->_mp_exp >= b->_mp_exp ? a : b);
  else
    mpf_set_ui(d, 0);
}

int limbs(mpf_srcptr a) { return a->_mp_size < 0 ? -a->_mp_size : a->_mp_size; }

// The part of an operand that mpf_mul into `c`'s data would use: its top
// `prec` limbs. The split products work on this view so that they see the
// very limbs the plain product sees.
void operand(mpf_ptr v, COMPUTER* c, mpf_srcptr a) { mpf_hi(v, a, c->data->_mp_prec); }

mp_size_t splitpos(COMPUTER* c) { return c->data->_mp_prec >> 1; }

// A header copy of `a` times B^shift: only the exponent moves.
void shifted(mpf_ptr v, mpf_srcptr a, mp_exp_t shift) {
  *v = *a;
  v->_mp_exp += shift;
}

// Scratch of the final split nodes, one set per thread, grown when a graph of
// higher precision first runs on the thread and kept for its life. The
// combination is done exactly here and truncated once, the way mpf_mul
// truncates its exact product: that is why the split product is the plain
// one bit for bit.
struct SPLITSCRATCH {
  mpf_t xs, prod, sum;
  mp_bitcnt_t bits = 0;
  ~SPLITSCRATCH() {
    if (bits) {
      mpf_clear(xs);
      mpf_clear(prod);
      mpf_clear(sum);
    }
  }
  void need(mp_size_t prec) {
    mp_bitcnt_t want = static_cast<mp_bitcnt_t>(2 * prec + 8) * GMP_NUMB_BITS;
    if (bits >= want) return;
    if (bits) {
      mpf_set_prec(xs, want);
      mpf_set_prec(prod, want);
      mpf_set_prec(sum, want);
    } else {
      mpf_init2(xs, want);
      mpf_init2(prod, want);
      mpf_init2(sum, want);
    }
    bits = want;
  }
};

thread_local SPLITSCRATCH splitscratch;

// result = X'·M - P/s - s·Q + P + Q with s = B^-h, where X'·M has been
// formed in `prod` (for a square: (X')^2 / s).
void finishsplit(COMPUTER* c, mpf_srcptr p, mpf_srcptr q, mp_size_t h) {
  SPLITSCRATCH& s = splitscratch;
  __mpf_struct ps, sq;
  shifted(&ps, p, h);
  shifted(&sq, q, -h);
  mpf_sub(s.sum, s.prod, &ps);
  mpf_sub(s.sum, s.sum, &sq);
  mpf_add(s.sum, s.sum, p);
  mpf_add(s.sum, s.sum, q);
  mpf_set(c->data, s.sum);
}

// X' = Lx + s·Hx of the operand view of x.
void formxs(COMPUTER* c, mpf_srcptr x, mp_size_t h) {
  __mpf_struct xv, hx, lx, shx;
  operand(&xv, c, x);
  mpf_hi(&hx, &xv, h);
  mpf_lo(&lx, &xv, h);
  shifted(&shx, &hx, -h);
  mpf_add(splitscratch.xs, &lx, &shx);
}

}  // namespace

namespace computerdetail {

void pushready(OVCONTEXT* context, COMPUTER* c) {
  atomicfifoenqueue(&context->computer, c, ONCOMPUTING);
  atomicincrementint(&context->icomputer);
}

COMPUTER* handon(COMPUTER* c) {
  COMPUTER* first = nullptr;
  memorybarrier();
  for (int k = 0; k < c->noutput; k++) {
    COMPUTER* s = c->output[k].ptr;
    for (;;) {
      int w = atomicload(&s->inputwait);
      if (w >= 2) {
        if (atomiccompareandswapint(w, w - 1, &s->inputwait)) break;
        continue;
      }
      if (!first)
        first = s;
      else
        pushready(c->computergroup->context, s);
      break;
    }
  }
  return first;
}

void postend(COMPUTERGROUP* group) {
  OVCONTEXT* context = group->context;
  WORKER* w = addworker(context, THREAD_MAIN, worker_compute_end);
  if (!w) return;
  w->pdata[0] = group;
  dispatch(context, w);
}

}  // namespace computerdetail

// ---------------------------------------------------------------- views

void mpf_hi(mpf_ptr dest, mpf_srcptr src, mp_size_t cut) {
  *dest = *src;
  mp_size_t n = limbs(src);
  if (n <= cut) return;
  dest->_mp_d = src->_mp_d + (n - cut);
  dest->_mp_size = src->_mp_size < 0 ? -static_cast<int>(cut) : static_cast<int>(cut);
}

void mpf_lo(mpf_ptr dest, mpf_srcptr src, mp_size_t cut) {
  *dest = *src;
  mp_size_t n = limbs(src);
  if (n <= cut) {
    dest->_mp_size = 0;
    dest->_mp_exp = 0;
    return;
  }
  mp_size_t size = n - cut;
  mp_exp_t exp = src->_mp_exp - cut;
  // A limb of zeros right under the cut would leave the view unnormalised,
  // and GMP's operations count on a non-zero top limb.
  while (size > 0 && src->_mp_d[size - 1] == 0) {
    size--;
    exp--;
  }
  dest->_mp_prec = src->_mp_prec > cut ? static_cast<int>(src->_mp_prec - cut) : 1;
  dest->_mp_size = src->_mp_size < 0 ? -static_cast<int>(size) : static_cast<int>(size);
  dest->_mp_exp = size ? exp : 0;
}

// ---------------------------------------------------------------- node kinds

COMPUTER* __addcomputer(COMPUTER* c) {
  bool any = false;
  for (int k = 0; k < NCOMPUTERINPUT; k++) {
    if (!c->input[k]) continue;
    if (any)
      mpf_add(c->data, c->data, in(c, k));
    else
      mpf_set(c->data, in(c, k));
    any = true;
  }
  if (!any) mpf_set_ui(c->data, 0);
  return finishcomputer(c);
}

COMPUTER* __subcomputer(COMPUTER* c) {
  mpf_sub(c->data, in(c, 0), in(c, 1));
  return finishcomputer(c);
}

COMPUTER* __mulcomputer(COMPUTER* c) {
  if (wild(in(c, 0)) || wild(in(c, 1)))
    saturate(c->data, in(c, 0), in(c, 1));
  else
    mpf_mul(c->data, in(c, 0), in(c, 1));
  return finishcomputer(c);
}

COMPUTER* __sqrcomputer(COMPUTER* c) {
  if (wild(in(c, 0)))
    saturate(c->data, in(c, 0), in(c, 0));
  else
    mpf_mul(c->data, in(c, 0), in(c, 0));
  return finishcomputer(c);
}

COMPUTER* __realitercomputer(COMPUTER* c) {
  mpf_sub(c->data, in(c, 0), in(c, 1));
  mpf_add(c->data, c->data, c->computergroup->data[0]);
  return finishcomputer(c);
}

COMPUTER* __realitercomputer1(COMPUTER* c) {
  mpf_add(c->data, in(c, 0), c->computergroup->data[0]);
  return finishcomputer(c);
}

COMPUTER* __realitercomputer2(COMPUTER* c) {
  mpf_sub(c->data, in(c, 0), in(c, 1));
  return finishcomputer(c);
}

COMPUTER* __imagitercomputer(COMPUTER* c) {
  mpf_mul_2exp(c->data, in(c, 0), 1);
  mpf_add(c->data, c->data, c->computergroup->data[1]);
  return finishcomputer(c);
}

COMPUTER* __imagitercomputer2(COMPUTER* c) {
  if (wild(in(c, 0)) || wild(in(c, 1)))
    saturate(c->data, in(c, 0), in(c, 1));
  else
    mpf_mul(c->data, in(c, 0), in(c, 1));
  mpf_mul_2exp(c->data, c->data, 1);
  mpf_add(c->data, c->data, c->computergroup->data[1]);
  return finishcomputer(c);
}

COMPUTER* __drealitercomputer(COMPUTER* c) {
  mpf_sub(c->data, in(c, 0), in(c, 1));
  mpf_mul_2exp(c->data, c->data, 1);
  mpf_add_ui(c->data, c->data, 1);
  return finishcomputer(c);
}

COMPUTER* __dimagitercomputer(COMPUTER* c) {
  mpf_add(c->data, in(c, 0), in(c, 1));
  mpf_mul_2exp(c->data, c->data, 1);
  return finishcomputer(c);
}

// Cores of later rounds may run first, so the escape iteration only ever
// goes down; `stop` then tells the owner to start no further stretch.
COMPUTER* __itercore(COMPUTER* c) {
  // The sum stays in `data`: the end of a stretch reads |z|^2 there.
  mpf_add(c->data, in(c, 0), in(c, 1));
  if (mpf_cmp_ui(c->data, 4) >= 0) {
    COMPUTERGROUP* g = c->computergroup;
    ITER n = c->idata[0];
    for (;;) {
      ITER old = atomicload(&g->idata[0]);
      if (old <= n || atomiccompareandswapint(old, n, &g->idata[0])) break;
    }
    atomicstore(&g->stop, 1);
  }
  return finishcomputer(c);
}

COMPUTER* __output(COMPUTER* c) {
  mpf_set(c->computergroup->data[c->idata[0]], in(c, 0));
  return finishcomputer(c);
}

COMPUTER* __houtput(COMPUTER* c) {
  memcpy(c->computergroup->hdata[c->idata[0]], c->input[0]->hdata, sizeof(c->input[0]->hdata));
  return finishcomputer(c);
}

// Split products. With h the split position and s = B^-h: Q = Hx·Hy,
// P = Lx·Ly, M = Ly/s + Hy. P and M are made at the node's full precision,
// where both are exact at no extra cost (the product is formed whole
// anyway); exact pieces are what let the final node reproduce mpf_mul.

COMPUTER* __sqrcomputerclamphi(COMPUTER* c) {
  if (wild(in(c, 0))) {
    mpf_set_ui(c->data, 0);
  } else {
    __mpf_struct xv, hx;
    operand(&xv, c, in(c, 0));
    mpf_hi(&hx, &xv, splitpos(c));
    mpf_mul(c->data, &hx, &hx);
  }
  return finishcomputer(c);
}

COMPUTER* __sqrcomputerclamplo(COMPUTER* c) {
  if (wild(in(c, 0))) {
    mpf_set_ui(c->data, 0);
  } else {
    __mpf_struct xv, lx;
    operand(&xv, c, in(c, 0));
    mpf_lo(&lx, &xv, splitpos(c));
    mpf_mul(c->data, &lx, &lx);
  }
  return finishcomputer(c);
}

// in0 = x, in1 = P, in2 = Q.
COMPUTER* __sqrcomputerclamp(COMPUTER* c) {
  mpf_srcptr x = in(c, 0);
  if (wild(x)) {
    saturate(c->data, x, x);
  } else {
    mp_size_t h = splitpos(c);
    splitscratch.need(c->data->_mp_prec);
    formxs(c, x, h);
    mpf_mul(splitscratch.prod, splitscratch.xs, splitscratch.xs);
    splitscratch.prod->_mp_exp += h;  // (X')^2 / s
    finishsplit(c, in(c, 1), in(c, 2), h);
  }
  return finishcomputer(c);
}

COMPUTER* __mulcomputerclamphi(COMPUTER* c) {
  if (wild(in(c, 0)) || wild(in(c, 1))) {
    mpf_set_ui(c->data, 0);
  } else {
    __mpf_struct xv, yv, hx, hy;
    operand(&xv, c, in(c, 0));
    operand(&yv, c, in(c, 1));
    mpf_hi(&hx, &xv, splitpos(c));
    mpf_hi(&hy, &yv, splitpos(c));
    mpf_mul(c->data, &hx, &hy);
  }
  return finishcomputer(c);
}

COMPUTER* __mulcomputerclamplo(COMPUTER* c) {
  if (wild(in(c, 0)) || wild(in(c, 1))) {
    mpf_set_ui(c->data, 0);
  } else {
    __mpf_struct xv, yv, lx, ly;
    operand(&xv, c, in(c, 0));
    operand(&yv, c, in(c, 1));
    mpf_lo(&lx, &xv, splitpos(c));
    mpf_lo(&ly, &yv, splitpos(c));
    mpf_mul(c->data, &lx, &ly);
  }
  return finishcomputer(c);
}

// in0 = y.
COMPUTER* __mulcomputerclampmid(COMPUTER* c) {
  if (wild(in(c, 0))) {
    mpf_set_ui(c->data, 0);
  } else {
    mp_size_t h = splitpos(c);
    __mpf_struct yv, hy, ly, lys;
    operand(&yv, c, in(c, 0));
    mpf_hi(&hy, &yv, h);
    mpf_lo(&ly, &yv, h);
    shifted(&lys, &ly, h);
    mpf_add(c->data, &lys, &hy);
  }
  return finishcomputer(c);
}

// in0 = x, in1 = M, in2 = P, in3 = Q.
COMPUTER* __mulcomputerclamp(COMPUTER* c) {
  mpf_srcptr x = in(c, 0);
  mpf_srcptr m = in(c, 1);
  if (wild(x) || wild(m)) {
    saturate(c->data, x, m);
  } else {
    mp_size_t h = splitpos(c);
    splitscratch.need(c->data->_mp_prec);
    formxs(c, x, h);
    mpf_mul(splitscratch.prod, splitscratch.xs, m);
    finishsplit(c, in(c, 2), in(c, 3), h);
  }
  return finishcomputer(c);
}

// ---------------------------------------------------------------- groups

namespace {

void eachnumber(COMPUTERGROUP* group, void (*fn)(mpf_ptr, mp_bitcnt_t)) {
  for (int i = 0; i < group->ncomputer; i++) fn(group->computer[i].data, group->prec);
  for (int k = 0; k < NCOMPUTERGROUPDATA; k++) fn(group->data[k], group->prec);
}

void clearregisters(COMPUTERGROUP* group) {
  group->icomputer = 0;
  group->activecomputer = 0;
  group->width = 0;
  for (int k = 0; k < NCOMPUTERGROUPDATA; k++) mpf_set_ui(group->data[k], 0);
  group->idata[0] = COMPUTER_NOESCAPE;
  for (int k = 1; k < NCOMPUTERGROUPIDATA; k++) group->idata[k] = 0;
  for (int k = 0; k < NCOMPUTERGROUPPDATA; k++) group->pdata[k] = nullptr;
  memset(group->hdata, 0, sizeof(group->hdata));
  group->endcompute = nullptr;
  group->stop = 0;
  group->lockcdata = 0;
  group->computerchain = nullptr;
}

}  // namespace

void initcomputergroup(OVCONTEXT* context, COMPUTERGROUP* group, int ncomputer,
                       mp_bitcnt_t precision) {
  group->context = context;
  group->ncomputer = 0;
  group->computer = static_cast<COMPUTER*>(calloc(static_cast<size_t>(ncomputer), sizeof(COMPUTER)));
  if (!group->computer) {
    fputs("initcomputergroup: out of memory.\n", stderr);
    return;
  }
  group->prec = precision;
  for (int i = 0; i < ncomputer; i++) {
    COMPUTER* c = &group->computer[i];
    c->computergroup = group;
    c->nextcomputing = reinterpret_cast<COMPUTER*>(uintptr_t(1));
    mpf_init2(c->data, precision);
  }
  for (int k = 0; k < NCOMPUTERGROUPDATA; k++) mpf_init2(group->data[k], precision);
  group->ncomputer = ncomputer;
  clearregisters(group);
}

void resetcomputergroup(OVCONTEXT* context, COMPUTERGROUP* group, mp_bitcnt_t precision) {
  group->context = context;
  if (precision != group->prec) {
    group->prec = precision;
    computergroupsetprecision(group);
  }
  clearregisters(group);
}

void freecomputergroup(COMPUTERGROUP* group) {
  if (group->ncomputer == 0) return;
  for (int i = 0; i < group->ncomputer; i++) mpf_clear(group->computer[i].data);
  for (int k = 0; k < NCOMPUTERGROUPDATA; k++) mpf_clear(group->data[k]);
  free(group->computer);
  group->computer = nullptr;
  group->ncomputer = 0;
  group->icomputer = 0;
}

void computergroupsetprecision(COMPUTERGROUP* group) { eachnumber(group, mpf_set_prec); }

void computergroupsetrawprecision(COMPUTERGROUP* group) { eachnumber(group, mpf_set_prec_raw); }

COMPUTER* standardcomputern(COMPUTERGROUP* group, COMPUTERPROC compute, int ninput,
                            COMPUTER* const* inputs, ITER d) {
  bool full = atomicload(&group->icomputer) >= group->ncomputer;
  for (int k = 0; k < ninput && !full; k++)
    if (inputs[k] && inputs[k]->noutput >= NCOMPUTEROUTPUT) full = true;
  if (full) {
    fputs("COMPUTER overflow.\n", stderr);
    return nullptr;
  }
  COMPUTER* c = &group->computer[atomicincrementint(&group->icomputer) - 1];
  c->compute = compute;
  c->noutput = 0;
  c->idata[0] = d;
  int wait = 0;
  for (int k = 0; k < NCOMPUTERINPUT; k++) {
    COMPUTER* x = k < ninput ? inputs[k] : nullptr;
    c->input[k] = x;
    if (!x) continue;
    x->output[x->noutput].ptr = c;
    x->output[x->noutput].i = k;
    x->noutput++;
    wait++;
  }
  c->inputwait = wait;
  c->inputwaitsaved = wait;
  return c;
}

void removecomputer(COMPUTER* computer) { removecomputers(computer->computergroup, 1); }

void removecomputers(COMPUTERGROUP* group, int n) {
  if (__atomic_sub_fetch(&group->activecomputer, n, __ATOMIC_SEQ_CST) == 0) postend(group);
}

namespace {

// The width of a stretch that has just ended, still counted while its owner
// decides on the next one. A run lends its threads from its first stretch to
// its last: giving them back and taking them again at every end would swing
// the computing roles and wake a sleeping worker for nothing, a system call
// on the main thread per stretch. Only the main thread's end handler holds
// one.
struct HELDWIDTH {
  COMPUTERGROUP* group = nullptr;
  int width = 0;
};

thread_local HELDWIDTH heldwidth;

void releaseheldwidth(OVCONTEXT* context) {
  if (!heldwidth.group) return;
  heldwidth.group = nullptr;
  removecomputerwidth(context, heldwidth.width);
}

}  // namespace

void worker_compute_end(OVCONTEXT* context, WORKER* worker) {
  COMPUTERGROUP* group = static_cast<COMPUTERGROUP*>(worker->pdata[0]);
  freeworker(context, worker);
  heldwidth.group = group;
  heldwidth.width = group->width;
  if (group->endcompute) group->endcompute(group);
  releaseheldwidth(context);
}

namespace {

// The nodes a thread runs from `c` on, one handing the next to it.
int runchain(COMPUTER* c) {
  int chain = 0;
  while (c) {
    c = c->compute(c);
    chain++;
  }
  return chain;
}

// A serial stretch from `c` to the end of the store: built inputs first, so
// the store's order is an order of readiness. The records are several times
// the second-level cache and are walked once per stretch, so the lines a
// node reads are fetched a few nodes ahead, or each node would wait for
// them in turn.
int runserial(COMPUTERGROUP* group, COMPUTER* c) {
  COMPUTER* end = group->computer + group->icomputer;
  for (COMPUTER* n = c; n < end; n++) {
    COMPUTER* ahead = n + SERIALAHEAD;
    if (ahead < end) {
      __builtin_prefetch(ahead);
      __builtin_prefetch(&ahead->compute);
      __builtin_prefetch(&ahead->data->_mp_d);
    }
    n->compute(n);
  }
  return static_cast<int>(end - c);
}

}  // namespace

bool servecomputers(OVCONTEXT* context) {
  bool ran = false;
  for (;;) {
    int n = atomicload(&context->icomputer);
    if (n <= 0) return ran;
    if (!atomiccompareandswapint(n, n - 1, &context->icomputer)) continue;
    COMPUTER* c = static_cast<COMPUTER*>(atomicfifodequeue(&context->computer, ONCOMPUTING));
    if (!c) {
      // Counted but not yet reachable: give the count back for a later pass.
      atomicincrementint(&context->icomputer);
      return ran;
    }
    COMPUTERGROUP* group = c->computergroup;
    // The record of the node last taken carries no meaning for the run: it
    // is kept without a locked operation on a line every serving thread
    // writes.
    c->nextonstack = __atomic_load_n(&group->computerchain, __ATOMIC_RELAXED);
    __atomic_store_n(&group->computerchain, c, __ATOMIC_RELAXED);
    // A chain stays in its group, and the group cannot end while this thread
    // still holds the chain's count: the nodes are counted off once, at the
    // end, rather than each with a locked operation on a line that every
    // serving thread writes.
    int chain = group->serial ? runserial(group, c) : runchain(c);
    removecomputers(group, chain);  // the group may be rebuilt from here on
    ran = true;
  }
}

// ---------------------------------------------------------------- the plain iteration

void iter(COMPUTERGROUP* g, COMPUTER** h, ITER iteration) {
  COMPUTER *x = h[0], *y = h[1], *dx = h[2], *dy = h[3];
  COMPUTER* x2 = standardcomputer(g, __sqrcomputer, x);
  COMPUTER* y2 = standardcomputer(g, __sqrcomputer, y);
  COMPUTER* xn = standardcomputer(g, __realitercomputer, x2, y2);
  COMPUTER* yn = standardcomputer(g, __imagitercomputer2, x, y);
  COMPUTER* a = standardcomputer(g, __mulcomputer, x, dx);
  COMPUTER* b = standardcomputer(g, __mulcomputer, y, dy);
  COMPUTER* p = standardcomputer(g, __mulcomputer, x, dy);
  COMPUTER* q = standardcomputer(g, __mulcomputer, y, dx);
  h[2] = standardcomputer(g, __drealitercomputer, a, b);
  h[3] = standardcomputer(g, __dimagitercomputer, p, q);
  standardcomputerd(g, __itercore, iteration, x2, y2);
  h[0] = xn;
  h[1] = yn;
}

namespace computerdetail {

COMPUTER* splitsqr(COMPUTERGROUP* g, COMPUTER* x) {
  COMPUTER* p = standardcomputer(g, __sqrcomputerclamplo, x);
  COMPUTER* q = standardcomputer(g, __sqrcomputerclamphi, x);
  return standardcomputer(g, __sqrcomputerclamp, x, p, q);
}

COMPUTER* splitmul(COMPUTERGROUP* g, COMPUTER* x, COMPUTER* y) {
  COMPUTER* p = standardcomputer(g, __mulcomputerclamplo, x, y);
  COMPUTER* q = standardcomputer(g, __mulcomputerclamphi, x, y);
  COMPUTER* m = standardcomputer(g, __mulcomputerclampmid, y);
  return standardcomputer(g, __mulcomputerclamp, x, m, p, q);
}

COMPUTER* headcomputer(COMPUTERGROUP* g) {
  COMPUTER* c = &g->computer[atomicincrementint(&g->icomputer) - 1];
  c->compute = nullptr;
  c->noutput = 0;
  c->inputwait = c->inputwaitsaved = 0;
  for (COMPUTER*& x : c->input) x = nullptr;
  return c;
}

bool checkstore(COMPUTERGROUP* group, int nodes) {
  if (group->ncomputer >= nodes) return true;
  fputs("COMPUTER overflow.\n", stderr);
  atomicstore(&group->stop, 1);
  postend(group);
  return false;
}

void lendwidth(OVCONTEXT* context, COMPUTERGROUP* group, int width) {
  if (heldwidth.group == group && heldwidth.width == width) {
    heldwidth.group = nullptr;  // the ended stretch's threads serve this one
    return;
  }
  releaseheldwidth(context);
  addcomputerwidth(context, width);
}

void rearm(COMPUTERGROUP* group, int nodes) {
  // A serial stretch never counts its nodes' inputs down.
  if (group->serial) return;
  for (int i = 0; i < nodes; i++) group->computer[i].inputwait = group->computer[i].inputwaitsaved;
}

int stretchwidth(OVCONTEXT* context, COMPUTERGROUP* group, int width) {
  group->serial = group->prec <= context->serialcomputerbits;
  return group->serial ? 1 : width;
}

void startstretch(OVCONTEXT* context, COMPUTERGROUP* group, int nheads) {
  atomicstore(&group->activecomputer, group->icomputer);
  if (group->serial) {
    // The heads' successors are counted in the chain's order instead; the
    // first node after them starts the chain on whichever thread takes it.
    bool more = group->icomputer > nheads;
    for (int k = 0; k < nheads; k++) removecomputer(&group->computer[k]);
    if (more) pushready(context, &group->computer[nheads]);
    return;
  }
  // The heads have no work: their successors are counted down here, and the
  // ready ones go to whichever thread is free.
  for (int k = 0; k < nheads; k++) {
    COMPUTER* head = &group->computer[k];
    COMPUTER* first = finishcomputer(head);
    if (first) pushready(context, first);
    removecomputer(head);
  }
}

}  // namespace computerdetail

void iterclamp(COMPUTERGROUP* g, COMPUTER** h, ITER iteration) {
  COMPUTER *x = h[0], *y = h[1], *dx = h[2], *dy = h[3];
  COMPUTER* x2 = splitsqr(g, x);
  COMPUTER* y2 = splitsqr(g, y);
  COMPUTER* xn = standardcomputer(g, __realitercomputer, x2, y2);
  COMPUTER* yn = standardcomputer(g, __imagitercomputer, splitmul(g, x, y));
  COMPUTER* a = splitmul(g, x, dx);
  COMPUTER* b = splitmul(g, y, dy);
  COMPUTER* p = splitmul(g, x, dy);
  COMPUTER* q = splitmul(g, y, dx);
  h[2] = standardcomputer(g, __drealitercomputer, a, b);
  h[3] = standardcomputer(g, __dimagitercomputer, p, q);
  standardcomputerd(g, __itercore, iteration, x2, y2);
  h[0] = xn;
  h[1] = yn;
}

void setupitercomputergroup(OVCONTEXT* context, COMPUTERGROUP* group, bool split) {
  int width = stretchwidth(context, group, split ? COMPUTERWIDTH_ITERSPLIT : COMPUTERWIDTH_ITER);
  int nodes = split ? NCOMPUTER_ITERSPLIT : NCOMPUTER_ITER;
  group->context = context;
  bool reuse = group->endcompute && group->width == width && group->icomputer == nodes;
  group->width = width;
  lendwidth(context, group, width);
  if (!checkstore(group, nodes)) return;
  if (reuse) {
    rearm(group, nodes);
    // The cores carry the iteration of their round: they move on to the
    // rounds this stretch counts from, wherever the owner left `idata[1]`.
    // Each round ends with its core, so they are found without walking the
    // whole store.
    int round = (nodes - 4 - 4) / NCOMPUTERSTRETCH;  // without the heads and outputs
    COMPUTER* core = &group->computer[4 + round - 1];
    ITER delta = group->idata[1] - core->idata[0];
    for (int r = 0; r < NCOMPUTERSTRETCH; r++, core += round) core->idata[0] += delta;
    group->idata[1] = group->idata[1] + NCOMPUTERSTRETCH;
  } else {
    group->icomputer = 0;
    group->activecomputer = 0;
    COMPUTER* h[4];
    for (int k = 0; k < 4; k++) h[k] = headcomputer(group);
    for (int r = 0; r < NCOMPUTERSTRETCH; r++) {
      if (split)
        iterclamp(group, h, group->idata[1]);
      else
        iter(group, h, group->idata[1]);
      group->idata[1] = group->idata[1] + 1;
    }
    for (int k = 0; k < 4; k++) standardcomputerd(group, __output, 2 + k, h[k]);
  }
  for (int k = 0; k < 4; k++) mpf_set(group->computer[k].data, group->data[2 + k]);
  startstretch(context, group, 4);
}
