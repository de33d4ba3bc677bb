// viewport.h: views on realms. A VIEWPORT is one window on a realm: its
// exact centre and complex zoom, the two lists of areas it asks for, its
// three draw lists, the navigator's motion and the idle search's state. A
// VIEWPORTAREA is one area in one of the two lists, with the priority the
// view gives it.
//
// Threads. The position (`delta`, `zoom`, `zoomabs`, `mp`, `icursystem`) is
// written on the main thread under `spdelta`; the application reads it under
// the same lock. The ring `coordinatesystem`/`zoomsystem` is written by the
// senders of moves (`moveviewport`), which only ever add steps. The `nav_*`
// motion state is guarded by `nav_spdelta`; a thread never holds both locks.
// Everything else belongs to the main thread; `drawactive`, the draw lists'
// hand-over words and `count` are read by others.
//
// Colour schemes are counted through the hook table below, so that an engine
// without them (the tests) can run views; an observer hook lets tests see
// each environments' scan.
#pragma once

#include <gmp.h>

#include <cstdint>

#include "Array.h"
// Mandelbrot.h includes this header last; all it takes from it is there by
// then.
#include "Mandelbrot.h"
#include "area.h"
#include "environment.h"
#include "mathext.h"
#include "matomic.h"
#include "texture.h"

struct VIEWPORT;
struct COLORSCHEME;  // the engine's handle of a colour scheme

constexpr int NCOORDINATESYSTEM = 128;
constexpr int NVIEWPORTAREA = 65536;
constexpr int NEFFECTIVETOP = 4;
constexpr int MAXTOUCH = 128;
constexpr int NSATINFO = 8;
constexpr int NVIEWPORTMP = 6;  // three marked points, two numbers each
constexpr int NVIEWPORTSTRING = 2048;

// A priority that keeps an area's data without asking for work.
constexpr int PRIO_KEEP = 0x7fffffff;

// VIEWPORT.flags.
constexpr unsigned int VP_COUNTEDINJULIAREALM = 2;
constexpr unsigned int VP_SWAPVIEWPORTAREA = 8;
constexpr unsigned int VP_PRECALCVP = 16;
constexpr unsigned int VP_INACTIVECHAIN = 256;
constexpr unsigned int VP_DIRTY = 1024;
constexpr unsigned int VP_IDLE = 4096;
constexpr unsigned int VP_MOVING = 8192;
constexpr unsigned int VP_DOMOVING = 16384;
constexpr unsigned int VP_DONOTDRAW = 32768;
constexpr unsigned int VP_MUSTWAITFORIDLE = 65536;
constexpr unsigned int VP_MUSTDOLOOP = 131072;
constexpr unsigned int VP_LOCK = 524288;
constexpr unsigned int VP_IDLESTOP = 1048576;
constexpr unsigned int VP_SATELLITES = 2097152;
constexpr unsigned int VP_STARTZOOMING = 4194304;
constexpr unsigned int VP_ADJUSTJULIASTACKAFTERMOVING = 8388608;
constexpr unsigned int VP_IDLEPAUSE = 16777216;

// Flags of a move.
constexpr int MOVEVIEWPORT_MUSTDOLOOP = 4;
constexpr int MOVEVIEWPORT_HIGHRES = 8;
constexpr int MOVEVIEWPORT_TOSAT = 16;
constexpr int MOVEVIEWPORT_TOSATHALF = 64;
constexpr int MOVEVIEWPORT_REDRAW = 128;
constexpr int MOVEVIEWPORT_REDRAWJST = 256;
constexpr int MOVEVIEWPORT_ZOOMDELTAABSOLUTE = 512;
constexpr int MOVEVIEWPORT_ONLYMAXCALCDEPTH = 1024;
constexpr int MOVEVIEWPORT_LOCK = 4096;
constexpr int MOVEVIEWPORT_SATELLITES = 8192;
constexpr int MOVEVIEWPORT_STARTZOOMING = 16384;

