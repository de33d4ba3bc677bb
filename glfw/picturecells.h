// picturecells.h: which parts of a view's kept picture must be drawn again.
// The picture is cut into square cells; each cell carries a signature of the
// rectangles that cover it, folded in drawing order. A cell whose pixels were
// drawn under the signature it wants now stands; the others are drawn again,
// a few at a time, in runs along the rows. No GL here.
#pragma once

#include <cstdint>
#include <vector>

// A box of pixels, rows from the bottom, the upper bounds excluded.
struct PIXELBOX {
  int x0, y0, x1, y1;
};

// Dirty cells next to each other in one row, drawn as one box. `cost` is the
// estimate of the shading it takes: pixels times the rectangles that cover
// its cells (at least one).
struct CELLRUN {
  PIXELBOX box;
  int64_t cost;
};

class PICTURECELLS {
 public:
  static constexpr int CELL = 64;

  // A picture of w x h pixels whose contents are unknown: every cell dirty.
  void resize(int w, int h);
  // The pixels are lost: every cell must be drawn again.
  void forget();
  // The wanted signatures are started anew for a list ...
  void beginlist();
  // ... which covers, in drawing order, a rectangle with these corners (in
  // pixels) whose contents are summed up by `hash`.
  void addrect(const double corners[4][2], uint64_t hash);
  // Runs of dirty cells, rows from the top, until their cost reaches
  // `budget` (at least one run when any cell is dirty; a run alone never
  // costs much more than the budget unless its one cell does). The cells
  // taken count as drawn.
  std::vector<CELLRUN> take(int64_t budget);
  // Every dirty cell as runs, all counted as drawn.
  std::vector<CELLRUN> takeall() { return take(INT64_MAX); }
  int dirtycells() const;
  int columns() const { return cols; }
  int rows() const { return nrows; }

 private:
  int w = 0, h = 0, cols = 0, nrows = 0;
  std::vector<uint64_t> shown;   // what each cell's pixels were drawn with; 0: unknown
  std::vector<uint64_t> wanted;  // what the present list asks for
  std::vector<int> covers;       // rectangles over each cell
  bool dirty(int cell) const { return shown[cell] != wanted[cell]; }
  int64_t cellcost(int cell) const;
  PIXELBOX cellbox(int col, int row) const;
};
