// computer_internal.h: what the graph shapes share with the node machinery of
// computer.cpp: handing a finished node on, queueing a ready one, the end
// message, head nodes and the split products. Only the computer files use it.
#pragma once

#include "Mandelbrot.h"

namespace computerdetail {

void pushready(OVCONTEXT* context, COMPUTER* c);
// Delivers a finished node to its successors; the first that becomes ready
// is returned to run on this thread, any further one is queued.
COMPUTER* handon(COMPUTER* c);
// What every node does last. The nodes of a serial stretch hand nothing on:
// `runserial` walks the store in its order.
inline COMPUTER* finishcomputer(COMPUTER* c) {
  return c->computergroup->serial ? nullptr : handon(c);
}
// Sends `worker_compute_end` for the group to the main thread.
void postend(COMPUTERGROUP* group);

inline mpf_srcptr in(COMPUTER* c, int k) { return c->input[k]->data; }

// A node without inputs or work: the start of a stretch, loaded by its setup.
COMPUTER* headcomputer(COMPUTERGROUP* g);
// Lends the threads of a stretch about to start: nothing new when the
// group's last stretch has just ended with the same width.
void lendwidth(OVCONTEXT* context, COMPUTERGROUP* group, int width);
// Restores the input counts of a built graph that runs again.
void rearm(COMPUTERGROUP* group, int nodes);
// The width a stretch about to be built lends threads by: `width`, or 1 when
// the group's precision makes it a serial stretch (which it marks).
int stretchwidth(OVCONTEXT* context, COMPUTERGROUP* group, int width);
// Counts the stretch off with `activecomputer` and releases its `nheads`
// head nodes, the first `nheads` of the store.
void startstretch(OVCONTEXT* context, COMPUTERGROUP* group, int nheads);
// Refuses a stretch the store cannot hold: the end path still runs, so the
// owner hears of it where it would have heard of a finished stretch.
bool checkstore(COMPUTERGROUP* group, int nodes);

// The product of x and y (the square of x) spread over three or four nodes.
COMPUTER* splitsqr(COMPUTERGROUP* g, COMPUTER* x);
COMPUTER* splitmul(COMPUTERGROUP* g, COMPUTER* x, COMPUTER* y);

// z in HFLOAT from its two mpf parts.
inline HFLOATCOMPLEX hfz(mpf_srcptr x, mpf_srcptr y) {
  return cHF(mpf_get_HF(x), mpf_get_HF(y));
}

}  // namespace computerdetail
