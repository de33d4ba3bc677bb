// orvanta-render as the user runs it: pictures of the start view and of a
// deep view, the set's interior where the main cardioid and the period-2
// bulb are, JPEG output, and the exits for bad arguments, unwritable paths
// and a view that isn't finished in time. EGL's surfaceless platform needs no
// display, so these run without an X server.
#include <gtest/gtest.h>
#include <png.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct RESULT {
  int code = -1;
  std::string out, err;
};

std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

class RenderTool : public ::testing::Test {
 public:
  std::string dir;
  void SetUp() override {
    char name[] = "/tmp/orvanta-render-test-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    dir = name;
  }
  void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }

  // Runs the renderer with `args` (already quoted where needed).
  RESULT run(const std::string& args) {
    RESULT r;
    std::string out = dir + "/stdout", err = dir + "/stderr";
    std::string command = std::string(ORVANTA_RENDER_EXE) + " " + args + " >" + out + " 2>" + err;
    int status = std::system(command.c_str());
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    unlink(out.c_str());
    unlink(err.c_str());
    return r;
  }
};

struct IMAGE {
  int w = 0, h = 0;
  std::vector<unsigned char> rgb;  // rows from the top
  std::array<int, 3> at(int x, int y) const {
    const unsigned char* p = &rgb[(static_cast<size_t>(y) * w + x) * 3];
    return {p[0], p[1], p[2]};
  }
  size_t colours() const {
    std::set<int> s;
    for (size_t i = 0; i + 2 < rgb.size(); i += 3) s.insert(rgb[i] << 16 | rgb[i + 1] << 8 | rgb[i + 2]);
    return s.size();
  }
};

bool readpng(const std::string& path, IMAGE* image) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&png, path.c_str())) return false;
  png.format = PNG_FORMAT_RGB;
  image->w = static_cast<int>(png.width);
  image->h = static_cast<int>(png.height);
  image->rgb.resize(PNG_IMAGE_SIZE(png));
  return png_image_finish_read(&png, nullptr, image->rgb.data(), 0, nullptr) != 0;
}

bool readjpeg(const std::string& path, IMAGE* image) {
  std::string data = slurp(path);
  tjhandle tj = tjInitDecompress();
  int subsampling = 0, colourspace = 0;
  auto* bytes = reinterpret_cast<unsigned char*>(data.data());
  bool ok = tjDecompressHeader3(tj, bytes, data.size(), &image->w, &image->h, &subsampling,
                                &colourspace) == 0;
  if (ok) {
    image->rgb.resize(static_cast<size_t>(image->w) * image->h * 3);
    ok = tjDecompress2(tj, bytes, data.size(), image->rgb.data(), image->w, 0, image->h, TJPF_RGB,
                       TJFLAG_ACCURATEDCT) == 0;
  }
  tjDestroy(tj);
  return ok;
}

std::vector<float> readfloats(const std::string& path) {
  std::string data = slurp(path);
  std::vector<float> v(data.size() / sizeof(float));
  if (!v.empty()) memcpy(v.data(), data.data(), v.size() * sizeof(float));
  return v;
}

// The plane point at the centre of pixel (px, py) of the start view
// (centre 0, shorter side 4, the set upright: real axis downwards).
std::complex<double> startviewpoint(int px, int py, int w, int h) {
  double scale = 2.0 / std::min(w, h);
  std::complex<double> s((px + 0.5 - w / 2.0) * scale, (h / 2.0 - py - 0.5) * scale);
  return s / std::complex<double>(0, -0.5);
}

bool incardioidorbulb(std::complex<double> c) {
  double x = c.real(), y = c.imag();
  double q = (x - 0.25) * (x - 0.25) + y * y;
  if (q * (q + (x - 0.25)) <= 0.25 * y * y) return true;
  return (x + 1) * (x + 1) + y * y <= 1.0 / 16;
}

// The escape count of c under z^2 + c, radius 2, or -1.
int escapes(std::complex<double> c, int limit) {
  std::complex<double> z = 0;
  for (int n = 1; n <= limit; n++) {
    z = z * z + c;
    if (std::norm(z) > 4) return n;
  }
  return -1;
}