// Events of a viewport's callback.
constexpr int VPCALLBACK_FINISH = 0;
constexpr int VPCALLBACK_JSTFINISH = 1;
constexpr int VPCALLBACK_EMERGENCY = 2;

typedef void (*VPCALLBACK)(OVCONTEXT* context, VIEWPORT* viewport, int event, void* pdata);

// The payload of `worker_move`.
constexpr int MOVE_W = 0;  // idata
constexpr int MOVE_H = 1;
constexpr int MOVE_STEP = 2;  // the ring step this move completes
constexpr int MOVE_FLAGS = 3;
constexpr int MOVE_DELTA = 0;  // hdata
constexpr int MOVE_ZOOM = 1;
constexpr int MOVE_CENTER = 2;
constexpr int MOVE_SPEED = 3;

// ---------------------------------------------------------------- small records

struct TOUCH {
  complexd initial;  // the grabbed point, travelling with the picture
  complexd current;  // where the finger is
  bool active;
};

constexpr int TOUCHMODE_DEFAULT = 0;
constexpr int TOUCHMODE_AVERAGE = 1;
constexpr int TOUCHMODE_IGNORE = 2;

struct SATRECORD {
  ITER iter;
  int precision;
  HFLOATCOMPLEX c;
  HFLOATCOMPLEX v;
  HFLOATCOMPLEX d;
};

struct SATINFO {
  SATRECORD sat[NSATINFO];
  int n;
};

struct VIEWPORTAREA {
  VIEWPORT* viewport;
  AREA* a;
  CHAIN chain;  // on `a->viewportchain`
  int priority;
  bool counted;  // `ivainvalid` waits for it
};

// ---------------------------------------------------------------- VIEWPORT
//
// The draw lists come first, as the base record: the tile pool's stress
// step finds them through `activechain` on `vpactivechain`.

struct VIEWPORT : DRAWLISTS {
  REALM* realm;  // attached
  uint32_t computecycle;
  ITER siter;
  int sii;
  int smod;
  double szoom;
  char s2[NVIEWPORTSTRING];
  volatile int imovemsg;
  WORKER* movemsg;  // parked moves, linked by `nextother`

  WORKER* volatile sat_worker;
  ENVIRONMENT* sat_e;
  int sat_e_prec;
  ITERINFO sat_info_info;
  SATINFO sat_info;
  SATINFO sat_infocopy;

  SPINLOCK nav_spdelta;
  volatile unsigned int nav_flags;
  complexd nav_zoom;
  complexd nav_delta;
  complexd nav_Ddelta;
  complexd nav_Dlogzoom;
  complexd nav_Dlogzoomauto;
  complexd nav_center;
  complexd nav_satcenter;
  TOUCH nav_touch[MAXTOUCH];
  volatile int nav_itouch;
  volatile int nav_itoucheffective;
  int nav_timercount;
  volatile double nav_time;
  double nav_interval;
  volatile bool nav_moving;
  volatile bool nav_invalid;
  int nav_frequency;
  ITER nav_satiter;
  int nav_lastaction;
  double nav_interruptautozoom;
  int nav_viewportid;
  double nav_tlag;
  double nav_DIRECTIONTHRESHOLD;
  double nav_Rdelta, nav_Ldelta;
  double nav_Rzoom, nav_Lzoom;
  double nav_Rmagnet, nav_Lmagnet;
  double nav_Rrotation;
  double nav_Rbrake;
  volatile bool nav_brake;
  int nav_touchmode;
  bool nav_autostop;

  COMPUTERGROUP idle_computergroup;
  TASK* idle_task;
  HPVALUE* idle_delta;
  HFLOATCOMPLEX idle_zoom;
  mpf_t idle_c[2];
  mpf_t idle_d[2];
  int idle_ncalculating;
  bool idle_newenv;
  WORKER* idle_worker;
  HPVALUE* idle_m;
  HFLOATCOMPLEX idle_lim;
  HFLOAT idle_r;
  ITER idle_miter;
  int idle_inftye;
  volatile ITER idle_iter;
  volatile ITER idle_pause;
  ENVIRONMENT* idle_standard;
  HFLOATCOMPLEX idle_oldvalue;
  ITER idle_expectediter;
  volatile ITER idle_maxiter;
  int idle_jst, idle_jst1, idle_jst0;
  ITER idle_n0;
  CHAIN* volatile idle_chain;
  ITER idle_nextenviter;

