// Auxiliary images of colour schemes: a JPEG file decoded by TurboJPEG into
// 8-bit RGBA, top row first.
#include <turbojpeg.h>

#include <cstdio>
#include <cstdlib>

#include "MandelbrotColorscheme.h"

namespace {

constexpr long IMAGEFILEMAX = 1L << 30;

unsigned char* readbytes(const char* url, unsigned long* size) {
  FILE* f = fopen(url, "rb");
  if (!f) return NULL;
  unsigned char* data = NULL;
  long n = fseek(f, 0, SEEK_END) == 0 ? ftell(f) : -1;
  if (n > 0 && n <= IMAGEFILEMAX && fseek(f, 0, SEEK_SET) == 0) {
    data = static_cast<unsigned char*>(malloc(n));
    if (fread(data, 1, n, f) != static_cast<size_t>(n)) {
      free(data);
      data = NULL;
    }
  }
  fclose(f);
  *size = n > 0 ? n : 0;
  return data;
}

bool decode(tjhandle tj, unsigned char* jpeg, unsigned long size, unsigned char** pixels, int* w, int* h) {
  int width = 0, height = 0, subsamp = 0;
  if (tjDecompressHeader2(tj, jpeg, size, &width, &height, &subsamp) != 0 || width <= 0 || height <= 0)
    return false;
  unsigned char* out = static_cast<unsigned char*>(malloc(static_cast<size_t>(width) * height * 4));
  if (!out) return false;
  // A warning (a damaged stream that still decoded) keeps the picture.
  if (tjDecompress2(tj, jpeg, size, out, width, 0, height, TJPF_RGBA, 0) != 0 && tjGetErrorCode(tj) != TJERR_WARNING) {
    free(out);
    return false;
  }
  *pixels = out;
  *w = width;
  *h = height;
  return true;
}

}  // namespace

bool readimagefct(const char* url, unsigned char** pixels, int* w, int* h) {
  if (!url) return false;
  unsigned long size = 0;
  unsigned char* jpeg = readbytes(url, &size);
  if (!jpeg) return false;
  bool ok = false;
  tjhandle tj = tjInitDecompress();
  if (tj) {
    ok = decode(tj, jpeg, size, pixels, w, h);
    tjDestroy(tj);
  }
  free(jpeg);
  return ok;
}
