// maincall.h: the tools' way onto the engine's main thread. Areas, realms
// and views belong to that thread; a tool's own thread hands it a function
// in a WORKER message and waits until it has run there.
#pragma once

#include <functional>

#include "Mandelbrot.h"

// Runs fn on the engine's main thread and waits for it; false when no
// message could be had.
bool runonmain(OVCONTEXT* context, const std::function<void(OVCONTEXT*)>& fn);