  SPINLOCK spdelta;
  volatile bool drawactive;
  REALM* juliarealm;  // attached
  int precsat;
  CHAIN echain;
  ENVIRONMENT* esat;
  ENVIRONMENT* enonsat;
  ITERINFO info;
  VIEWPORTAREA viewportarea[2][NVIEWPORTAREA];
  int iviewportarea[2];
  int ivainvalid;
  VPCALLBACK finishcallback;
  void* finishcallbackpdata;
  volatile int priority;  // 0: inactive
  int oldpriority;
  unsigned int channels;
  COLORSCHEME* activescheme;
  HFLOATCOMPLEX initialzoom;
  HFLOATCOMPLEX zoom;  // with zoomabs and delta under spdelta
  HFLOAT zoomabs;
  HPVALUE* volatile delta;
  mp_bitcnt_t precision;
  mpf_t moveparam[2];
  ENVIRONMENT* mov_emergency;
  int mov_emergencyprec;
  ITERINFO mov_emergencyinfo;
  CHAIN* mov_chain;
  mpf_t dummy[2];
  complexd z0, z1;
  complexd c[4];
  mpf_t mp[NVIEWPORTMP];
  float r[2];
  unsigned int resolution;
  double small, big;
  double centerx, centery;
  int direction;
  double speed;
  int mindrawdepth, maxdrawdepth, outermaxdrawdepth;
  int mincalcdepth, maxcalcdepth;
  int maxf;
  int mintolerancedepth, maxtolerancedepth;
  AREA* effectivetop[NEFFECTIVETOP];
  int ieffectivetop;
  AREA* marked;
  int markedx, markedy;
  COLORSCHEME* volatile schemes[NDISPLAYLISTS];
  HFLOATCOMPLEX coordinatesystem[NCOORDINATESYSTEM];
  HFLOATCOMPLEX zoomsystem[NCOORDINATESYSTEM];
  volatile uint32_t icoordinatesystem;
  volatile uint32_t icursystem;
  volatile int count;
  unsigned int special;  // -1, or a level of the Julia stack to show
  unsigned int flags;    // the main thread's
};

inline VIEWPORT* activeviewport(CHAIN* link) {
  return static_cast<VIEWPORT*>(CHAINRECORD(link, DRAWLISTS, activechain));
}

// ---------------------------------------------------------------- hooks of other subsystems

// An observer of the environments' scan: when set, it is called in place of
// `movingstart`'s own work (tests count moves through it).
struct IDLEHOOKS {
  void (*movingstart)(OVCONTEXT* context, VIEWPORT* viewport);
};
extern IDLEHOOKS idlehooks;

// Colour schemes' reference counts and channels. Without them a scheme is
// not counted and a viewport keeps its channels.
struct SCHEMEHOOKS {
  void (*attachcs)(COLORSCHEME* scheme);
  void (*detachcs)(OVCONTEXT* context, COLORSCHEME* scheme);
  unsigned int (*channels)(const COLORSCHEME* scheme);
};
extern SCHEMEHOOKS schemehooks;


// ---------------------------------------------------------------- life (viewports.cpp)

VIEWPORT* addviewport(OVCONTEXT* context, REALM* realm, REALM* juliarealm, int width, int height,
                      VPCALLBACK finishcallback, void* pdata);
VIEWPORT* copyviewport(OVCONTEXT* context, VIEWPORT* viewport, VPCALLBACK callback, void* pdata,
                       bool lockjulia);
VIEWPORT* copyviewportex(OVCONTEXT* context, VIEWPORT* viewport, REALM* realm, REALM* juliarealm,
                         VPCALLBACK callback, void* pdata, bool precalc);
