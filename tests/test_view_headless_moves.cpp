// A general-realm view run headless through a scripted burst of moves: pans,
// zooms in and out by up to 8 and turns, sent from another thread far faster
// than the engine can follow. The view must end finished and right where the
// moves put it, with nothing fatal said and every pool back at its start.
#include <cmath>
#include <random>

#include "test_view_headless.h"

using namespace viewheadless;

namespace {

constexpr int NMOVES = 600;

// Every step sent applied (the last applied is the last sent, so they were
// taken in order), no move under way, nothing left to compute, and no idle
// run that may yet hand the view a better reference and file it again (nor
// a view held back until such a run gives it one).
bool settled(RUN& r, VIEWPORT* v) {
  bool done = false;
  onmain(r, [&](OVCONTEXT*) {
    const unsigned int busy = VP_MOVING | VP_IDLE | VP_DONOTDRAW | VP_MUSTWAITFORIDLE;
    done = v->icursystem == v->icoordinatesystem && !(v->flags & busy) && v->ivainvalid == 0;
  });
  return done;
}

}  // namespace

TEST(ViewHeadlessMoves, ABurstOfMovesEndsInAFinishedRightView) {
  RUN r;
  VIEWARGS a = smallargs();
  testing::internal::CaptureStderr();
  ASSERT_TRUE(start(r, a));
  ASSERT_TRUE(waitviewfinish(&r.run, 1, 0));
  VIEWPORT* v = r.run.viewport.load();
  ASSERT_NE(v, nullptr);

  double before = 0;
  onmain(r, [&](OVCONTEXT*) { before = std::log2(std::fabs(dHF(v->zoomabs))); });
  std::mt19937 random(20261121);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  // The depth the moves reach, in powers of 2 of the zoom, kept between the
  // start view and 2^36 so that the final view stays in double's range.
  double depth = 0;
  int zoomsin = 0, zoomsout = 0, turns = 0;
  for (int k = 0; k < NMOVES; k++) {
    std::complex<double> pan(0.5 * unit(random), 0.5 * unit(random));
    double factor = std::exp2(3.0 * unit(random));  // 1/8 .. 8
    if (depth + std::log2(factor) < 0 || depth + std::log2(factor) > 36) factor = 1 / factor;
    depth += std::log2(factor);
    zoomsin += factor > 1;
    zoomsout += factor < 1;
    double angle = (k % 3 == 0) ? 0.5 * unit(random) : 0;  // radians
    turns += angle != 0;
    std::complex<double> zoom = std::polar(factor, angle);
    moveviewport(r.run.context, v, cHFd(pan), cHFd(zoom), -1, -1, CZEROH, ZEROH, 0);
  }
  EXPECT_GT(zoomsin, 100);
  EXPECT_GT(zoomsout, 100);
  EXPECT_GT(turns, 100);

  // The moves are all taken in and the view at their end is complete: a
  // finishing event after the burst, and nothing pending since.
  bool done = false;
  for (int k = 0; k < 60000 && !done; k++) {
    done = r.run.events[VPCALLBACK_FINISH].load() > 1 && settled(r, v);
    if (!done) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::string state;
  onmain(r, [&](OVCONTEXT* c) {
    state = "cur " + std::to_string(v->icursystem) + " sent " + std::to_string(v->icoordinatesystem) +
            " moving " + std::to_string((v->flags & VP_MOVING) != 0) + " ivainvalid " +
            std::to_string(v->ivainvalid) + " workers " + std::to_string(c->iworkerall) + " flags " +
            std::to_string(v->flags);
  });
  ASSERT_TRUE(done) << "the view never settled after the moves: " << state;
  double after = 0;
  onmain(r, [&](OVCONTEXT*) { after = std::log2(std::fabs(dHF(v->zoomabs))); });
  // Where the moves put it: the scale changed by the product of the zooms
  // (2^depth), whichever way the view counts it.
  EXPECT_NEAR(std::fabs(after - before), depth, 1e-6);
  int wanted = checkfinished(r);
  int nrect = checkcoverage(r);
  CHANNEL3 c = checkchannel3(r, 16, 20000);
  printf("  after %d moves to depth 2^%.1f: %d areas wanted, %d rectangles drawn\n", NMOVES, depth,
         wanted, nrect);
  report(c);
  EXPECT_GE(c.sampled, 16 * 16 * 9 / 10);
  EXPECT_EQ(c.misplaced, 0);
  EXPECT_EQ(c.falseescape, 0);
  EXPECT_EQ(c.falseinterior, 0);
  checkexact(c);
  checkpools(r);
  endviewrun(&r.run);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.find("FATAL"), std::string::npos) << err;
}
