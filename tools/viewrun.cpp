// viewrun.cpp: one view through the engine without a display.
#include "viewrun.h"
#include "maincall.h"

#include <gmp.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "tileargs.h"

namespace {

constexpr int VIEWPRIORITY = 1;
// Bits kept beyond the zoom's exponent in the position given to the engine.
constexpr mp_bitcnt_t POSITIONBITS = 96;

double nowms() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}


const char* eventname(int event) {
  switch (event) {
    case VPCALLBACK_FINISH: return "VPCALLBACK_FINISH";
    case VPCALLBACK_JSTFINISH: return "VPCALLBACK_JSTFINISH";
    case VPCALLBACK_EMERGENCY: return "VPCALLBACK_EMERGENCY";
  }
  return "VPCALLBACK_UNKNOWN";
}

// Main thread, after each status round: the view's line when it changed.
void publishstatus(OVCONTEXT*, void* pdata) {
  VIEWRUN* run = static_cast<VIEWRUN*>(pdata);
  VIEWPORT* v = run->viewport.load();
  if (!v || !atomicload(&v->drawactive) || v->s2[0] == 0) return;
  if (run->laststatus == v->s2) return;
  run->laststatus = v->s2;
  if (run->sink) run->sink(std::string("status: ") + v->s2);
}

void finished(OVCONTEXT* context, VIEWPORT* v, int event, void* pdata) {
  VIEWRUN* run = static_cast<VIEWRUN*>(pdata);
  // The status line of the finished view, before the event that ends it.
  composestrings(context, v);
  publishstatus(context, run);
  if (event >= 0 && event < 3) run->events[event].fetch_add(1);
  char line[128];
  snprintf(line, sizeof line, "event: %s %.1f ms", eventname(event), nowms() - run->activated);
  if (run->sink) run->sink(line);
}

// Tiles enough for every area a view of this size files in its channels,
// with room for the ancestors it draws from and the list after a move.
int tilesfor(const VIEWARGS& args) {
  int nchannels = __builtin_popcount(args.channels);
  return 64 + 8 * nchannels * (args.width / 256 + 2) * (args.height / 256 + 2);
}

// Two canvases per worker thread, and room for everything else.
int64_t memoryfor(const VIEWARGS& args) {
  int64_t canvases = 2 * static_cast<int64_t>(args.nthread - 3) * static_cast<int64_t>(sizeof(CANVAS0));
  return canvases + (int64_t(512) << 20);
}

// The zoom the arguments ask for: its modulus turned by the angle, exact at
// quarter turns.
HFLOATCOMPLEX zoomof(const VIEWARGS& args, mpf_srcptr modulus) {
  double a = args.angle * M_PI / 180.0;
  double c = std::cos(a), s = std::sin(a);
  if (std::fabs(c) < 1e-15) c = 0;
  if (std::fabs(s) < 1e-15) s = 0;
  return cmulHF(cHF(mpf_get_HF(modulus), ZEROH), cHFd(complexd(c, s)));
}

bool place(VIEWRUN* run, std::string* error) {
  mpf_t modulus, x, y;
  mpf_init2(modulus, 128);
  if (!viewzoommodulus(run->args, modulus)) {
    mpf_clear(modulus);
    *error = "no zoom";
    return false;
  }
  long e2;
  mpf_get_d_2exp(&e2, modulus);
  mp_bitcnt_t bits = (e2 > 0 ? static_cast<mp_bitcnt_t>(e2) : 0) + POSITIONBITS;
  mpf_init2(x, bits);
  mpf_init2(y, bits);
  mpq_t q;
  mpq_init(q);
  parsedecimal(run->args.re, q);
  mpf_set_q(x, q);
  parsedecimal(run->args.im, q);
  mpf_set_q(y, q);
  mpq_clear(q);
  moveviewportabsolute(run->context, run->viewport.load(), x, y, zoomof(run->args, modulus), -1, -1);
  mpf_clears(modulus, x, y, nullptr);
  return true;
}

}  // namespace

POOLCOUNTS poolcounts(OVCONTEXT* c) {
  return POOLCOUNTS{c->ia, c->itexture, c->ihpvalue, atomicload(&c->ienvironment),
                    atomicload(&c->iworkerall), c->itask};
}

std::string poolstext(const POOLCOUNTS& p) {
  char s[160];
  snprintf(s, sizeof s, "ia %d itexture %d ihpvalue %d ienvironment %d iworkerall %d itask %d", p.ia,
           p.itexture, p.ihpvalue, p.ienvironment, p.iworkerall, p.itask);
  return s;
}