void activateviewport(OVCONTEXT* context, VIEWPORT* viewport, int priority);
void deactivateviewport(OVCONTEXT* context, VIEWPORT* viewport);
void detachviewport(OVCONTEXT* context, VIEWPORT* viewport);
void attachviewport(VIEWPORT* viewport);

void __initviewport(OVCONTEXT* context, VIEWPORT* viewport);
void __activateviewport(OVCONTEXT* context, VIEWPORT* viewport, int priority);
void __deactivateviewport(OVCONTEXT* context, VIEWPORT* viewport, bool remove);
void __detachviewport(OVCONTEXT* context, VIEWPORT* viewport);
void __removeviewport(OVCONTEXT* context, VIEWPORT* viewport);

void worker_copyviewport(OVCONTEXT* context, WORKER* worker);
void worker_activate_viewport(OVCONTEXT* context, WORKER* worker);
void worker_deactivate_viewport(OVCONTEXT* context, WORKER* worker);
void worker_detach_viewport(OVCONTEXT* context, WORKER* worker);
void worker_unlocklist(OVCONTEXT* context, WORKER* worker);
void worker_recalc_env(OVCONTEXT* context, WORKER* worker);
void worker_mark(OVCONTEXT* context, WORKER* worker);
void worker_prepixel2pixel(OVCONTEXT* context, WORKER* worker);

void recalcenv(OVCONTEXT* context, VIEWPORT* viewport);
void mark(OVCONTEXT* context, VIEWPORT* viewport, const complexd* c);
void unlocklist(OVCONTEXT* context, VIEWPORT* viewport);
// The display's frame begins (activedisplay.cpp): the newest finished list,
// or -1, and the transforms that show it at `time` (0: no extrapolation).
// A point p of the list is shown at zoom * (p - delta); delta2, zoom2 are the
// navigator's share alone; deltaabs, zoomabs the absolute view. With `c`, the
// `n` marked points on the screen of the applied step; with `csat`, the
// satellites, `nsat` of them. A list taken stays locked until `unlocklist`.
int getactivelist(OVCONTEXT* context, VIEWPORT* viewport, double time, complexd* delta,
                  complexd* zoom, complexd* delta2, complexd* zoom2, complexd* deltaabs,
                  complexd* zoomabs, COLORSCHEME** cs, complexd* c, int n, complexd* csat,
                  int* nsat);
// The status line in `s2`; nothing while the viewport moves.
void composestrings(OVCONTEXT* context, VIEWPORT* viewport);
// For every active viewport: the status lines, and the draws of dirty ones.
void composeallstrings(OVCONTEXT* context);
void drawdirty(OVCONTEXT* context);

// ---------------------------------------------------------------- movement (movement.cpp)

void moveviewport(OVCONTEXT* context, VIEWPORT* viewport, HFLOATCOMPLEX delta, HFLOATCOMPLEX zoom,
                  int w, int h, HFLOATCOMPLEX center, HFLOAT speed, int flags);
void moveviewportabsolute(OVCONTEXT* context, VIEWPORT* viewport, mpf_ptr x, mpf_ptr y,
                          HFLOATCOMPLEX zoom, int w, int h);
void moveviewporttosatellite(OVCONTEXT* context, VIEWPORT* viewport);
void moveviewporttosatellitehalf(OVCONTEXT* context, VIEWPORT* viewport);
void redraw(OVCONTEXT* context, VIEWPORT* viewport);
void redrawjst(OVCONTEXT* context, VIEWPORT* viewport);
void worker_move(OVCONTEXT* context, WORKER* worker);

// The environments' work for a move, or, without it, the end of the move.
void movingstart(OVCONTEXT* context, VIEWPORT* viewport);
// The end of every move: VP_MOVING goes, the view is invalidated unless it
// waits for the idle search, and the parked moves are sent again in order.
void finishmoving(OVCONTEXT* context, VIEWPORT* viewport);
// Runs the Julia correction program until it is empty.
void finishalljuliacorrect(OVCONTEXT* context);

