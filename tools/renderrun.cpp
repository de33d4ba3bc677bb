// The renderer's run: the engine computes the view exactly as for the live
// display, with its tiles kept in memory; once the view is finished its
// newest draw list is uploaded, drawn off-screen with the colour scheme, read
// back and written.
#include <glad/gl.h>
// after the loader
#include "renderrun.h"
#include "maincall.h"

#include <gmp.h>
#include <png.h>
#include <sys/stat.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <thread>

#include "Mandelbrot.h"
#include "MandelbrotColorscheme.h"
#include "canvas.h"
#include "displaygl.h"
#include "eglcontext.h"
#include "tileargs.h"

namespace {

typedef std::chrono::steady_clock CLOCK;

double since(CLOCK::time_point t) { return std::chrono::duration<double>(CLOCK::now() - t).count(); }

// ---------------------------------------------------------------- the engine's main thread

bool onmain(OVCONTEXT* context, const std::function<void(OVCONTEXT*)>& fn) {
  return runonmain(context, fn);
}

// ---------------------------------------------------------------- colour scheme hooks
//
// The engine counts a view's schemes and asks them which channels to
// compute; the renderer may want channel 3 besides, for its own output.

unsigned int extrachannels = 0;

void hookattach(COLORSCHEME* cs) { attachcs(cs); }
void hookdetach(OVCONTEXT*, COLORSCHEME* cs) { detachcs(cs); }
unsigned int hookchannels(const COLORSCHEME* cs) {
  return (static_cast<unsigned int>(cs->channels) & 0x1ffu) | extrachannels;
}

// ---------------------------------------------------------------- the run's state

struct RUN {
  OVCONTEXT* context = nullptr;
  void* tiles = nullptr;
  int ntexture = 0;
  REALM* realm = nullptr;
  REALM* juliarealm = nullptr;  // the stack and seeds of a general view
  VIEWPORT* v = nullptr;
  JDICT* schemes = nullptr;
  EGLOFFSCREEN* gl = nullptr;
  std::vector<GLuint> names;  // GL texture of each storage tile, 0 for none
  std::atomic<int> finished{0};
};

void finishcallback(OVCONTEXT*, VIEWPORT*, int event, void* pdata) {
  if (event == VPCALLBACK_FINISH) static_cast<RUN*>(pdata)->finished.fetch_add(1);
}

bool startengine(const RENDERARGS& args, RUN* run, std::string* error) {
  run->context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
  // A tile is a quarter MB: a quarter of the budget holds as many tiles as
  // the budget has MB, the rest is the engine's pools.
  run->ntexture = args.memory;
  run->tiles = aligned_alloc(4096, static_cast<size_t>(run->ntexture) * TEXTUREBYTES);
  int processors = static_cast<int>(std::thread::hardware_concurrency());
  int nthread = args.threads ? args.threads + 3 : std::max(5, processors + 1);
  const char* tmp = getenv("TMPDIR");
  std::string tmpdirectory = tmp && *tmp ? tmp : "/tmp";
  if (tmpdirectory.back() != '/') tmpdirectory += '/';
  if (!run->context || !run->tiles ||
      !initcontext(run->context, static_cast<int64_t>(args.memory) << 20, nthread, 8, run->ntexture,
                   run->tiles, nullptr, nullptr, nullptr, nullptr, nullptr, tmpdirectory.c_str(),
                   0)) {
    free(run->tiles);
    free(run->context);
    run->context = nullptr;
    run->tiles = nullptr;
    *error = "the engine could not start";
    return false;
  }
  run->names.assign(static_cast<size_t>(run->ntexture), 0);
  // The engine gives a computing thread two canvases' worth of the budget;
  // a budget that leaves none would wait for ever.
  if (run->context->nthread <= 3) {
    int64_t least = (2 * static_cast<int64_t>(sizeof(CANVAS0)) >> 20) + 1;
    *error = "--memory " + std::to_string(args.memory) + " leaves the engine no computing thread; " +
             "it needs at least " + std::to_string(least);
    return false;
  }
  return true;
}

void setexact(mpf_t m, const std::string& decimal) {
  mpq_t q;
  mpq_init(q);
  parsedecimal(decimal, q);
  mpf_set_q(m, q);
  mpq_clear(q);
}

// |zoom| as an exact number of `bits`: Z/2, or the screen's width over W.
void zoommagnitude(const RENDERARGS& a, mpf_t m) {
  if (!a.width.empty()) {
    setexact(m, a.width);
    mpf_ui_div(m, 1, m);
    mpf_t e;
    mpf_init2(e, 64);
    mpf_set_d(e, a.w >= a.h ? 2.0 * a.w / a.h : 2.0);
    mpf_mul(m, m, e);
    mpf_clear(e);
  } else if (!a.zoom.empty()) {
    setexact(m, a.zoom);
    mpf_div_ui(m, m, 2);
  } else {
    mpf_set_d(m, 0.5);
  }
}

REALMTYPE realmtype(const RENDERARGS& args) { return args.julia ? JULIA : GENERAL; }

bool makerealm(const RENDERARGS& args, RUN* run, mp_bitcnt_t bits, std::string* error) {
  OVCONTEXT* c = run->context;
  run->realm = addrealm(c, realmtype(args));
  // A general view finds its references by the environments' scan, which
  // keeps its Julia stack and seeds in a Julia realm of its own.
  if (run->realm && !args.julia) run->juliarealm = addrealm(c, JULIA);
  if (!run->realm || (!args.julia && !run->juliarealm)) {
    *error = "no realm could be made";
    return false;
  }
  for (bool ready = false; !ready; std::this_thread::sleep_for(std::chrono::milliseconds(1)))
    onmain(c, [&](OVCONTEXT*) { ready = run->realm->top && run->realm->top->hpvalue; });
  onmain(c, [&](OVCONTEXT* cc) {
    REALM* r = run->realm;
    if (args.hasflags) r->flags = args.flags;
    if (!args.julia) return;
    // The bypass and the Julia correction read levels of the Julia stack,
    // which are defined from a general view's environments; a Julia realm
    // rendered on its own has none, and would leave its pixels unknown.
    if (!args.hasflags) r->flags &= ~(R_BYPASS | R_JULIACORRECT);
    r->info.c = addhpv(cc, bits);
    if (!r->info.c) return;
    setexact(r->info.c->v[0], args.juliare);
    setexact(r->info.c->v[1], args.juliaim);
  });
  if (args.julia && !run->realm->info.c) {
    *error = "no room for the Julia constant";
    return false;
  }
  return true;
}

bool makeview(const RENDERARGS& args, RUN* run, Colorscheme* scheme, std::string* error) {
  OVCONTEXT* c = run->context;
  mpf_t m;
  mpf_init2(m, 128);
  zoommagnitude(args, m);
  HFLOAT magnitude = mpf_get_HF(m);
  long exponent = 0;
  mpf_get_d_2exp(&exponent, m);
  mp_bitcnt_t bits = static_cast<mp_bitcnt_t>(std::max(0L, exponent) + 128);
  if (!makerealm(args, run, bits, error)) {
    mpf_clear(m);
    return false;
  }
  run->v = addviewport(c, run->realm, run->juliarealm, args.w, args.h, finishcallback, run);
  if (!run->v) {
    mpf_clear(m);
    *error = "no viewport could be made";
    return false;
  }
  // The start view is turned a quarter, so the set stands upright.
  complexd turn = complexd(0, -1) * std::polar(1.0, args.angle * M_PI / 180);
  HFLOATCOMPLEX zoom = cmulHF2(cHFd(turn), magnitude);
  mpf_t x, y;
  mpf_init2(x, bits);
  mpf_init2(y, bits);
  setexact(x, args.re);
  setexact(y, args.im);
  moveviewportabsolute(c, run->v, x, y, zoom, args.w, args.h);
  mpf_clear(x);
  mpf_clear(y);
  mpf_clear(m);
  colorscheme(c, run->v, scheme->cs);
  activateviewport(c, run->v, 10);
  return true;
}

// ---------------------------------------------------------------- waiting

bool waitfinished(const RENDERARGS& args, RUN* run, CLOCK::time_point start, RENDERTIMES* times) {
  bool progress = isatty(2);
  double lastshown = -1;
  bool first = false;
  for (;;) {
    double t = since(start);
    int list = atomicload(&run->v->toactivatelist);
    unsigned int rects = list >= 0 ? atomicload(&run->v->idrawrect[list]) : 0;
    if (!first && rects > 0) {
      first = true;
      times->reference = t;
    }
    if (run->finished.load() > 0) break;
    if (t > args.timeout) {
      if (progress) fputc('\n', stderr);
      return false;
    }
    if (progress && t - lastshown >= 0.25) {
      fprintf(stderr, "\rorvanta-render: %.1f s, %u tile rectangles", t, rects);
      lastshown = t;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (progress) fprintf(stderr, "\rorvanta-render: finished in %.1f s%20s\n", since(start), "");
  if (!first) times->reference = since(start);
  times->tiles = since(start) - times->reference;
  return true;
}

// ---------------------------------------------------------------- drawing

void uploadlist(RUN* run, int list) {
  const DRAWRECT* rects = run->v->drawrect[list];
  glActiveTexture(GL_TEXTURE0);
  for (unsigned int r = 0; r < run->v->idrawrect[list]; r++) {
    for (int i = 0; i < rects[r].ichannels; i++) {
      TEXTURE* t = rects[r].texture[i];
      if (t->texture < 0 || t->texture >= run->ntexture || !t->pixels) continue;
      GLuint& name = run->names[static_cast<size_t>(t->texture)];
      if (!name) glGenTextures(1, &name);
      glBindTexture(GL_TEXTURE_2D, name);
      glTexImage2D(GL_TEXTURE_2D, 0, GL_R32F, TEXTURESIZE, TEXTURESIZE, 0, GL_RED, GL_FLOAT,
                   t->pixels);
    }
  }
}

// Channel `channel` at every pixel's centre, from the tile texel under it,
// rows from the top; NaN where no rectangle covers the pixel. Each
// rectangle visits only the pixels of its bounding box.
std::vector<float> samplechannel(const VIEWPORT* v, int list, complexd delta, complexd zoom, int w,
                                 int h, int channel) {
  std::vector<float> out(static_cast<size_t>(w) * h, std::numeric_limits<float>::quiet_NaN());
  double scale = 2.0 / std::min(w, h);
  auto topixel = [&](complexd p) {
    complexd s = zoom * (p - delta) / scale;
    return complexd(s.real() + w / 2.0 - 0.5, h / 2.0 - 0.5 - s.imag());
  };
  for (unsigned int r = 0; r < v->idrawrect[list]; r++) {
    const DRAWRECT& dr = v->drawrect[list][r];
    int k = -1;
    for (int i = 0; i < dr.ichannels; i++)
      if (dr.channel[i] == channel) k = i;
    if (k < 0 || !dr.texture[k]->pixels) continue;
    const float* texels = static_cast<const float*>(dr.texture[k]->pixels);
    complexd c0(dr.c[0][0], dr.c[0][1]), e1 = complexd(dr.c[1][0], dr.c[1][1]) - c0,
        e2 = complexd(dr.c[3][0], dr.c[3][1]) - c0;
    double det = e1.real() * e2.imag() - e1.imag() * e2.real();
    if (det == 0) continue;
    double x0 = 1e300, x1 = -1e300, y0 = 1e300, y1 = -1e300;
    for (const auto& corner : dr.c) {
      complexd q = topixel(complexd(corner[0], corner[1]));
      x0 = std::min(x0, q.real());
      x1 = std::max(x1, q.real());
      y0 = std::min(y0, q.imag());
      y1 = std::max(y1, q.imag());
    }
    int px0 = std::max(0, static_cast<int>(std::floor(x0))), px1 = std::min(w - 1, static_cast<int>(std::ceil(x1)));
    int py0 = std::max(0, static_cast<int>(std::floor(y0))), py1 = std::min(h - 1, static_cast<int>(std::ceil(y1)));
    for (int py = py0; py <= py1; py++) {
      for (int px = px0; px <= px1; px++) {
        complexd s((px + 0.5 - w / 2.0) * scale, (h / 2.0 - py - 0.5) * scale);
        complexd d = delta + s / zoom - c0;
        double u = (d.real() * e2.imag() - d.imag() * e2.real()) / det;
        double t = (e1.real() * d.imag() - e1.imag() * d.real()) / det;
        if (u < 0 || u >= 1 || t < 0 || t >= 1) continue;
        int tx = std::min(TEXTURESIZE - 1, static_cast<int>(dr.x0 + u * (dr.x1 - dr.x0)));
        int ty = std::min(TEXTURESIZE - 1, static_cast<int>(dr.y0 + t * (dr.y1 - dr.y0)));
        out[static_cast<size_t>(py) * w + px] = texels[ty * TEXTURESIZE + tx];
      }
    }
  }
  return out;
}

bool writefloats(const std::string& path, const std::vector<float>& values, std::string* error) {
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) {
    *error = "cannot write " + path + ": " + strerror(errno);
    return false;
  }
  bool ok = fwrite(values.data(), sizeof(float), values.size(), f) == values.size();
  ok = fclose(f) == 0 && ok;
  if (!ok) *error = "writing " + path + " failed";
  return ok;
}

// Takes the finished list, uploads its tiles and, when asked, samples
// channel 3; then draws. A list that changes between the upload and the
// drawing is taken again.
bool drawfinished(const RENDERARGS& args, RUN* run, std::vector<unsigned char>* rgba,
                  std::string* error) {
  OVCONTEXT* c = run->context;
  Params params;
  initParams(&params);
  for (int attempt = 0; attempt < 8; attempt++) {
    complexd delta, zoom, delta2, zoom2, deltaabs, zoomabs;
    COLORSCHEME* cs = nullptr;
    int list = getactivelist(c, run->v, 0, &delta, &zoom, &delta2, &zoom2, &deltaabs, &zoomabs,
                             &cs, nullptr, 0, nullptr, nullptr);
    if (list == -1) {
      *error = "the finished view has no picture";
      return false;
    }
    uploadlist(run, list);
    std::vector<float> channel;
    if (!args.channelsout.empty())
      channel = samplechannel(run->v, list, delta, zoom, args.w, args.h, 3);
    unlocklist(c, run->v);
    GLuint shader = 0;
    bool drawn = __drawviewport(c, &shader, run->v, &params, 0, 0, 0, args.w, args.h,
                                run->names.data(), vec2{0, 0});
    glUseProgram(0);
    if (atomicload(&run->v->activelist) != list) continue;
    if (!drawn) {
      *error = "the view's colour scheme could not draw";
      return false;
    }
    glFinish();
    *rgba = readoffscreen(run->gl);
    if (!args.channelsout.empty() && !writefloats(args.channelsout, channel, error)) return false;
    return true;
  }
  *error = "the view's picture kept changing after it was finished";
  return false;
}

void shutdown(RUN* run) {
  if (run->gl) {
    for (GLuint& name : run->names)
      if (name) glDeleteTextures(1, &name);
  }
  if (run->context) {
    if (run->v) detachviewport(run->context, run->v);
    if (run->realm) detachrealm(run->context, run->realm);
    if (run->juliarealm) detachrealm(run->context, run->juliarealm);
    onmain(run->context, [](OVCONTEXT*) {});
    freecontext(run->context);
    free(run->context);
    free(run->tiles);
  }
  if (run->schemes) releasejobject(run->schemes);
  closeoffscreen(run->gl);
  schemehooks = SCHEMEHOOKS{};
}

int failwith(RUN* run, int code, const std::string& message) {
  fprintf(stderr, "orvanta-render: %s\n", message.c_str());
  shutdown(run);
  return code;
}

}  // namespace

std::string unwritable(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return "cannot write " + path + ": it is a directory";
    if (access(path.c_str(), W_OK) != 0) return "cannot write " + path + ": " + strerror(errno);
    return "";
  }
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  if (access(dir.c_str(), W_OK | X_OK) != 0) return "cannot write " + path + ": " + strerror(errno);
  return "";
}

