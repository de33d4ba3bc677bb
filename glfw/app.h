// app.h: the explorer's state, shared by its entry, frame loop, drawing and
// callbacks. Everything here belongs to the process's first thread, which
// runs GLFW, all of GL and the engine's GL queue; the engine's threads touch
// only `stringschanged` and read `_curtime`.
#pragma once

#include <glad/gl.h>
// glad first: it refuses to follow another GL header.
#include <GLFW/glfw3.h>

#include <atomic>
#include <complex>
#include <cstdint>

#include "Mandelbrot.h"
#include "MandelbrotColorscheme.h"
#include "paths.h"
#include "settings.h"

// What the engine hands back to the GL callbacks as `glthreadpdata`: the GL
// name of every tile, by tile index.
struct CALLBACKINFO {
  GLuint* texture;
  // How often each tile was uploaded: a tile's name alone doesn't tell
  // whether the pixels it holds are those a picture was drawn from.
  uint32_t* generation;
};

extern PATHS paths;
extern SETTINGS settings;
extern GLFWwindow* window;
extern int width, height;  // framebuffer, refreshed every frame
extern CALLBACKINFO info;
extern OVCONTEXT* context;
extern int UPLOADPERFRAME;

extern volatile double _curtime;  // the virtual clock
extern double lastaction;
extern bool automode, automodestart, lock;
extern int mode;
extern bool guion;
extern volatile bool stringschanged;
extern bool smooth;
extern bool hardframe;
extern bool framehadtiles;  // the last frame drawn showed a list's tiles
extern uint64_t tileuploads;  // uploads so far, of any tile
extern bool changeuniform;
extern bool highres;

extern Params params;
extern Colorscheme* currentcs;
extern JDICT* csarray;
extern REALM* generalrealm;
extern VIEWPORT* vp;    // the main view
extern VIEWPORT* vpex;  // the Julia view, NULL while there is none

// On-screen drawing state.
extern GLuint displaylist[2];
extern int oldlist[2];
extern bool tracemode;
extern std::complex<double> tracez[2], tracec[2];
extern double tracetime;
extern int NTRACE;
extern int pointsize;
extern bool displayjuliapoint;
extern int juliamode;
extern GLuint progcolor, progtex, progpointsmooth;

// The view has sent VPCALLBACK_FINISH since the flag was last cleared (set
// on an engine thread).
extern std::atomic<bool> viewfinished;

// ---------------------------------------------------------------- callbacks.cpp
void initcallback(OVCONTEXT* context, int nmemtexture, void* pdata);
void donecallback(OVCONTEXT* context, void* pdata);
void textureuploadcallback(OVCONTEXT* context, int i, void* data, void* pdata);
void stringscallback(OVCONTEXT* context, void* pdata);
void error_callback(int code, const char* text);
// The window's contents were lost (exposed): the next frame is drawn.
void refresh_callback(GLFWwindow* window);
extern bool redrawall;
void standardcallback(OVCONTEXT* context, VIEWPORT* viewport, int event, void* pdata);
// The colour schemes' table of GL entry points, from the loader.
COLORSCHEMEGL loadercolorschemegl();
// The engine's hooks that count colour schemes and take their channels.
void installschemehooks();

// ---------------------------------------------------------------- shaders.cpp
GLuint setup_shader(const char* code);
void setupfixedprograms();
void setfixedglstate();
// Around the drawing of round points (overlays): point sprites on, then off.
void beginpoints();
void endpoints();

// ---------------------------------------------------------------- viewportdraw.cpp
// One frame of view `vid` into the window rectangle (x, y from the top). A
// frame that would show exactly what the view's last one showed (same list,
// scheme, place and transforms, no uniform change, no overlay) is not drawn
// unless `force`d; false then, and the window's picture stands.
bool drawviewport(OVCONTEXT* context, VIEWPORT* vp, int vid, double time, int x, int y, int w, int h,
                  GLuint* texture, bool force);
void renderdisplaylist(OVCONTEXT* context, VIEWPORT* viewport, int list, GLuint* texture);
// The unit of the tile of `channel`, the i-th of its rectangle, under the
// list's scheme; -1 for a channel the scheme doesn't read.
int tileunit(const COLORSCHEME* scheme, int channel, int i);
// The view's GL display list made from `list` unless it already is; whether
// it was made now (a hard frame).
bool compiledisplaylist(VIEWPORT* viewport, int list, GLuint* texture);

// ---------------------------------------------------------------- picture.cpp
// Each view's kept picture (picture.cpp): set up once GL runs; without frame
// buffers views are drawn whole every frame.
void initpictures();
bool picturesavailable();
void freepictures();
// View `vid`'s list brought into its kept picture, the cells it changed, as
// far as this frame's budget goes (all at once when the view moved or
// `whole`), and the picture copied into the window rectangle. The list's
// projection, program and uniforms are loaded. False when there is no kept
// picture: the caller draws.
bool drawpicture(VIEWPORT* v, int vid, int list, complexd delta, complexd zoom, complexd deltaabs,
                 complexd zoomabs, const COLORSCHEME* cs, bool whole, int x, int y, int w, int h,
                 GLuint* texture);
// Whether view `vid`'s picture waits for cells put off to later frames.
bool picturepending(int vid);
// The same for any view.
bool pictureunfinished();
// After the frame: the seconds it worked, from which the next frame's
// shading budget follows.
void picturebudget(double seconds);

// ---------------------------------------------------------------- overlay.cpp
struct ORTHO;
// The points drawn over view `vid`: the trace's orbit, or the marked Julia
// point, in the screen of the newest coordinate step; their count.
int gatheroverlay(OVCONTEXT* context, VIEWPORT* v, int vid, std::complex<double>* out, int max);
// Whether anything is drawn over `v` this frame.
bool overlayshown(const VIEWPORT* v);
// Lines between the points and a round point at each, under the navigator's
// share of the transform; fading in while a new trace starts.
void drawoverlay(const std::complex<double>* points, int n, const ORTHO& box, std::complex<double> zoom2,
                 std::complex<double> delta2, double time);

// ---------------------------------------------------------------- startview.cpp
void reset();
void resizeviews();
void freeviews();

// ---------------------------------------------------------------- frameloop.cpp
void frameloop();
