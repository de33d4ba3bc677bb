// A window dump as xwd writes it, turned into 8-bit RGB. The header and
// the colour map are big-endian 32- and 16-bit words whatever the machine;
// the pixels follow the dumped image's own byte order, and their colours
// come from the visual's masks (true and direct colour) or from the colour
// map (every other class).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace xwd {

struct IMAGE {
  int w = 0, h = 0;
  std::string rgb;    // w * h * 3 bytes, top row first
  std::string error;  // why there is no image
};

// The header's words in file order (prefixed: glibc defines BYTE_ORDER).
enum FIELD {
  H_HEADER_SIZE,
  H_FILE_VERSION,
  H_PIXMAP_FORMAT,
  H_PIXMAP_DEPTH,
  H_PIXMAP_WIDTH,
  H_PIXMAP_HEIGHT,
  H_XOFFSET,
  H_BYTE_ORDER,
  H_BITMAP_UNIT,
  H_BITMAP_BIT_ORDER,
  H_BITMAP_PAD,
  H_BITS_PER_PIXEL,
  H_BYTES_PER_LINE,
  H_VISUAL_CLASS,
  H_RED_MASK,
  H_GREEN_MASK,
  H_BLUE_MASK,
  H_BITS_PER_RGB,
  H_COLORMAP_ENTRIES,
  H_NCOLORS,
  H_WINDOW_WIDTH,
  H_WINDOW_HEIGHT,
  H_WINDOW_X,
  H_WINDOW_Y,
  H_WINDOW_BDRWIDTH,
  NFIELD
};

constexpr uint32_t VERSION = 7;
constexpr uint32_t ZPIXMAP = 2;
constexpr uint32_t MSBFIRST = 1;
constexpr uint32_t TRUECOLOR = 4, DIRECTCOLOR = 5;
constexpr size_t COLORSIZE = 12;  // pixel, red, green, blue, flags, pad

inline uint32_t be32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
         p[3];
}

inline uint32_t be16(const unsigned char* p) { return static_cast<uint32_t>(p[0]) << 8 | p[1]; }

// One pixel value of `bytes` bytes in the image's byte order.
inline uint32_t pixelvalue(const unsigned char* p, int bytes, bool msbfirst) {
  uint32_t v = 0;
  for (int i = 0; i < bytes; i++) {
    uint32_t b = p[msbfirst ? i : bytes - 1 - i];
    v = v << 8 | b;
  }
  return v;
}

// A component under its mask, stretched to 0...255.
inline unsigned char component(uint32_t pixel, uint32_t mask) {
  if (!mask) return 0;
  int shift = __builtin_ctz(mask);
  uint32_t top = mask >> shift;
  uint32_t v = (pixel & mask) >> shift;
  return static_cast<unsigned char>((v * 255 + top / 2) / top);
}

inline IMAGE fail(const std::string& why) {
  IMAGE im;
  im.error = why;
  return im;
}

inline IMAGE read(const std::string& file) {
  const auto* d = reinterpret_cast<const unsigned char*>(file.data());
  if (file.size() < NFIELD * 4) return fail("shorter than a header");
  uint32_t h[NFIELD];
  for (int i = 0; i < NFIELD; i++) h[i] = be32(d + 4 * i);
  if (h[H_FILE_VERSION] != VERSION) return fail("file version " + std::to_string(h[H_FILE_VERSION]));
  if (h[H_PIXMAP_FORMAT] != ZPIXMAP) return fail("not a Z pixmap");
  uint32_t bpp = h[H_BITS_PER_PIXEL];
  if (bpp != 8 && bpp != 16 && bpp != 24 && bpp != 32) return fail("bits per pixel " + std::to_string(bpp));
  if (h[H_HEADER_SIZE] < NFIELD * 4) return fail("header size " + std::to_string(h[H_HEADER_SIZE]));
  uint64_t w = h[H_PIXMAP_WIDTH], ht = h[H_PIXMAP_HEIGHT], line = h[H_BYTES_PER_LINE];
  uint64_t bytes = bpp / 8, xoffset = h[H_XOFFSET];
  if (w == 0 || ht == 0 || w > 1 << 15 || ht > 1 << 15) return fail("size out of range");
  if (line < (xoffset + w) * bytes) return fail("lines shorter than the width");
  uint64_t colors = h[H_HEADER_SIZE], pixels = colors + static_cast<uint64_t>(h[H_NCOLORS]) * COLORSIZE;
  if (file.size() < pixels + line * ht) return fail("shorter than its pixels");

  bool masks = h[H_VISUAL_CLASS] == TRUECOLOR || h[H_VISUAL_CLASS] == DIRECTCOLOR;
  std::vector<const unsigned char*> map(h[H_NCOLORS]);
  for (size_t i = 0; i < map.size(); i++) map[i] = d + colors + i * COLORSIZE;
  bool msbfirst = h[H_BYTE_ORDER] == MSBFIRST;

  IMAGE im;
  im.w = static_cast<int>(w);
  im.h = static_cast<int>(ht);
  im.rgb.resize(w * ht * 3);
  for (uint64_t y = 0; y < ht; y++)
    for (uint64_t x = 0; x < w; x++) {
      uint32_t v = pixelvalue(d + pixels + y * line + (xoffset + x) * bytes, static_cast<int>(bytes), msbfirst);
      char* out = &im.rgb[(y * w + x) * 3];
      if (masks) {
        out[0] = static_cast<char>(component(v, h[H_RED_MASK]));
        out[1] = static_cast<char>(component(v, h[H_GREEN_MASK]));
        out[2] = static_cast<char>(component(v, h[H_BLUE_MASK]));
        continue;
      }
      // A colour map lists pixel values with 16-bit components.
      const unsigned char* c = nullptr;
      for (const unsigned char* e : map)
        if (be32(e) == v) c = e;
      if (!c) return fail("pixel " + std::to_string(v) + " not in the colour map");
      for (int k = 0; k < 3; k++) out[k] = static_cast<char>(be16(c + 4 + 2 * k) >> 8);
    }
  return im;
}

}  // namespace xwd