constexpr double CARDIOIDANDBULB = 3 * M_PI / 8 + M_PI / 16;

bool onejsonline(const std::string& out) {
  return out.size() > 2 && out.front() == '{' && out.find('\n') == out.size() - 1 &&
         out.find("\"reference\":") != std::string::npos &&
         out.find("\"tiles\":") != std::string::npos && out.find("\"total\":") != std::string::npos;
}

}  // namespace

// "Distance" leaves the outside black away from the set's outline and
// colours the interior by its period: the interior colour is its own.
TEST_F(RenderTool, StartViewShowsTheSetWithItsInteriorOnTheCardioidAndBulb) {
  const int W = 800, H = 450;
  std::string png = dir + "/start.png", f32 = dir + "/start.f32";
  RESULT r = run("--size 800x450 --memory 512 --timeout 120 --scheme Distance --out " + png +
                 " --channels-out " + f32);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(onejsonline(r.out)) << r.out;
  EXPECT_EQ(r.err, "") << "no progress when standard error is not a terminal";
  IMAGE image;
  ASSERT_TRUE(readpng(png, &image));
  ASSERT_EQ(image.w, W);
  ASSERT_EQ(image.h, H);
  EXPECT_GT(image.colours(), 20u);

  std::vector<float> channel = readfloats(f32);
  ASSERT_EQ(channel.size(), static_cast<size_t>(W) * H);
  double pixelarea = std::pow(4.0 / H, 2);
  int region = 0, covered = 0, colouredinregion = 0, interiorelsewhere = 0, nan = 0;
  int far = 0, blackfar = 0;
  for (int py = 0; py < H; py++) {
    for (int px = 0; px < W; px++) {
      float v = channel[static_cast<size_t>(py) * W + px];
      if (std::isnan(v)) nan++;
      std::complex<double> c = startviewpoint(px, py, W, H);
      bool inside = incardioidorbulb(c);
      std::array<int, 3> rgb = image.at(px, py);
      bool black = rgb[0] + rgb[1] + rgb[2] < 16;
      if (inside) {
        region++;
        if (v < 0) covered++;
        if (!black) colouredinregion++;
      } else if (v < 0) {
        interiorelsewhere++;
      }
      if (v > 0 && v <= 3) {
        far++;
        if (black) blackfar++;
      }
    }
  }
  EXPECT_EQ(nan, 0) << "pixels no tile covers";
  // The pixel mapping itself: the region's pixels make the known area.
  EXPECT_NEAR(region * pixelarea, CARDIOIDANDBULB, 0.02 * CARDIOIDANDBULB);
  // The computed interior covers the region, and so does the interior's
  // colour in the picture.
  EXPECT_NEAR(covered * pixelarea, CARDIOIDANDBULB, 0.05 * CARDIOIDANDBULB);
  EXPECT_NEAR(colouredinregion * pixelarea, CARDIOIDANDBULB, 0.05 * CARDIOIDANDBULB);
  // The rest of the set (smaller bulbs, filaments) is less than a tenth of
  // the whole; boundary pixels add a little.
  EXPECT_LT(interiorelsewhere * pixelarea, 0.25);
  ASSERT_GT(far, 1000);
  EXPECT_GT(blackfar, far * 0.95);
}

