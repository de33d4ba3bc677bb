#include "viewtransform.h"

ORTHO aspectbox(int w, int h, std::complex<double> iz, std::complex<float>* d) {
  if (w < h) {
    double s = 1.0 / w;
    *d = std::complex<float>(2.0 * iz * s);
    return ORTHO{-1, 1, -h * s, h * s};
  }
  double s = 1.0 / h;
  *d = std::complex<float>(2.0 * iz * s);
  return ORTHO{-w * s, w * s, -1, 1};
}

void viewmatrix(std::complex<double> zoom, std::complex<double> delta, double m[16]) {
  std::complex<double> shift = zoom * delta;
  const double v[16] = {zoom.real(),   zoom.imag(),   0, 0,  //
                        -zoom.imag(),  zoom.real(),   0, 0,  //
                        0,             0,             1, 0,  //
                        -shift.real(), -shift.imag(), 0, 1};
  for (int i = 0; i < 16; i++) m[i] = v[i];
}

std::complex<double> lowerleft(std::complex<double> deltaabs, int w, int h, std::complex<float> d) {
  return std::complex<double>(deltaabs.real() + (h * d.imag()) / 2 - (w * d.real()) / 2,
                              deltaabs.imag() - (w * d.imag() + h * d.real()) / 2);
}