bool viewonmain(VIEWRUN* run, const std::function<void(OVCONTEXT*)>& fn) {
  return runonmain(run->context, fn);
}

bool startviewrun(VIEWRUN* run, const VIEWARGS& args, VIEWSINK sink, std::string* error) {
  run->args = args;
  run->sink = std::move(sink);
  run->context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
  int ntexture = tilesfor(args);
  run->tiles = aligned_alloc(4096, size_t(ntexture) * TEXTUREBYTES);
  const char* tmp = getenv("TMPDIR");
  std::string tmpdirectory = tmp && *tmp ? tmp : "/tmp";
  if (tmpdirectory.back() != '/') tmpdirectory += '/';
  if (!run->context || !run->tiles ||
      !initcontext(run->context, memoryfor(args), args.nthread, 8, ntexture, run->tiles, nullptr,
                   nullptr, nullptr, publishstatus, run, tmpdirectory.c_str(), 0)) {
    *error = "the engine could not start";
    free(run->tiles);
    free(run->context);
    run->tiles = nullptr;
    run->context = nullptr;
    return false;
  }
  viewonmain(run, [&](OVCONTEXT* c) { run->start = poolcounts(c); });
  run->realm = addrealm(run->context, GENERAL);
  run->juliarealm = addrealm(run->context, JULIA);
  if (!run->realm || !run->juliarealm) {
    *error = "no realm could be made";
    return false;
  }
  viewonmain(run, [&](OVCONTEXT*) {
    if (args.hasflags) run->realm->flags = args.flags;
  });
  VIEWPORT* v = addviewport(run->context, run->realm, run->juliarealm, args.width, args.height,
                            finished, run);
  if (!v) {
    *error = "no view could be made";
    return false;
  }
  run->viewport.store(v);
  viewonmain(run, [&](OVCONTEXT*) { v->channels = args.channels; });
  if (args.positioned && !place(run, error)) return false;
  // The moves have been applied: an inactive view takes its position and
  // starts nothing.
  viewonmain(run, [](OVCONTEXT*) {});
  run->activated = nowms();
  activateviewport(run->context, v, VIEWPRIORITY);
  return true;
}

namespace {

// The environment a view computes against is set on the main thread (by the
// scan's acceptance or its standard one), so it is looked at there.
void notereference(VIEWRUN* run) {
  bool has = false;
  viewonmain(run, [&](OVCONTEXT*) {
    VIEWPORT* v = run->viewport.load();
    has = v && (v->esat || v->enonsat);
  });
  if (has) run->referenced = nowms();
}

}  // namespace

bool waitviewfinish(VIEWRUN* run, int n, double timeout) {
  constexpr double LOOKMS = 5;
  double end = nowms() + timeout * 1000;
  double nextlook = 0;
  while (run->events[VPCALLBACK_FINISH].load() < n) {
    if (timeout > 0 && nowms() > end) return false;
    if (run->args.watchreference && run->referenced == 0 && nowms() >= nextlook) {
      notereference(run);
      nextlook = nowms() + LOOKMS;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (run->args.watchreference && run->referenced == 0) notereference(run);
  return true;
}

void stopviewrun(VIEWRUN* run) {
  if (!run->context) return;
  VIEWPORT* v = run->viewport.exchange(nullptr);
  if (v) {
    deactivateviewport(run->context, v);
    detachviewport(run->context, v);
  }
  if (run->realm) detachrealm(run->context, run->realm);
  if (run->juliarealm) detachrealm(run->context, run->juliarealm);
  run->realm = run->juliarealm = nullptr;
  // Stopped jobs come home and give back their areas' realms.
  for (;;) {
    int n = 0;
    viewonmain(run, [&](OVCONTEXT* c) { n = atomicload(&c->iworkerall); });
    if (n <= 1) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void endviewrun(VIEWRUN* run) {
  if (!run->context) return;
  shutdowncontext(run->context, false);
  freecontext(run->context);
  free(run->context);
  free(run->tiles);
  run->context = nullptr;
  run->tiles = nullptr;
}

int runview(const VIEWARGS& args, VIEWSINK sink, std::string* error) {
  VIEWRUN run;
  int code = 1;
  if (startviewrun(&run, args, std::move(sink), error))
    code = waitviewfinish(&run, 1, args.timeout) ? 0 : 3;
  stopviewrun(&run);
  endviewrun(&run);
  return code;
}