// A view of width 1e-10 near a spiral of the seahorse valley: deep for
// doubles, detailed, and the counts agree with a plain iteration at a few
// pixels.
TEST_F(RenderTool, DeepViewOfWidthOneTenBillionth) {
  const int W = 320, H = 180;
  std::string png = dir + "/deep.png", f32 = dir + "/deep.f32";
  const char* re = "-0.743643887037151";
  const char* im = "0.131825904205330";
  RESULT r = run(std::string("--size 320x180 --memory 512 --timeout 300 --re ") + re + " --im " + im +
                 " --width 1e-10 --out " + png + " --channels-out " + f32);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(onejsonline(r.out)) << r.out;
  IMAGE image;
  ASSERT_TRUE(readpng(png, &image));
  EXPECT_EQ(image.w, W);
  EXPECT_GT(image.colours(), 50u);
  std::vector<float> channel = readfloats(f32);
  ASSERT_EQ(channel.size(), static_cast<size_t>(W) * H);
  std::set<float> counts(channel.begin(), channel.end());
  EXPECT_GT(counts.size(), 100u);
  // The picture's width is 1e-10 across its 320 pixels.
  double step = 1e-10 / W;
  std::complex<double> centre(atof(re), atof(im));
  int checked = 0;
  for (int py = 30; py < H; py += 60) {
    for (int px = 40; px < W; px += 80) {
      double sx = px + 0.5 - W / 2.0, sy = H / 2.0 - py - 0.5;
      // Screen right is the plane's +imaginary, screen up its -real.
      std::complex<double> c = centre + std::complex<double>(-sy * step, sx * step);
      // The tile's texel under a pixel's centre lies within a pixel of it:
      // its count is one of the counts around.
      int low = 1 << 30, high = -1;
      for (int j = -4; j <= 4; j++) {
        for (int i = -4; i <= 4; i++) {
          int n = escapes(c + std::complex<double>(-j * step / 4, i * step / 4), 200000);
          if (n < 0) continue;
          low = std::min(low, n);
          high = std::max(high, n);
        }
      }
      float v = channel[static_cast<size_t>(py) * W + px];
      if (high < 0 || v < 0) continue;
      EXPECT_GE(v, low - 1) << px << "," << py;
      EXPECT_LE(v, high + 1) << px << "," << py;
      checked++;
    }
  }
  EXPECT_GT(checked, 3);
}

// A Julia view at its start: the constant -0.8 + 0.156i gives escaping
// points whose counts agree with plain iteration from z = the pixel (the
// engine counts one step fewer for a Julia point than this loop).
void checkjulia(RenderTool& t, const std::string& flags) {
  const int W = 160, H = 90;
  std::string png = t.dir + "/julia.png", f32 = t.dir + "/julia.f32";
  RESULT r = t.run("--size 160x90 --memory 512 --timeout 120 --julia -0.8,0.156 " + flags +
                   " --out " + png + " --channels-out " + f32);
  ASSERT_EQ(r.code, 0) << r.err;
  IMAGE image;
  ASSERT_TRUE(readpng(png, &image));
  EXPECT_GT(image.colours(), 10u);
  std::vector<float> channel = readfloats(f32);
  ASSERT_EQ(channel.size(), static_cast<size_t>(W) * H);
  int escaped = 0, agree = 0;
  for (int py = 0; py < H; py++) {
    for (int px = 0; px < W; px++) {
      float v = channel[static_cast<size_t>(py) * W + px];
      if (!(v > 0)) continue;
      escaped++;
      // The counts within a pixel around the centre, where the texel lies.
      std::complex<double> centre = startviewpoint(px, py, W, H), c(-0.8, 0.156);
      double step = 4.0 / H;
      int low = 1 << 30, high = -1;
      for (int j = -2; j <= 2; j++) {
        for (int i = -2; i <= 2; i++) {
          std::complex<double> z = centre + std::complex<double>(i * step / 2, j * step / 2);
          int n = 0;
          while (std::norm(z) <= 4 && n < 100000) {
            z = z * z + c;
            n++;
          }
          low = std::min(low, n);
          high = std::max(high, n);
        }
      }
      if (v >= low - 2 && v <= high + 1) agree++;
    }
  }
  EXPECT_GT(escaped, W * H / 10);
  EXPECT_GT(agree, escaped * 0.97);
}

TEST_F(RenderTool, AJuliaViewWithoutShortcutsShowsItsSet) { checkjulia(*this, "--flags 0"); }

// The same with the start flags: interpolation on, whose split cells must
// start their new vertices from their own points (a Julia orbit does not
// begin at 0).
TEST_F(RenderTool, AJuliaViewWithTheStartFlagsShowsItsSet) { checkjulia(*this, ""); }