// The stored screen point `c` as exact plane point `mp[2i]`, `mp[2i + 1]`;
// gives it relative to `delta`.
HFLOATCOMPLEX markpt(OVCONTEXT* context, VIEWPORT* viewport, complexd c, int i);
HFLOATCOMPLEX getmarkedpoint(OVCONTEXT* context, VIEWPORT* viewport, int i);
HFLOATCOMPLEX translatepoint(OVCONTEXT* context, VIEWPORT* viewport, HFLOATCOMPLEX c);
// The zoom after every move sent so far, and the centre's offset from the
// applied `delta`, in plane units.
void getzoomdelta(OVCONTEXT* context, VIEWPORT* viewport, HFLOATCOMPLEX* zoom,
                  HFLOATCOMPLEX* delta);

// The table of depth limits for the zoom exponent Z and the move's flags.
void setdepthlimits(VIEWPORT* viewport, int Z, int flags);

// ---------------------------------------------------------------- the active list (activelist.cpp)

// Bits of `areavisibleex`.
constexpr int VIS_OUTERPART = 1;
constexpr int VIS_OUTERALL = 2;
constexpr int VIS_INNERPART = 4;
constexpr int VIS_INNERALL = 8;

int areavisibleex(const VIEWPORT* viewport, const AREA* a, HFLOATCOMPLEX coord, int parentvisible);
// The same test for a square of `depth`, with no area needed.
int squarevisibleex(const VIEWPORT* viewport, int depth, HFLOATCOMPLEX coord, int parentvisible);
bool invalidatearea(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, HFLOATCOMPLEX coord, int i,
                    int parentvisible);
void setpriorityarea(OVCONTEXT* context, AREA* a);
bool ptinrect(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, HFLOATCOMPLEX coord,
              HFLOATCOMPLEX c, int* x, int* y);
AREA* areaatpt(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, HFLOATCOMPLEX coord,
               HFLOATCOMPLEX c, int* x, int* y);
void areacheckvacount(OVCONTEXT* context, AREA* a);
// Nothing is waited for any more: the list is drawn, the owner told, and an
// automatic zoom asked for starts.
void viewportcomplete(OVCONTEXT* context, VIEWPORT* viewport);

// ---------------------------------------------------------------- invalidation (invalidate.cpp)

void invalidate(OVCONTEXT* context, VIEWPORT* viewport);
void invalidateall(OVCONTEXT* context, REALM* realm);
void invalidateareaspecial(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, int i);
void initeffectivetop(OVCONTEXT* context, VIEWPORT* viewport, REALM* realm, int newdepth);
// Do the effective tops still serve a view at zoom exponent L?
bool effectivetopsstand(VIEWPORT* viewport, int L);
// `a`'s corner relative to the view's centre, through the exact numbers.
HFLOATCOMPLEX relativecorner(VIEWPORT* viewport, const HPVALUE* corner);
bool isdirty(const VIEWPORT* viewport);
void dirty(OVCONTEXT* context, VIEWPORT* viewport, bool dorender);
void switchflag(OVCONTEXT* context, REALM* realm, unsigned int value, unsigned int mask);
void changeprec(OVCONTEXT* context, REALM* realm, int d);
void colorscheme(OVCONTEXT* context, VIEWPORT* viewport, COLORSCHEME* scheme);
void worker_switch_flag(OVCONTEXT* context, WORKER* worker);
void worker_change_prec(OVCONTEXT* context, WORKER* worker);
void worker_set_colorscheme(OVCONTEXT* context, WORKER* worker);

// ---------------------------------------------------------------- drawing (draw.cpp)

bool isdrawable(const VIEWPORT* viewport, const AREA* a);
void draw(OVCONTEXT* context, VIEWPORT* viewport);
bool drawarea(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, int depth, HFLOATCOMPLEX coord,
              TEXTURE* const* texture, float epsilon, int x0, int y0, int width, int list,
              int parentvis);
void drawareaspecial(OVCONTEXT* context, VIEWPORT* viewport, AREA* a, HFLOATCOMPLEX coord,
                     int list);