bool writepng(const std::string& path, const std::vector<unsigned char>& rgba, int w, int h,
              std::string* error) {
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) {
    *error = "cannot write " + path + ": " + strerror(errno);
    return false;
  }
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!png || !info || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    fclose(f);
    *error = "writing " + path + " failed";
    return false;
  }
  png_init_io(png, f);
  png_set_IHDR(png, info, static_cast<png_uint_32>(w), static_cast<png_uint_32>(h), 8,
               PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  // The picture is opaque: alpha is the scheme's business, not the file's.
  png_set_filler(png, 0, PNG_FILLER_AFTER);
  for (int y = 0; y < h; y++)
    png_write_row(png, const_cast<png_bytep>(&rgba[static_cast<size_t>(y) * w * 4]));
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  if (fclose(f) != 0) {
    *error = "writing " + path + " failed";
    return false;
  }
  return true;
}

bool writejpeg(const std::string& path, const std::vector<unsigned char>& rgba, int w, int h,
               std::string* error) {
  tjhandle tj = tjInitCompress();
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  bool ok = tj && tjCompress2(tj, rgba.data(), w, 0, h, TJPF_RGBX, &buffer, &size, TJSAMP_444, 95,
                              TJFLAG_ACCURATEDCT) == 0;
  if (!ok) *error = std::string("JPEG compression failed: ") + tjGetErrorStr2(tj);
  if (ok) {
    FILE* f = fopen(path.c_str(), "wb");
    ok = f && fwrite(buffer, 1, size, f) == size;
    if (f) ok = fclose(f) == 0 && ok;
    if (!ok) *error = "cannot write " + path;
  }
  if (buffer) tjFree(buffer);
  if (tj) tjDestroy(tj);
  return ok;
}

