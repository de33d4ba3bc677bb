// tileenv.cpp: the reference orbit of a general-realm tile.
#include "tileenv.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace {

// Candidates on a 3 by 3 grid of the tile, at (i + 1/2) / 3 of each side;
// the middle one is the centre.
constexpr int NGRID = 3;

// The arrays grow by this many samples, and never beyond the limit.
constexpr int GROWTH = 65536;

constexpr int HPVSHIFT = 16;
constexpr UITER HPVMASK = (1u << HPVSHIFT) - 1;

// An orbit point beyond this squared modulus is not stored: samples run a
// little past the escape radius, so that the pixels near the reference that
// are still inside find a sample to step from.
constexpr unsigned long STOREBOUND = 5;

// One candidate's orbit in the race.
struct RACER {
  mpf_t cx, cy, x, y, xx, yy, t;
  bool alive = true;
  long escape = -1;
};

void racerinit(RACER* r, mp_bitcnt_t bits) {
  for (mpf_ptr v : {r->cx, r->cy, r->x, r->y, r->xx, r->yy, r->t}) mpf_init2(v, bits);
}

void racerclear(RACER* r) {
  for (mpf_ptr v : {r->cx, r->cy, r->x, r->y, r->xx, r->yy, r->t}) mpf_clear(v);
}

// z <- z^2 + c; true while |z|^2 < 4.
bool racerstep(RACER* r) {
  mpf_mul(r->t, r->x, r->y);
  mpf_mul_2exp(r->t, r->t, 1);
  mpf_add(r->y, r->t, r->cy);
  mpf_sub(r->x, r->xx, r->yy);
  mpf_add(r->x, r->x, r->cx);
  mpf_mul(r->xx, r->x, r->x);
  mpf_mul(r->yy, r->y, r->y);
  mpf_add(r->t, r->xx, r->yy);
  return mpf_cmp_ui(r->t, 4) < 0;
}

// corner + (k + 1/2) side / NGRID along one axis, exactly enough: the
// candidate needs to be inside the tile, not on a particular bit.
void gridpoint(mpf_ptr out, const mpq_t corner, int depth, int k) {
  mpq_t q, s;
  mpq_inits(q, s, nullptr);
  mpq_set_ui(s, 2 * k + 1, 2 * NGRID);
  if (depth >= 4) mpq_div_2exp(s, s, depth - 4);
  else mpq_mul_2exp(s, s, 4 - depth);
  mpq_add(q, corner, s);
  mpf_set_q(out, q);
  mpq_clears(q, s, nullptr);
}

}  // namespace

mp_bitcnt_t referenceprecision(int depth) {
  return (static_cast<mp_bitcnt_t>(depth + 64) & ~mp_bitcnt_t(31)) + 32;
}

void choosereference(const mpq_t corner[2], int depth, long limit, bool centre, mpf_t point[2]) {
  const int middle = NGRID / 2;
  if (centre) {
    gridpoint(point[0], corner[0], depth, middle);
    gridpoint(point[1], corner[1], depth, middle);
    return;
  }
  mp_bitcnt_t bits = referenceprecision(depth);
  std::vector<RACER> racers(NGRID * NGRID);
  // The centre runs first, so that it wins among equals.
  std::vector<int> order;
  order.push_back(middle * NGRID + middle);
  for (int k = 0; k < NGRID * NGRID; k++)
    if (k != middle * NGRID + middle) order.push_back(k);
  for (int k = 0; k < NGRID * NGRID; k++) {
    RACER* r = &racers[k];
    racerinit(r, bits);
    gridpoint(r->cx, corner[0], depth, k % NGRID);
    gridpoint(r->cy, corner[1], depth, k / NGRID);
  }
  int alive = NGRID * NGRID;
  int winner = order[0];
  for (long n = 0; n < limit && alive > 1; n++) {
    for (int k : order) {
      RACER* r = &racers[k];
      if (!r->alive || racerstep(r)) continue;
      r->alive = false;
      r->escape = n + 1;
      alive--;
    }
  }
  // The one still inside, the first of them; else the last to leave.
  long best = -1;
  bool found = false;
  for (int k : order) {
    if (racers[k].alive) {
      winner = k;
      found = true;
      break;
    }
    if (racers[k].escape > best) {
      best = racers[k].escape;
      winner = k;
    }
  }
  (void)found;
  mpf_set(point[0], racers[winner].cx);
  mpf_set(point[1], racers[winner].cy);
  for (RACER& r : racers) racerclear(&r);
}

