// viewrun.h: one view run through the engine without a display: a context
// whose tiles stay in memory, a general realm with its Julia realm, one
// viewport placed and activated, its status lines and finishing events
// handed to a sink as they come, and the whole taken down again.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Mandelbrot.h"
#include "tileenv.h"
#include "viewargs.h"

// The counts of the pools that a view draws on, read on the main thread.
struct POOLCOUNTS {
  int ia, itexture, ihpvalue, ienvironment, iworkerall, itask;
  bool operator==(const POOLCOUNTS&) const = default;
};
POOLCOUNTS poolcounts(OVCONTEXT* context);
std::string poolstext(const POOLCOUNTS& p);

// One line of output: a status line ("status: ...") or a finishing event
// ("event: VPCALLBACK_FINISH ..."). Called on the engine's main thread.
typedef std::function<void(const std::string&)> VIEWSINK;

struct VIEWRUN {
  VIEWARGS args;
  VIEWSINK sink;
  OVCONTEXT* context = nullptr;
  void* tiles = nullptr;
  REALM* realm = nullptr;
  REALM* juliarealm = nullptr;
  std::atomic<VIEWPORT*> viewport{nullptr};
  POOLCOUNTS start{};  // right after the engine started
  std::atomic<int> events[3] = {};  // by VPCALLBACK_ event
  std::string laststatus;  // the main thread's
  double activated = 0;  // steady-clock ms at activation
  // Steady-clock ms at which the view was first seen with an environment to
  // compute against (`esat` or `enonsat`), with `args.watchreference`; 0
  // until then.
  double referenced = 0;
};

// Main thread: runs fn there and waits for it.
bool viewonmain(VIEWRUN* run, const std::function<void(OVCONTEXT*)>& fn);

// Starts the engine, makes the realms and the view, places it and activates
// it; the environments' scan of the first move finds its references. False with a reason in `error`; `endviewrun` is due either way.
bool startviewrun(VIEWRUN* run, const VIEWARGS& args, VIEWSINK sink, std::string* error);

// Waits until `n` finishing events of the view have come; false after
// `timeout` seconds (0: no limit). With `args.watchreference` it also notes
// when the view first has an environment.
bool waitviewfinish(VIEWRUN* run, int n, double timeout);

// Deactivates the view and lets go of it and of both realms, then waits
// until every message has come home.
void stopviewrun(VIEWRUN* run);

// Stops the engine and frees what the run holds.
void endviewrun(VIEWRUN* run);

// The whole tool: 0 when the view completed, 3 after the timeout, 1 when
// the engine could not run it (reason in `error`).
int runview(const VIEWARGS& args, VIEWSINK sink, std::string* error);
