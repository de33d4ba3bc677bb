// Drawing a colour scheme's program over one tile of known channel values
// into a framebuffer, and the palette as the program's `pal` computes it,
// for tests that compare the two pixel by pixel.
#pragma once

#include "glcontext.h"
// after the loader
#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace schemedraw {

constexpr int SIZE = 256;  // one tile, drawn one texel a pixel

using TILE = std::vector<float>;  // SIZE x SIZE, row 0 first

template <class F>
TILE filled(F f) {
  TILE t(SIZE * SIZE);
  for (int y = 0; y < SIZE; y++)
    for (int x = 0; x < SIZE; x++) t[y * SIZE + x] = f(x, y);
  return t;
}

// An iteration count as the engine stores it: count / 2^30.
inline float itertexel(int iter) { return static_cast<float>(std::ldexp(static_cast<double>(iter), -30)); }

struct PIXELS {
  std::vector<unsigned char> rgba;
  std::array<int, 3> at(int x, int y) const {
    const unsigned char* p = &rgba[(y * SIZE + x) * 4];
    return {p[0], p[1], p[2]};
  }
};

inline void loadtile(GLuint name, const TILE& tile) {
  glBindTexture(GL_TEXTURE_2D, name);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_R32F, SIZE, SIZE, 0, GL_RED, GL_FLOAT, tile.data());
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
}

inline void drawquad(double correction) {
  glBegin(GL_TRIANGLE_STRIP);
  glColor4d(0, 0, 0, correction * std::ldexp(1.0, -32));
  glTexCoord2d(0, 0);
  glVertex2d(-1, -1);
  glTexCoord2d(1, 0);
  glVertex2d(1, -1);
  glTexCoord2d(0, 1);
  glVertex2d(-1, 1);
  glTexCoord2d(1, 1);
  glVertex2d(1, 1);
  glEnd();
}

// Draws one tile rectangle as the display does: the channel tiles of the
// scheme bound from unit 2 in rising channel order, the correction in the
// colour's alpha scaled by 2^-32, texture coordinates 0 to 1 over the
// framebuffer; and reads the framebuffer back. GL errors are left for the
// caller to check with glGetError.
inline PIXELS draw(Colorscheme* cs, const std::vector<TILE>& tiles, const Params& params, const Uniforms& uniforms,
                   double correction = 1.0) {
  GLuint fbo = 0, target = 0;
  glGenTextures(1, &target);
  glBindTexture(GL_TEXTURE_2D, target);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, SIZE, SIZE, 0, GL_RGBA, GL_UNSIGNED_BYTE, NULL);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
  glGenFramebuffers(1, &fbo);
  glBindFramebuffer(GL_FRAMEBUFFER, fbo);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, target, 0);

  std::vector<GLuint> names(tiles.size());
  if (!names.empty()) glGenTextures(static_cast<GLsizei>(names.size()), names.data());
  for (size_t i = 0; i < tiles.size(); i++) {
    glActiveTexture(GL_TEXTURE2 + static_cast<GLenum>(i));
    loadtile(names[i], tiles[i]);
  }
  glActiveTexture(GL_TEXTURE0);

  glViewport(0, 0, SIZE, SIZE);
  glDisable(GL_BLEND);
  glClearColor(0.5f, 0.5f, 0.5f, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  glMatrixMode(GL_MODELVIEW);
  glLoadIdentity();
  glUseProgram(cs->prog);
  loadParams(cs->prog, &uniforms, &params, cs);
  drawquad(correction);
  glUseProgram(0);

  PIXELS out;
  out.rgba.resize(SIZE * SIZE * 4);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, SIZE, SIZE, GL_RGBA, GL_UNSIGNED_BYTE, out.rgba.data());
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
  glDeleteFramebuffers(1, &fbo);
  glDeleteTextures(1, &target);
  if (!names.empty()) glDeleteTextures(static_cast<GLsizei>(names.size()), names.data());
  return out;
}

using COLOUR = std::array<double, 3>;  // 0...1, unclamped

// The palette as the program's `pal` computes it from the values
// `loadParams` sends.
inline COLOUR pal(const Params& p, double iter, double brightness) {
  COLOUR c = {0, 0, 0};
  for (int i = 0; i < p.ncolor; i++) {
    double f = std::exp(p.color[i].frequency + p.frequency);
    double s = 0.5 * (1 + std::sin(iter * f + p.color[i].initial + p.initial));
    c[0] += p.color[i].c.x * s;
    c[1] += p.color[i].c.y * s;
    c[2] += p.color[i].c.z * s;
  }
  double m = 0;
  for (double& v : c) m = std::max(m, v *= brightness);
  if (m > 1)
    for (double& v : c) v /= m;
  return c;
}

inline float brightnessfactor(const Params& p) {
  float s[3] = {0, 0, 0};
  for (int i = 0; i < p.ncolor; i++) {
    s[0] += p.color[i].c.x;
    s[1] += p.color[i].c.y;
    s[2] += p.color[i].c.z;
  }
  return std::max({0.0f, s[0], s[1], s[2]});
}

// A colour as an 8-bit framebuffer keeps it.
inline std::array<int, 3> bytes(const COLOUR& c) {
  std::array<int, 3> out;
  for (int k = 0; k < 3; k++) out[k] = static_cast<int>(std::lround(255 * std::clamp(c[k], 0.0, 1.0)));
  return out;
}

}  // namespace schemedraw