// --angle 90 turns the picture a quarter counter-clockwise: what the start
// view shows at screen point s appears at i*s.
TEST_F(RenderTool, AngleTurnsThePictureCounterClockwise) {
  const int N = 128;
  std::string common = "--size 128x128 --memory 512 --timeout 120 --re -0.5 --im 0.25 --zoom 3 ";
  RESULT a = run(common + "--out " + dir + "/a.png --channels-out " + dir + "/a.f32");
  ASSERT_EQ(a.code, 0) << a.err;
  RESULT b = run(common + "--angle 90 --out " + dir + "/b.png --channels-out " + dir + "/b.f32");
  ASSERT_EQ(b.code, 0) << b.err;
  std::vector<float> straight = readfloats(dir + "/a.f32"), turned = readfloats(dir + "/b.f32");
  ASSERT_EQ(straight.size(), size_t{N * N});
  ASSERT_EQ(turned.size(), size_t{N * N});
  int same = 0, differentunturned = 0;
  for (int py = 0; py < N; py++) {
    for (int px = 0; px < N; px++) {
      // Pixel (px, py) at s = (x, y) shows in the turned picture at
      // i*s = (-y, x).
      double x = px + 0.5 - N / 2.0, y = N / 2.0 - py - 0.5;
      int qx = static_cast<int>(-y + N / 2.0 - 0.5), qy = static_cast<int>(N / 2.0 - 0.5 - x);
      float v = straight[static_cast<size_t>(py) * N + px];
      if (v == turned[static_cast<size_t>(qy) * N + qx]) same++;
      if (v != turned[static_cast<size_t>(py) * N + px]) differentunturned++;
    }
  }
  EXPECT_GT(same, N * N * 95 / 100);
  EXPECT_GT(differentunturned, N * N / 10);  // the turn is visible at all
}

TEST_F(RenderTool, JpegOutputMatchesThePng) {
  std::string png = dir + "/a.png", jpg = dir + "/a.jpg";
  RESULT a = run("--size 320x180 --memory 512 --timeout 120 --out " + png);
  ASSERT_EQ(a.code, 0) << a.err;
  RESULT b = run("--size 320x180 --memory 512 --timeout 120 --out " + jpg);
  ASSERT_EQ(b.code, 0) << b.err;
  std::string bytes = slurp(jpg);
  ASSERT_GT(bytes.size(), 2u);
  EXPECT_EQ(static_cast<unsigned char>(bytes[0]), 0xff);
  EXPECT_EQ(static_cast<unsigned char>(bytes[1]), 0xd8);
  IMAGE p, j;
  ASSERT_TRUE(readpng(png, &p));
  ASSERT_TRUE(readjpeg(jpg, &j));
  ASSERT_EQ(j.w, 320);
  ASSERT_EQ(j.h, 180);
  EXPECT_GT(j.colours(), 20u);
  double sum = 0;
  for (size_t i = 0; i < p.rgb.size(); i++) sum += std::abs(p.rgb[i] - j.rgb[i]);
  EXPECT_LT(sum / p.rgb.size(), 6.0);
}

// On a terminal (script(1) gives the run one) progress is shown on standard
// error and ends with the finished line; the JSON line still comes.
TEST_F(RenderTool, ProgressOnATerminal) {
  if (std::system("command -v script >/dev/null 2>&1") != 0) GTEST_SKIP() << "no script(1)";
  std::string png = dir + "/tty.png", log = dir + "/tty.log";
  std::string inner = std::string(ORVANTA_RENDER_EXE) + " --size 160x90 --memory 512 --timeout 120 --out " + png;
  RESULT r = run("--help");  // the tool starts at all
  ASSERT_EQ(r.code, 0);
  std::string command = "script -qec '" + inner + "' /dev/null >" + log + " 2>&1";
  ASSERT_EQ(std::system(command.c_str()), 0);
  std::string text = slurp(log);
  EXPECT_NE(text.find("orvanta-render: finished in"), std::string::npos) << text;
  EXPECT_NE(text.find("\"total\":"), std::string::npos) << text;
  EXPECT_TRUE(exists(png));
}

