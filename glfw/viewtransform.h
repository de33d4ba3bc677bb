// viewtransform.h: the arithmetic of showing a list on the screen, apart
// from GL so it can be checked on its own. The longer side of the screen
// runs from -1 to 1; a point p of a list shows at zoom * (p - delta).
#pragma once

#include <complex>

struct ORTHO {
  double left, right, bottom, top;
};

// The ortho box of a w x h rectangle, and `d`, the complex plane step of one
// pixel, from `iz` = 1 / zoomabs.
ORTHO aspectbox(int w, int h, std::complex<double> iz, std::complex<float>* d);

// The column-major matrix of p -> zoom * (p - delta).
void viewmatrix(std::complex<double> zoom, std::complex<double> delta, double m[16]);

// The absolute plane position of the lower left pixel of a w x h rectangle
// whose centre is `deltaabs` and whose pixel step is `d`.
std::complex<double> lowerleft(std::complex<double> deltaabs, int w, int h, std::complex<float> d);
