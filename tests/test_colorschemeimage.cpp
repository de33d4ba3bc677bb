// Aux images: a JPEG made here with TurboJPEG reads back as RGBA of its size
// and colours; files that are missing or not JPEG read as nothing.
#include <gtest/gtest.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "MandelbrotColorscheme.h"
#include "test_colorscheme_fakegl.h"

namespace {

std::string temppath(const char* name) { return "/tmp/orvanta-img-" + std::to_string(getpid()) + "-" + name; }

// A w x h picture: the left half red, the right half blue, the top row
// green, as a JPEG of the best quality without chroma subsampling.
std::string writejpeg(int w, int h, const char* name) {
  std::vector<unsigned char> rgb(w * h * 3);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      unsigned char* p = &rgb[(y * w + x) * 3];
      p[0] = x < w / 2 && y >= 8 ? 255 : 0;
      p[1] = y < 8 ? 255 : 0;
      p[2] = x >= w / 2 && y >= 8 ? 255 : 0;
    }
  tjhandle tj = tjInitCompress();
  unsigned char* jpeg = NULL;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(tj, rgb.data(), w, 0, h, TJPF_RGB, &jpeg, &size, TJSAMP_444, 100, 0), 0);
  tjDestroy(tj);
  std::string path = temppath(name);
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<char*>(jpeg), size);
  tjFree(jpeg);
  return path;
}

TEST(ColorschemeImage, AJpegReadsAsRgbaRowsTopFirst) {
  std::string path = writejpeg(48, 32, "a.jpg");
  unsigned char* pixels = NULL;
  int w = 0, h = 0;
  ASSERT_TRUE(readimagefct(path.c_str(), &pixels, &w, &h));
  EXPECT_EQ(w, 48);
  EXPECT_EQ(h, 32);
  auto at = [&](int x, int y) { return pixels + (y * w + x) * 4; };
  EXPECT_GT(at(10, 2)[1], 240);  // top rows green
  EXPECT_LT(at(10, 2)[0], 15);
  EXPECT_GT(at(10, 20)[0], 240);  // left red
  EXPECT_LT(at(10, 20)[2], 15);
  EXPECT_GT(at(40, 20)[2], 240);  // right blue
  EXPECT_LT(at(40, 20)[0], 15);
  EXPECT_EQ(at(40, 20)[3], 255);  // opaque
  free(pixels);
  unlink(path.c_str());
}

TEST(ColorschemeImage, WhatIsNotAJpegReadsAsNothing) {
  unsigned char* pixels = NULL;
  int w = 0, h = 0;
  EXPECT_FALSE(readimagefct(temppath("missing.jpg").c_str(), &pixels, &w, &h));
  EXPECT_FALSE(readimagefct(NULL, &pixels, &w, &h));
  std::string path = temppath("text.jpg");
  std::ofstream(path) << "not an image at all";
  EXPECT_FALSE(readimagefct(path.c_str(), &pixels, &w, &h));
  std::ofstream(path, std::ios::trunc);  // empty
  EXPECT_FALSE(readimagefct(path.c_str(), &pixels, &w, &h));
  EXPECT_EQ(pixels, nullptr);
  unlink(path.c_str());
}

TEST(ColorschemeImage, ActivationLoadsTheSchemesJpegIntoATexture) {
  fakegl::install();
  std::string path = writejpeg(64, 16, "aux.jpg");
  JDICT* d = builtincolorschemes(NULL, path.c_str());
  Colorscheme* texture = static_cast<Colorscheme*>(getjdict(d, "Texture"));
  activateColorscheme(texture, readimagefct);
  EXPECT_NE(texture->auxtexture, 0u);
  EXPECT_EQ(texture->auxwidth, 64);
  EXPECT_EQ(texture->auxheight, 16);
  EXPECT_EQ(fakegl::state.teximagew, 64);
  EXPECT_GT(fakegl::state.firstpixel[1], 240);  // the green top row first
  // A scheme without an aux file loads nothing.
  Colorscheme* iteration = static_cast<Colorscheme*>(getjdict(d, "Iteration"));
  activateColorscheme(iteration, readimagefct);
  EXPECT_EQ(iteration->auxtexture, 0u);
  deactivateColorscheme(iteration);
  deactivateColorscheme(texture);
  EXPECT_EQ(texture->auxtexture, 0u);
  releasejobject(d);
  unlink(path.c_str());
  setcolorschemegl(NULL);
}

}  // namespace
