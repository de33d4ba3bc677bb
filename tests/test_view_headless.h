// One view of the general realm run to completion without a display, and
// what is held against it: the areas it waits for have their tiles, the
// published list covers every pixel of the screen, channel 3 agrees with an
// independent iteration in GMP, and every pool goes back to where it started
// once the view and its realms are gone.
#pragma once

#include <gmp.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "test_viewport.h"
#include "viewrun.h"

namespace viewheadless {

using viewporttest::RECTCOPY;

struct RUN {
  VIEWRUN run;
  std::mutex lock;
  std::vector<std::string> lines;

  std::vector<std::string> output() {
    std::lock_guard<std::mutex> g(lock);
    return lines;
  }
};

// The screen of the proof, 1024 x 768, and one worker thread: one canvas.
inline VIEWARGS smallargs() {
  VIEWARGS a;
  a.width = 1024;
  a.height = 768;
  a.nthread = 4;
  return a;
}

// A view of 128 x 96 on two worker threads centred at (re, im), with a
// longer side of `span`, with the realm's start flags.
inline VIEWARGS placedargs(const std::string& re, const std::string& im, const std::string& span) {
  VIEWARGS a = smallargs();
  a.width = 128;
  a.height = 96;
  a.nthread = 5;  // two worker threads
  a.positioned = true;
  a.re = re;
  a.im = im;
  a.span = span;
  a.hasflags = true;
  a.flags = R_DEFAULT;
  return a;
}

inline bool start(RUN& r, const VIEWARGS& args) {
  std::string error;
  bool ok = startviewrun(&r.run, args, [&r](const std::string& line) {
    std::lock_guard<std::mutex> g(r.lock);
    r.lines.push_back(line);
  }, &error);
  EXPECT_TRUE(ok) << error;
  return ok;
}

inline void onmain(RUN& r, const std::function<void(OVCONTEXT*)>& fn) {
  ASSERT_TRUE(viewonmain(&r.run, fn));
}

inline int currentlist(const VIEWPORT* v) { return (v->flags & VP_SWAPVIEWPORTAREA) ? 0 : 1; }

// Every entry of the current list that asks for work has its tiles in every
// channel of the view, and no job left. Gives the number of such entries.
inline int checkfinished(RUN& r) {
  int wanted = 0;
  onmain(r, [&](OVCONTEXT*) {
    VIEWPORT* v = r.run.viewport.load();
    int i = currentlist(v);
    EXPECT_GT(v->iviewportarea[i], 0);
    EXPECT_EQ(v->ivainvalid, 0);
    for (int n = 0; n < v->iviewportarea[i]; n++) {
      const VIEWPORTAREA& va = v->viewportarea[i][n];
      if (va.priority <= 0 || va.priority == PRIO_KEEP) continue;
      wanted++;
      AREA* a = va.a;
      EXPECT_EQ(a->worker, nullptr);
      EXPECT_TRUE(a->flags & A_PRECALCULATED) << "depth " << a->depth;
      EXPECT_TRUE(isdrawable(v, a)) << "depth " << a->depth;
      for (int ch = 0; ch < NCHANNELS; ch++) {
        if (!(v->channels >> ch & 1)) continue;
        ASSERT_NE(a->texture[ch], nullptr) << "channel " << ch;
        EXPECT_NE(a->texture[ch]->pixels, nullptr);
        EXPECT_TRUE(a->texture[ch]->flags & T_GLVALID);
      }
    }
  });
  EXPECT_GT(wanted, 0);
  return wanted;
}

// The published list, rasterised: the centre of every screen pixel falls in
// some rectangle. Gives the number of rectangles.
inline int checkcoverage(RUN& r) {
  int nrect = 0;
  onmain(r, [&](OVCONTEXT*) {
    VIEWPORT* v = r.run.viewport.load();
    std::vector<RECTCOPY> rects = viewporttest::publishedlist(v);
    nrect = static_cast<int>(rects.size());
    ASSERT_FALSE(rects.empty());
    const int W = r.run.args.width, H = r.run.args.height;
    const double pixel = 2.0 / std::max(W, H);  // screen units per pixel
    const double x0 = v->z0.real(), y0 = v->z0.imag();
    std::vector<unsigned char> covered(static_cast<size_t>(W) * H, 0);
    for (const RECTCOPY& q : rects) {
      double lox = 1e300, hix = -1e300, loy = 1e300, hiy = -1e300;
      for (const auto& c : q.c) {
        lox = std::min(lox, c.real()), hix = std::max(hix, c.real());
        loy = std::min(loy, c.imag()), hiy = std::max(hiy, c.imag());
      }
      int i0 = std::max(0, static_cast<int>(std::floor((lox - x0) / pixel - 0.5)));
      int i1 = std::min(W - 1, static_cast<int>(std::ceil((hix - x0) / pixel - 0.5)));
      int j0 = std::max(0, static_cast<int>(std::floor((loy - y0) / pixel - 0.5)));
      int j1 = std::min(H - 1, static_cast<int>(std::ceil((hiy - y0) / pixel - 0.5)));
      for (int j = j0; j <= j1; j++)
        for (int i = i0; i <= i1; i++) {
          std::complex<double> s(x0 + (i + 0.5) * pixel, y0 + (j + 0.5) * pixel);
          double u, w;
          if (viewporttest::inrect(q, s, &u, &w)) covered[static_cast<size_t>(j) * W + i] = 1;
        }
    }
    int gaps = 0, first = -1;
    for (size_t k = 0; k < covered.size(); k++)
      if (!covered[k]) {
        if (first < 0) first = static_cast<int>(k);
        gaps++;
      }
    EXPECT_EQ(gaps, 0) << "first uncovered pixel " << first % W << "," << first / W;
  });
  return nrect;
}

// The escape count of c in the tiles' convention: the number of steps of
// z <- z^2 + c taken while the next z stays within radius 2; -1 within
// `limit`.
inline long gmpcount(mpf_srcptr cr, mpf_srcptr ci, long limit) {
  mp_bitcnt_t bits = mpf_get_prec(cr);
  mpf_t x, y, xx, yy, t;
  mpf_inits(x, y, xx, yy, t, nullptr);
  for (mpf_ptr m : {x, y, xx, yy, t}) mpf_set_prec(m, bits);
  long result = -1;
  for (long n = 0; n < limit; n++) {
    mpf_mul(t, x, y);
    mpf_mul_2exp(t, t, 1);
    mpf_add(y, t, ci);
    mpf_sub(x, xx, yy);
    mpf_add(x, x, cr);
    mpf_mul(xx, x, x);
    mpf_mul(yy, y, y);
    mpf_add(t, xx, yy);
    if (mpf_cmp_ui(t, 4) > 0) {
      result = n;
      break;
    }
  }
  mpf_clears(x, y, xx, yy, t, nullptr);
  return result;
}

// Next to minibrots some counts are dust: GMP's own count jumps by whole
// periods when c moves by a minute part of a texel, below what the tile's
// number format can place. A count is dust when GMP's count changes within
// 2^-DUSTSHIFT texel of the point; such a texel has no single right count.
constexpr int DUSTSHIFT = 40;

inline bool dustpoint(mpf_srcptr cr, mpf_srcptr ci, int texelexp, long g, long limit) {
  mp_bitcnt_t bits = mpf_get_prec(cr) + DUSTSHIFT + 16;
  mpf_t x, y, d;
  mpf_inits(x, y, d, nullptr);
  for (mpf_ptr m : {x, y, d}) mpf_set_prec(m, bits);
  bool dust = false;
  for (int k = 0; k < 4 && !dust; k++) {
    mpf_set_si(d, k & 1 ? 1 : -1);
    int e = texelexp - DUSTSHIFT;
    if (e >= 0) mpf_mul_2exp(d, d, static_cast<mp_bitcnt_t>(e));
    else mpf_div_2exp(d, d, static_cast<mp_bitcnt_t>(-e));
    mpf_set(x, cr);
    mpf_set(y, ci);
    mpf_add(k < 2 ? x : y, k < 2 ? x : y, d);
    dust = gmpcount(x, y, limit) != g;
  }
  mpf_clears(x, y, d, nullptr);
  return dust;
}

struct CHANNEL3 {
  int sampled = 0;
  int escaped = 0;      // the tile has a count
  int equal = 0;        // ... and GMP agrees exactly
  int unequal = 0;      // ... and GMP gives another count
  int dust = 0;         // ... another, but GMP's own count changes within 2^-40 texel
  int interior = 0;     // the tile says inside
  int falseescape = 0;  // a count where GMP stays bounded for 10 times as long
  int falseinterior = 0;
  int misplaced = 0;    // the texel isn't shown where the view puts its point
  int zero = 0;         // the tile has no count: the point leaves at once, or is unknown
  int zeroleaving = 0;  // ... and GMP says it leaves at once
  int zerointerior = 0; // ... and GMP finds it bounded
  std::vector<std::string> bad;
};

// Samples an n by n grid of screen points: each one's texel in the
// published list, its exact point from the area's exact corner, its
// position on screen from the view's exact centre and zoom, and its count
// against GMP.
inline CHANNEL3 checkchannel3(RUN& r, int n, long limit) {
  CHANNEL3 out;
  onmain(r, [&](OVCONTEXT*) {
    VIEWPORT* v = r.run.viewport.load();
    std::vector<RECTCOPY> rects = viewporttest::publishedlist(v);
    mp_bitcnt_t bits = v->precision + 64;
    mpf_t cr, ci, t, dx, dy;
    mpf_inits(cr, ci, t, dx, dy, nullptr);
    for (mpf_ptr m : {cr, ci, t, dx, dy}) mpf_set_prec(m, bits);
    for (int sy = 0; sy < n; sy++)
      for (int sx = 0; sx < n; sx++) {
        std::complex<double> s(v->z0.real() + (sx + 0.5) / n * (v->z1.real() - v->z0.real()),
                               v->z0.imag() + (sy + 0.5) / n * (v->z1.imag() - v->z0.imag()));
        const RECTCOPY* hit = nullptr;
        double u = 0, w = 0;
        for (const RECTCOPY& q : rects)
          if (viewporttest::inrect(q, s, &u, &w) &&
              (!hit || std::abs(q.c[1] - q.c[0]) < std::abs(hit->c[1] - hit->c[0])))
            hit = &q;
        if (!hit) continue;
        viewporttest::inrect(*hit, s, &u, &w);
        int k = 0;
        while (k < hit->ichannels && hit->channel[k] != 3) k++;
        if (k == hit->ichannels) continue;
        AREA* a = hit->area[k];
        int tx = hit->x0 + static_cast<int>(u * (hit->x1 - hit->x0));
        int ty = hit->y0 + static_cast<int>(w * (hit->y1 - hit->y0));
        float value = static_cast<const float*>(hit->texture[k]->pixels)[ty * TEXTURESIZE + tx];
        // The texel's centre: corner + (2 t + 1) 2^(4 - depth - 9).
        HFLOATCOMPLEX off;
        HPVALUE* base = getcoordarel(a, &off);
        mpf_set_HFexact(t, crealHF(off));
        mpf_add(cr, base->v[0], t);
        mpf_set_HFexact(t, cimagHF(off));
        mpf_add(ci, base->v[1], t);
        for (int axis = 0; axis < 2; axis++) {
          mpf_set_ui(t, static_cast<unsigned long>(2 * (axis ? ty : tx) + 1));
          int e = 4 - a->depth - 9;
          if (e >= 0) mpf_mul_2exp(t, t, static_cast<mp_bitcnt_t>(e));
          else mpf_div_2exp(t, t, static_cast<mp_bitcnt_t>(-e));
          mpf_add(axis ? ci : cr, axis ? ci : cr, t);
        }
        // Where the view shows that point, against where the list puts it.
        mpf_sub(dx, cr, v->delta->v[0]);
        mpf_sub(dy, ci, v->delta->v[1]);
        std::complex<double> shown = cdHF(cmulHF(cHF(mpf_get_HF(dx), mpf_get_HF(dy)), v->zoom));
        double fu = (tx + 0.5 - hit->x0) / (hit->x1 - hit->x0), fw = (ty + 0.5 - hit->y0) / (hit->y1 - hit->y0);
        std::complex<double> listed = hit->c[0] + fu * (hit->c[1] - hit->c[0]) + fw * (hit->c[3] - hit->c[0]);
        double texel = std::abs(hit->c[1] - hit->c[0]) / (hit->x1 - hit->x0);
        if (std::abs(shown - listed) > 0.75 * texel + 1e-6) out.misplaced++;
        out.sampled++;
        char where[400];
        gmp_snprintf(where, sizeof where, "texel %d,%d of depth %d at %.60Fg %.60Fg", tx, ty, a->depth, cr, ci);
        if (value > 0) {
          out.escaped++;
          long glimit = 10 * std::max<long>(limit, static_cast<long>(value));
          long g = gmpcount(cr, ci, glimit);
          if (g < 0) {
            out.falseescape++;
            out.bad.push_back(std::string(where) + ": tile " + std::to_string(value) + ", GMP bounded");
          } else if (g == static_cast<long>(value)) {
            out.equal++;
          } else if (dustpoint(cr, ci, -4 - a->depth, g, glimit)) {
            out.dust++;
            if (out.bad.size() < 8)
              out.bad.push_back(std::string(where) + ": tile " + std::to_string(value) + ", GMP " +
                                std::to_string(g) + ", which changes within 2^-40 texel");
          } else {
            out.unequal++;
            if (out.bad.size() < 8)
              out.bad.push_back(std::string(where) + ": tile " + std::to_string(value) + ", GMP " +
                                std::to_string(g));
          }
        } else if (value == 0) {
          out.zero++;
          long g = gmpcount(cr, ci, limit);
          out.zeroleaving += g == 0;
          out.zerointerior += g < 0;
        } else if (value < 0) {
          out.interior++;
          if (gmpcount(cr, ci, limit) >= 0) {
            out.falseinterior++;
            if (out.bad.size() < 8) out.bad.push_back(std::string(where) + ": tile interior, GMP escapes");
          }
        }
      }
    mpf_clears(cr, ci, t, dx, dy, nullptr);
  });
  return out;
}

// Once the view is complete every sampled count is the exact one: each
// texel is its own point iterated against the reference, so a count off by
// one is a wrong texel.
inline void checkexact(const CHANNEL3& c) {
  EXPECT_EQ(c.unequal, 0);
  EXPECT_EQ(c.equal, c.escaped - c.falseescape - c.dust);
  EXPECT_LE(c.dust * 100, c.sampled);
}

inline void report(const CHANNEL3& c) {
  printf("  channel 3: %d sampled, %d escaped (%d equal, %d not, %d dust), %d interior, %d false escapes, "
         "%d false interior, %d misplaced; %d without a count (%d leave at once, %d bounded)\n",
         c.sampled, c.escaped, c.equal, c.unequal, c.dust, c.interior, c.falseescape, c.falseinterior, c.misplaced, c.zero,
         c.zeroleaving, c.zerointerior);
  for (const std::string& b : c.bad) printf("    %s\n", b.c_str());
}

// The view and both realms let go: every pool is where it was when the
// engine had just started.
// The last messages of a stopped run (an idle graph's end, a Newton run's
// return) may still be on their way when its workers are home: the pools
// are given ten seconds to get there.
inline void checkpools(RUN& r) {
  stopviewrun(&r.run);
  POOLCOUNTS now{};
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (;;) {
    onmain(r, [&](OVCONTEXT* c) { now = poolcounts(c); });
    if (now == r.run.start || std::chrono::steady_clock::now() > until) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(now, r.run.start) << "now " << poolstext(now) << "; at start " << poolstext(r.run.start);
}

// The whole proof for one view: run to its finishing event, its list and
// tiles, channel 3 on an n by n sample, its output, and the pools after.
inline void runandcheck(const VIEWARGS& args, int samples, long limit) {
  RUN r;
  ASSERT_TRUE(start(r, args));
  ASSERT_TRUE(waitviewfinish(&r.run, 1, 0));
  int wanted = checkfinished(r);
  int nrect = checkcoverage(r);
  CHANNEL3 c = checkchannel3(r, samples, limit);
  printf("  %d areas wanted, %d rectangles drawn\n", wanted, nrect);
  report(c);
  EXPECT_GE(c.sampled, samples * samples * 9 / 10);
  EXPECT_GT(c.escaped, c.sampled / 4);
  EXPECT_EQ(c.misplaced, 0);
  EXPECT_EQ(c.falseescape, 0);
  EXPECT_EQ(c.falseinterior, 0);
  checkexact(c);
  EXPECT_EQ(c.zero, c.zeroleaving + c.zerointerior);
  // The run's own output: status lines, and the one finishing event after
  // at least one of them. The idle search goes on once the view is
  // complete, so its status lines may follow the event.
  std::vector<std::string> out = r.output();
  ASSERT_FALSE(out.empty());
  int status = 0, finishes = 0, statusbefore = 0;
  for (const std::string& l : out) {
    status += l.rfind("status: ", 0) == 0;
    if (l.rfind("event: VPCALLBACK_FINISH", 0) == 0) {
      finishes++;
      statusbefore = status;
    }
  }
  EXPECT_EQ(finishes, 1);
  EXPECT_GE(statusbefore, 1);
  checkpools(r);
  endviewrun(&r.run);
}

}  // namespace viewheadless
