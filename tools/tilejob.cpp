// tilejob.cpp: one area through the engine, for orvanta-tile and its tests.
#include "tilejob.h"
#include "maincall.h"

#include <gmp.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>

#include "Mandelbrot.h"
#include "tileenv.h"

namespace {

// Enough for one engine with one worker thread and the tiles of one area.
constexpr int64_t TILEMEMORY = int64_t(1) << 30;
constexpr int TILENTHREAD = 4;
constexpr int TILENTEXTURE = 32;
constexpr int TILEPRIORITY = 1;

bool onmain(OVCONTEXT* context, const std::function<void(OVCONTEXT*)>& fn) {
  return runonmain(context, fn);
}

// Polls a condition on the main thread until it holds.
void waitonmain(OVCONTEXT* context, std::function<bool(OVCONTEXT*)> cond) {
  for (;;) {
    bool ok = false;
    onmain(context, [&](OVCONTEXT* c) { ok = cond(c); });
    if (ok) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

const char* formatname(unsigned int mode) {
  switch (mode) {
    case 16: return "float";
    case 32: return "double";
    case 48: return "longdouble";
    case 64: return "hfloat";
  }
  return "none";
}

// The index of the area of depth `depth` that holds coordinate `v` along one
// axis of a tree whose top corner is `corner`: floor((v - corner) / 2^(4 - depth)).
bool areaindex(const mpq_t v, mpf_srcptr corner, int depth, mpz_t index) {
  mpq_t t, c;
  mpq_inits(t, c, nullptr);
  mpq_set_f(c, corner);
  mpq_sub(t, v, c);
  // (v - corner) * 2^(depth - 4)
  if (depth >= 4) mpq_mul_2exp(t, t, depth - 4);
  else mpq_div_2exp(t, t, 4 - depth);
  mpz_fdiv_q(index, mpq_numref(t), mpq_denref(t));
  mpq_clears(t, c, nullptr);
  // Inside the square: 0 <= index < 2^depth.
  if (mpz_sgn(index) < 0) return false;
  return mpz_sgn(index) == 0 || mpz_sizeinbase(index, 2) <= static_cast<size_t>(depth);
}

// The exact corner of area `index`: corner + index * 2^(4 - depth).
void cornerof(mpf_srcptr corner, int depth, const mpz_t index, mpq_t out) {
  mpq_t c;
  mpq_init(c);
  mpq_set_z(out, index);
  if (depth >= 4) mpq_div_2exp(out, out, depth - 4);
  else mpq_mul_2exp(out, out, 4 - depth);
  mpq_set_f(c, corner);
  mpq_add(out, out, c);
  mpq_clear(c);
}

// Levels between an area and the ancestor that holds its exact corner: the
// path below it sums exactly in an HFLOAT, whose mantissa a longer path
// from the realm's top would overflow.
constexpr int EFFECTIVETOPLEVELS = 10;

// Makes the ancestor `a` at depth `depth` an effective top: its own exact
// corner, which the corner of every area below it is reckoned from.
bool makeeffectivetop(OVCONTEXT* context, AREA* a, mpf_srcptr top[2], const mpz_t index[2],
                      int depth, int shift) {
  if (a->hpvalue) return true;
  HPVALUE* h = addhpv(context, referenceprecision(depth + shift));
  if (!h) return false;
  mpz_t i;
  mpq_t q;
  mpz_init(i);
  mpq_init(q);
  for (int k = 0; k < 2; k++) {
    mpz_fdiv_q_2exp(i, index[k], shift);
    cornerof(top[k], depth, i, q);
    mpf_set_q(h->v[k], q);
  }
  mpz_clear(i);
  mpq_clear(q);
  a->hpvalue = h;
  a->nhpvalue = 1;
  updatedelchain(context, a);
  return true;
}

// Main thread: the area of depth `depth` at `index` under the realm's top,
// subdividing on the way; null when the tree ran out of records.
AREA* walkto(OVCONTEXT* context, REALM* realm, int depth, const mpz_t index[2]) {
  AREA* top = realm->top;
  mpf_srcptr corner[2] = {top->hpvalue->v[0], top->hpvalue->v[1]};
  int etop = depth - EFFECTIVETOPLEVELS;
  AREA* a = top;
  for (int level = depth - 1; level >= 0; level--) {
    if (a->depth == etop && etop > 0 && !makeeffectivetop(context, a, corner, index, etop, depth - etop))
      return nullptr;
    subdivide(context, a);
    int bx = mpz_tstbit(index[0], level), by = mpz_tstbit(index[1], level);
    a = a->child[by ? (bx ? 2 : 3) : (bx ? 1 : 0)];
    if (!a) return nullptr;
  }
  return a;
}

// The general realm's reference: chosen in the tile, its orbit run by the
// engine's graph, then handed to the area as an invalidation would hand the
// viewport's environment: attached, no series (prec -1), the corner relative
// to the reference as `ct`, no cubic start.
bool attachreference(OVCONTEXT* context, REALM* realm, AREA* area, const TILEARGS& args,
                     const mpq_t corner[2], std::string* error) {
  mp_bitcnt_t bits = referenceprecision(args.depth);
  mpf_t point[2];
  mpf_init2(point[0], bits);
  mpf_init2(point[1], bits);
  choosereference(corner, args.depth, args.referencelimit, args.referenceatcentre, point);
  REFERENCERUN run;
  onmain(context, [&](OVCONTEXT* c) { startreference(c, realm, point, bits, args.referencelimit, &run); });
  while (!run.done.load()) std::this_thread::sleep_for(std::chrono::microseconds(200));
  bool ok = run.ok;
  onmain(context, [&](OVCONTEXT* c) {
    if (!ok) {
      detache(c, run.e);
      return;
    }
    detache(c, area->e);
    area->e = run.e;
    area->prec = -1;
    mpf_t d;
    mpf_init2(d, bits);
    HFLOAT ct[2];
    for (int k = 0; k < 2; k++) {
      mpf_set_q(d, corner[k]);
      mpf_sub(d, d, run.e->c->v[k]);
      ct[k] = mpf_get_HF(d);
    }
    mpf_clear(d);
    area->ct = cHF(ct[0], ct[1]);
    area->interpoliter = 0;
    for (HFLOATCOMPLEX& t : area->interpoltaylor) t = CZEROH;
    if (args.preparearea) args.preparearea(area);
  });
  mpf_clear(point[0]);
  mpf_clear(point[1]);
  if (!ok) *error = "the reference orbit could not be computed";
  return ok;
}

}  // namespace

bool computetile(const TILEARGS& args, TILERESULT* result, std::string* error) {
  mpq_t point[2], corner[2];
  mpq_inits(point[0], point[1], corner[0], corner[1], nullptr);
  parsedecimal(args.re, point[0]);
  parsedecimal(args.im, point[1]);

  OVCONTEXT* context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
  void* tiles = aligned_alloc(4096, size_t(TILENTEXTURE) * TEXTUREBYTES);
  const char* tmp = getenv("TMPDIR");
  std::string tmpdirectory = tmp && *tmp ? tmp : "/tmp";
  if (tmpdirectory.back() != '/') tmpdirectory += '/';
  if (!context || !tiles ||
      !initcontext(context, TILEMEMORY, TILENTHREAD, 8, TILENTEXTURE, tiles, nullptr, nullptr,
                   nullptr, nullptr, nullptr, tmpdirectory.c_str(), 0)) {
    *error = "the engine could not start";
    free(tiles);
    free(context);
    mpq_clears(point[0], point[1], corner[0], corner[1], nullptr);
    return false;
  }

  REALMTYPE type = args.julia ? JULIA : args.general ? GENERAL : MANDELBROT;
  REALM* realm = nullptr;
  onmain(context, [&](OVCONTEXT* c) { realm = addrealm(c, type); });
  bool ok = realm != nullptr;
  if (!ok) *error = "no realm could be made";
  if (ok) waitonmain(context, [&](OVCONTEXT*) { return realm->top && realm->top->hpvalue; });

  mpz_t index[2];
  mpz_inits(index[0], index[1], nullptr);
  AREA* area = nullptr;
  if (ok) {
    onmain(context, [&](OVCONTEXT* c) {
      AREA* top = realm->top;
      for (int k = 0; k < 2; k++) {
        if (!areaindex(point[k], top->hpvalue->v[k], args.depth, index[k])) ok = false;
      }
      if (!ok) return;
      for (int k = 0; k < 2; k++) cornerof(top->hpvalue->v[k], args.depth, index[k], corner[k]);
      result->cornerre = dyadicdecimal(corner[0]);
      result->cornerim = dyadicdecimal(corner[1]);
      if (args.hasflags) realm->flags = args.flags;
      if (args.format) realm->flags = (realm->flags & ~R_PRECMASK) | args.format;
      if (args.julia) {
        realm->info.c = addhpv(c, 64 + 2 * static_cast<mp_bitcnt_t>(args.depth) + 64);
        mpq_t q;
        mpq_init(q);
        parsedecimal(args.juliare, q);
        mpf_set_q(realm->info.c->v[0], q);
        parsedecimal(args.juliaim, q);
        mpf_set_q(realm->info.c->v[1], q);
        mpq_clear(q);
      }
      area = walkto(c, realm, args.depth, index);
      if (!area) ok = false;
    });
    if (!ok && error->empty())
      *error = result->cornerre.empty() ? "the point lies outside the realm's square"
                                        : "the area tree ran out of records";
  }

  if (ok && args.general) {
    auto start = std::chrono::steady_clock::now();
    ok = attachreference(context, realm, area, args, corner, error);
    result->referencems =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  }

  auto start = std::chrono::steady_clock::now();
  const unsigned int channels = args.channels | 8u;
  if (ok) {
    onmain(context, [&](OVCONTEXT* c) {
      area->channels = channels;
      area->priority = TILEPRIORITY;
      processarea(c, area);
    });
    waitonmain(context, [&](OVCONTEXT*) {
      if (area->worker || !(area->flags & A_PRECALCULATED)) return false;
      for (int ch = 0; ch < NCHANNELS; ch++) {
        if ((channels >> ch & 1) && !(area->texture[ch] && area->texture[ch]->pixels)) return false;
      }
      return true;
    });
    result->ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    onmain(context, [&](OVCONTEXT*) {
      unsigned int word = (realm->flags & R_PRECMASK) | (args.julia ? CF_JULIA : CF_GENERAL);
      // The general realm's job had the area's environment with its orbit;
      // the area may have given it back by now.
      result->format = formatname(canvasformat(word, area->depth, !args.general));
      result->verticesiterated = area->statvertices;
      result->iterations = area->statiterations;
      for (int ch = 0; ch < NCHANNELS; ch++) {
        if (!(channels >> ch & 1)) continue;
        const float* p = static_cast<const float*>(area->texture[ch]->pixels);
        result->channel[ch].assign(p, p + TEXTURESIZE * TEXTURESIZE);
      }
    });
    for (float v : result->channel[3]) {
      if (v > 0) result->escaped++;
      else if (v < 0) result->interior++;
      else result->unknown++;
    }
  }

  if (realm) onmain(context, [&](OVCONTEXT* c) { __detachrealm(c, realm); });
  shutdowncontext(context, false);
  freecontext(context);
  free(context);
  free(tiles);
  mpz_clears(index[0], index[1], nullptr);
  mpq_clears(point[0], point[1], corner[0], corner[1], nullptr);
  return ok;
}

bool writetiles(const TILEARGS& args, const TILERESULT& result, std::string* error) {
  for (int ch = 0; ch < 9; ch++) {
    if (!(args.channels >> ch & 1)) continue;
    std::string name = args.out + ".ch" + std::to_string(ch) + ".f32";
    FILE* f = fopen(name.c_str(), "wb");
    // The machine is little-endian, as the file format is.
    bool written = f && fwrite(result.channel[ch].data(), sizeof(float), result.channel[ch].size(), f) ==
                            result.channel[ch].size();
    if (f && fclose(f) != 0) written = false;
    if (!written) {
      *error = "cannot write " + name + ": " + strerror(errno);
      return false;
    }
  }
  return true;
}

std::string tilejson(const TILEARGS& args, const TILERESULT& r) {
  char buffer[512];
  std::string reference;
  if (args.general) {
    char ref[64];
    snprintf(ref, sizeof ref, ",\"reference_ms\":%.3f", r.referencems);
    reference = ref;
  }
  snprintf(buffer, sizeof buffer,
           ",\"ms\":%.3f%s,\"vertices_iterated\":%lld,\"iterations\":%lld,\"escaped\":%d,"
           "\"interior\":%d,\"unknown\":%d}",
           r.ms, reference.c_str(), static_cast<long long>(r.verticesiterated), static_cast<long long>(r.iterations),
           r.escaped, r.interior, r.unknown);
  return "{\"depth\":" + std::to_string(args.depth) + ",\"format\":\"" + r.format +
         "\",\"corner_re\":\"" + r.cornerre + "\",\"corner_im\":\"" + r.cornerim + "\"" + buffer;
}