namespace {

void addrefbytes(OVCONTEXT* context, int64_t bytes) {
  __atomic_add_fetch(&context->mem_envrefdata, bytes, __ATOMIC_SEQ_CST);
}

constexpr int64_t SAMPLEBYTES = sizeof(REFDATAH) + sizeof(REFDATAD);

// Room for sample `k`; false when the arrays cannot grow.
bool reserve(OVCONTEXT* context, REFERENCERUN* run, long k) {
  if (k < run->capacity) return true;
  ENVIRONMENT* e = run->e;
  long want = std::min<long>(run->capacity + static_cast<long>(GROWTH), run->limit + 1);
  if (want <= k) want = k + 1;
  REFDATAH* h = static_cast<REFDATAH*>(realloc(e->refdatah, want * sizeof(REFDATAH)));
  if (h) e->refdatah = h;
  REFDATAD* d = h ? static_cast<REFDATAD*>(realloc(e->refdatad, want * sizeof(REFDATAD))) : nullptr;
  if (d) e->refdatad = d;
  if (!h || !d) return false;
  addrefbytes(context, (want - run->capacity) * SAMPLEBYTES);
  run->capacity = static_cast<int>(want);
  e->nrefdata = run->capacity;
  return true;
}

// Sample k: z and its margin 4 - |z|^2, taken from |z|^2 at full precision.
void store(ENVIRONMENT* e, long k, mpf_srcptr x, mpf_srcptr y, mpf_srcptr len, mpf_ptr scratch) {
  mpf_ui_sub(scratch, 4, len);
  HFLOAT a = mpf_get_HF(scratch);
  HFLOATCOMPLEX z = cHF(mpf_get_HF(x), mpf_get_HF(y));
  e->refdatah[k].value = z;
  e->refdatah[k].a = a;
  e->refdatad[k].value = cdHF(z);
  e->refdatad[k].a = dHF(a);
}

// The full-precision checkpoint of iteration k, a non-zero multiple of 65536.
bool checkpoint(OVCONTEXT* context, ENVIRONMENT* e, long k, mpf_srcptr x, mpf_srcptr y) {
  int m = static_cast<int>(k >> HPVSHIFT) - 1;
  if (m >= NENVHPV) return true;
  HPVALUE* h = addhpv(context, e->precision);
  if (!h) return false;
  mpf_set(h->v[0], x);
  mpf_set(h->v[1], y);
  e->hpv[m] = h;
  e->nhpv = m + 1;
  return true;
}

// The arrays cut to the orbit that was stored, the graph given back.
void finish(OVCONTEXT* context, REFERENCERUN* run, long last, bool ok) {
  ENVIRONMENT* e = run->e;
  e->n = static_cast<UITER>(last < 0 ? 0 : last);
  long keep = last + 1;
  if (ok && keep > 0 && keep < run->capacity) {
    REFDATAH* h = static_cast<REFDATAH*>(realloc(e->refdatah, keep * sizeof(REFDATAH)));
    if (h) e->refdatah = h;
    REFDATAD* d = static_cast<REFDATAD*>(realloc(e->refdatad, keep * sizeof(REFDATAD)));
    if (d) e->refdatad = d;
    if (h && d) {
      addrefbytes(context, (keep - run->capacity) * SAMPLEBYTES);
      run->capacity = static_cast<int>(keep);
      e->nrefdata = run->capacity;
    }
  }
  freecomputergroup(&e->computergroup);
  run->ok = ok;
  run->done.store(true);
}

// The nodes of one stretch by their part: z's real and imaginary parts
// after each round, and the core that holds |z|^2 of the round's input.
struct STRETCH {
  COMPUTER* x[NCOMPUTERSTRETCH];
  COMPUTER* y[NCOMPUTERSTRETCH];
  COMPUTER* core[NCOMPUTERSTRETCH];
};

bool readstretch(COMPUTERGROUP* g, STRETCH* s) {
  int nx = 0, ny = 0, nc = 0;
  for (int i = 0; i < g->icomputer; i++) {
    COMPUTER* c = &g->computer[i];
    if (c->compute == __realitercomputer && nx < NCOMPUTERSTRETCH) s->x[nx++] = c;
    else if ((c->compute == __imagitercomputer2 || c->compute == __imagitercomputer) &&
             ny < NCOMPUTERSTRETCH)
      s->y[ny++] = c;
    else if (c->compute == __itercore && nc < NCOMPUTERSTRETCH)
      s->core[nc++] = c;
  }
  return nx == NCOMPUTERSTRETCH && ny == NCOMPUTERSTRETCH && nc == NCOMPUTERSTRETCH;
}

bool splitgraph(const COMPUTERGROUP* g) { return g->pdata[1] != nullptr; }

// Main thread, when a stretch has run: its samples go to the environment,
// and the next stretch starts unless the orbit is complete.
void referenceend(COMPUTERGROUP* g) {
  REFERENCERUN* run = static_cast<REFERENCERUN*>(g->pdata[0]);
  ENVIRONMENT* e = run->e;
  OVCONTEXT* context = g->context;
  STRETCH s;
  if (!readstretch(g, &s)) {
    finish(context, run, -1, false);
    return;
  }
  mpf_t scratch;
  mpf_init2(scratch, e->precision);
  long last = static_cast<long>(run->base) - 1;
  bool over = false, ok = true;
  for (int r = 0; r < NCOMPUTERSTRETCH && !over; r++) {
    long k = static_cast<long>(run->base) + r;
    mpf_srcptr x = r ? s.x[r - 1]->data : g->computer[0].data;
    mpf_srcptr y = r ? s.y[r - 1]->data : g->computer[1].data;
    mpf_srcptr len = s.core[r]->data;
    if (k > run->limit) {
      over = true;
    } else if (mpf_cmp_ui(len, STOREBOUND) >= 0) {
      e->flags |= E_ESCAPED;
      over = true;
    } else if (!reserve(context, run, k) ||
               (k > 0 && !(static_cast<UITER>(k) & HPVMASK) && !checkpoint(context, e, k, x, y))) {
      over = true;
      ok = false;
    } else {
      store(e, k, x, y, len, scratch);
      last = k;
    }
  }
  mpf_clear(scratch);
  if (over) {
    finish(context, run, last, ok);
    return;
  }
  run->base += NCOMPUTERSTRETCH;
  atomicstore(&g->stop, 0);
  setupitercomputergroup(context, g, splitgraph(g));
}

}  // namespace

bool startreference(OVCONTEXT* context, REALM* realm, mpf_t point[2], mp_bitcnt_t precision,
                    long limit, REFERENCERUN* run) {
  run->limit = limit;
  run->base = 0;
  run->capacity = 0;
  ENVIRONMENT* e = adde(context, point[0], point[1], precision);
  run->e = e;
  if (!e) {
    run->done.store(true);
    return false;
  }
  e->cf = cHF(mpf_get_HF(point[0]), mpf_get_HF(point[1]));
  bool split = (realm->flags & R_SPLITMUL) != 0;
  COMPUTERGROUP* g = &e->computergroup;
  initcomputergroup(context, g, split ? NCOMPUTER_ITERSPLIT : NCOMPUTER_ITER, precision);
  if (g->ncomputer == 0) {
    finish(context, run, -1, false);
    return true;
  }
  mpf_set(g->data[0], point[0]);
  mpf_set(g->data[1], point[1]);
  g->pdata[0] = run;
  g->pdata[1] = split ? run : nullptr;
  g->endcompute = referenceend;
  setupitercomputergroup(context, g, split);
  return true;
}
