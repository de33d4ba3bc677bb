#include "picturecells.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace {

constexpr uint64_t EMPTYCELL = 0x9e3779b97f4a7c15ULL;  // never 0: an unknown cell is dirty

uint64_t fold(uint64_t signature, uint64_t hash) {
  uint64_t x = (signature ^ hash) * 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 31;
  x *= 0x94d049bb133111ebULL;
  x ^= x >> 29;
  return x ? x : 1;
}

}  // namespace

void PICTURECELLS::resize(int width, int height) {
  w = std::max(0, width);
  h = std::max(0, height);
  cols = (w + CELL - 1) / CELL;
  nrows = (h + CELL - 1) / CELL;
  size_t n = static_cast<size_t>(cols) * nrows;
  shown.assign(n, 0);
  wanted.assign(n, EMPTYCELL);
  covers.assign(n, 0);
}

void PICTURECELLS::forget() { std::fill(shown.begin(), shown.end(), 0); }

void PICTURECELLS::beginlist() {
  std::fill(wanted.begin(), wanted.end(), EMPTYCELL);
  std::fill(covers.begin(), covers.end(), 0);
}

void PICTURECELLS::addrect(const double corners[4][2], uint64_t hash) {
  double xmin = corners[0][0], xmax = xmin, ymin = corners[0][1], ymax = ymin;
  for (int i = 1; i < 4; i++) {
    xmin = std::min(xmin, corners[i][0]);
    xmax = std::max(xmax, corners[i][0]);
    ymin = std::min(ymin, corners[i][1]);
    ymax = std::max(ymax, corners[i][1]);
  }
  if (!(xmax >= xmin && ymax >= ymin)) return;  // NaN: nothing on the screen
  // A pixel of margin: rasterisation takes pixels whose centres lie inside.
  xmin = std::max(xmin - 1, 0.0);
  ymin = std::max(ymin - 1, 0.0);
  xmax = std::min(xmax + 1, static_cast<double>(w));
  ymax = std::min(ymax + 1, static_cast<double>(h));
  if (xmax <= xmin || ymax <= ymin) return;
  int c0 = static_cast<int>(xmin) / CELL, c1 = (static_cast<int>(std::ceil(xmax)) - 1) / CELL;
  int r0 = static_cast<int>(ymin) / CELL, r1 = (static_cast<int>(std::ceil(ymax)) - 1) / CELL;
  c1 = std::min(c1, cols - 1);
  r1 = std::min(r1, nrows - 1);
  for (int r = r0; r <= r1; r++)
    for (int c = c0; c <= c1; c++) {
      int cell = r * cols + c;
      wanted[cell] = fold(wanted[cell], hash);
      covers[cell]++;
    }
}

int64_t PICTURECELLS::cellcost(int cell) const {
  PIXELBOX b = cellbox(cell % cols, cell / cols);
  return static_cast<int64_t>(b.x1 - b.x0) * (b.y1 - b.y0) * std::max(1, covers[cell]);
}

PIXELBOX PICTURECELLS::cellbox(int col, int row) const {
  return PIXELBOX{col * CELL, row * CELL, std::min(w, (col + 1) * CELL), std::min(h, (row + 1) * CELL)};
}

std::vector<CELLRUN> PICTURECELLS::take(int64_t budget) {
  std::vector<CELLRUN> runs;
  int64_t spent = 0;
  for (int r = nrows - 1; r >= 0 && spent < budget; r--) {
    int c = 0;
    while (c < cols && spent < budget) {
      int cell = r * cols + c;
      if (!dirty(cell)) {
        c++;
        continue;
      }
      CELLRUN run{cellbox(c, r), 0};
      while (c < cols && dirty(r * cols + c)) {
        int64_t cost = cellcost(r * cols + c);
        if (run.cost > 0 && spent + run.cost + cost > budget) break;
        run.cost += cost;
        run.box.x1 = cellbox(c, r).x1;
        shown[r * cols + c] = wanted[r * cols + c];
        c++;
      }
      spent += run.cost;
      runs.push_back(run);
    }
  }
  return runs;
}

int PICTURECELLS::dirtycells() const {
  int n = 0;
  for (size_t i = 0; i < shown.size(); i++) n += shown[i] != wanted[i];
  return n;
}