TEST_F(RenderTool, BadArgumentsGiveOneUsageLineAndExitTwo) {
  for (const char* args : {"", "--out x.gif", "--zoom 2 --width 1 --out x.png", "--size 5 --out x.png",
                           "--bogus --out x.png"}) {
    RESULT r = run(args);
    EXPECT_EQ(r.code, 2) << args;
    EXPECT_TRUE(r.out.empty()) << args;
    ASSERT_FALSE(r.err.empty()) << args;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
    EXPECT_NE(r.err.find("usage: orvanta-render"), std::string::npos) << r.err;
  }
  EXPECT_FALSE(exists("x.gif"));
  EXPECT_FALSE(exists("x.png"));
}

TEST_F(RenderTool, ABudgetWithoutAComputingThreadExitsTwo) {
  std::string png = dir + "/m.png";
  RESULT r = run("--size 64x64 --memory 64 --timeout 30 --out " + png);
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("leaves the engine no computing thread"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(png));
}

TEST_F(RenderTool, AnUnknownSchemeExitsTwo) {
  std::string png = dir + "/s.png";
  RESULT r = run("--size 64x64 --memory 512 --scheme Nonesuch --out " + png);
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("Nonesuch"), std::string::npos) << r.err;
  EXPECT_FALSE(exists(png));
}

TEST_F(RenderTool, AnUnwritablePathExitsTwoAndWritesNothing) {
  std::string missing = dir + "/no/such/dir/a.png";
  RESULT r = run("--size 64x64 --memory 256 --out " + missing);
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("cannot write " + missing), std::string::npos) << r.err;
  EXPECT_TRUE(r.out.empty());

  // A directory in the file's place.
  std::string folder = dir + "/folder.png";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  RESULT d = run("--size 64x64 --memory 256 --out " + folder);
  EXPECT_EQ(d.code, 2);
  EXPECT_NE(d.err.find("directory"), std::string::npos) << d.err;

  // The channels' file unwritable: the picture isn't written either.
  std::string png = dir + "/fine.png";
  RESULT c = run("--size 64x64 --memory 256 --out " + png + " --channels-out " + dir + "/nope/c.f32");
  EXPECT_EQ(c.code, 2);
  EXPECT_FALSE(exists(png));
}

TEST_F(RenderTool, AViewNotFinishedInTimeExitsThreeAndWritesNothing) {
  std::string png = dir + "/slow.png", f32 = dir + "/slow.f32";
  RESULT r = run("--size 640x360 --memory 512 --re -0.743643887037151 --im 0.131825904205330 "
                 "--width 1e-10 --timeout 0.2 --out " + png + " --channels-out " + f32);
  EXPECT_EQ(r.code, 3) << r.err;
  EXPECT_NE(r.err.find("not finished within 0.2 s"), std::string::npos) << r.err;
  EXPECT_TRUE(r.out.empty());
  EXPECT_FALSE(exists(png));
  EXPECT_FALSE(exists(f32));
}

// A view of width 1e-100 is beyond every hardware format: the general realm
// computes it by perturbation against a reference from the environments'
// scan of the first move.
TEST_F(RenderTool, DeepViewOfWidth1e100) {
  const int W = 160, H = 90;
  std::string png = dir + "/deep100.png", f32 = dir + "/deep100.f32";
  // c = i is a Misiurewicz point: its neighbourhood shows branching detail
  // at every scale.
  RESULT r = run("--size 160x90 --memory 512 --timeout 600 --re 0 --im 1 --width 1e-100 --out " +
                 png + " --channels-out " + f32);
  ASSERT_EQ(r.code, 0) << r.err;
  IMAGE image;
  ASSERT_TRUE(readpng(png, &image));
  EXPECT_EQ(image.w, W);
  EXPECT_EQ(image.h, H);
  EXPECT_GT(image.colours(), 10u);
  std::vector<float> channel = readfloats(f32);
  ASSERT_EQ(channel.size(), static_cast<size_t>(W) * H);
  std::set<float> counts(channel.begin(), channel.end());
  EXPECT_GT(counts.size(), 10u);
}