int renderview(const RENDERARGS& args, RENDERTIMES* times) {
  CLOCK::time_point start = CLOCK::now();
  RUN run;
  for (const std::string& path : {args.out, args.channelsout}) {
    if (path.empty()) continue;
    std::string why = unwritable(path);
    if (!why.empty()) return failwith(&run, RENDER_BADARGS, why);
  }
  std::string error;
  run.gl = openoffscreen(args.w, args.h, &error);
  if (!run.gl) return failwith(&run, RENDER_FAILED, "no off-screen GL: " + error);
  if (!startengine(args, &run, &error))
    return failwith(&run, run.context ? RENDER_BADARGS : RENDER_FAILED, error);
  run.schemes = builtincolorschemes(run.context, nullptr);
  Colorscheme* scheme = static_cast<Colorscheme*>(getjdict(run.schemes, args.scheme.c_str()));
  if (!scheme) return failwith(&run, RENDER_BADARGS, "no colour scheme \"" + args.scheme + "\"");
  if (!scheme->prog || !scheme->cs)
    return failwith(&run, RENDER_FAILED, "the colour scheme \"" + args.scheme + "\" did not compile");
  extrachannels = args.channelsout.empty() ? 0u : static_cast<unsigned int>(CHANNELMASK_ITERINT);
  schemehooks = SCHEMEHOOKS{hookattach, hookdetach, hookchannels};
  if (!makeview(args, &run, scheme, &error)) return failwith(&run, RENDER_FAILED, error);
  if (!waitfinished(args, &run, start, times)) {
    // Stopping the engine waits for every job to notice, which a deep
    // reference may take minutes to do; the user asked for an end now.
    fprintf(stderr, "orvanta-render: the view was not finished within %g s\n", args.timeout);
    return RENDER_TIMEOUT;
  }
  std::vector<unsigned char> rgba;
  if (!drawfinished(args, &run, &rgba, &error)) return failwith(&run, RENDER_FAILED, error);
  bool ok = args.jpeg ? writejpeg(args.out, rgba, args.w, args.h, &error)
                      : writepng(args.out, rgba, args.w, args.h, &error);
  if (!ok) return failwith(&run, RENDER_FAILED, error);
  shutdown(&run);
  times->total = since(start);
  return RENDER_OK;
}
