// tilejob.cpp: one area through the engine, for orvanta-tile and its tests.
#include "tilejob.h"

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

namespace {

// Enough for one engine with one worker thread and the tiles of one area.
constexpr int64_t TILEMEMORY = int64_t(1) << 30;
constexpr int TILENTHREAD = 4;
constexpr int TILENTEXTURE = 32;
constexpr int TILEPRIORITY = 1;

struct MAINCALL {
  std::function<void(OVCONTEXT*)> fn;
  std::atomic<bool> done{false};
};

void worker_maincall(OVCONTEXT* context, WORKER* worker) {
  MAINCALL* call = static_cast<MAINCALL*>(worker->pdata[0]);
  call->fn(context);
  freeworker(context, worker);
  call->done.store(true);
}

// Runs fn on the engine's main thread, where areas and realms live, and waits.
bool onmain(OVCONTEXT* context, std::function<void(OVCONTEXT*)> fn) {
  MAINCALL call;
  call.fn = std::move(fn);
  WORKER* w = addworker(context, THREAD_MAIN, worker_maincall);
  if (!w) return false;
  w->pdata[0] = &call;
  dispatch(context, w);
  while (!call.done.load()) std::this_thread::sleep_for(std::chrono::microseconds(200));
  return true;
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
void setcorner(mpf_srcptr corner, int depth, const mpz_t index, std::string* out) {
  mpq_t t, c;
  mpq_inits(t, c, nullptr);
  mpq_set_z(t, index);
  if (depth >= 4) mpq_div_2exp(t, t, depth - 4);
  else mpq_mul_2exp(t, t, 4 - depth);
  mpq_set_f(c, corner);
  mpq_add(t, t, c);
  *out = dyadicdecimal(t);
  mpq_clears(t, c, nullptr);
}

}  // namespace

bool computetile(const TILEARGS& args, TILERESULT* result, std::string* error) {
  mpq_t point[2];
  mpq_inits(point[0], point[1], nullptr);
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
    mpq_clears(point[0], point[1], nullptr);
    return false;
  }

  REALM* realm = nullptr;
  onmain(context, [&](OVCONTEXT* c) { realm = addrealm(c, args.julia ? JULIA : MANDELBROT); });
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
      setcorner(top->hpvalue->v[0], args.depth, index[0], &result->cornerre);
      setcorner(top->hpvalue->v[1], args.depth, index[1], &result->cornerim);
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
      AREA* a = top;
      for (int level = args.depth - 1; level >= 0; level--) {
        subdivide(c, a);
        int bx = mpz_tstbit(index[0], level), by = mpz_tstbit(index[1], level);
        a = a->child[by ? (bx ? 2 : 3) : (bx ? 1 : 0)];
        if (!a) {
          ok = false;
          return;
        }
      }
      area = a;
    });
    if (!ok && error->empty())
      *error = area ? "the area tree ran out of records" : "the point lies outside the realm's square";
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
      result->format = formatname(canvasformat(word, area->depth));
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
  mpq_clears(point[0], point[1], nullptr);
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
  snprintf(buffer, sizeof buffer,
           ",\"ms\":%.3f,\"vertices_iterated\":%lld,\"iterations\":%lld,\"escaped\":%d,"
           "\"interior\":%d,\"unknown\":%d}",
           r.ms, static_cast<long long>(r.verticesiterated), static_cast<long long>(r.iterations),
           r.escaped, r.interior, r.unknown);
  return "{\"depth\":" + std::to_string(args.depth) + ",\"format\":\"" + r.format +
         "\",\"corner_re\":\"" + r.cornerre + "\",\"corner_im\":\"" + r.cornerim + "\"" + buffer;
}
