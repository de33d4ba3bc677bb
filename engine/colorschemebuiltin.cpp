// The five schemes that ship with the program. They stand in whenever the
// scheme file yields nothing, and they divide their brightness by
// `brightnessfactor`, so a palette keeps its level when waves are added.
#include "MandelbrotColorscheme.h"

namespace {

const char* const CODE_ITERATION = R"GLSL(
vec4 color(Data data) {
  if (data.iter >= 0)
    return vec4(pal(float(data.iter) + 0.5, params.brightnessfinite / params.brightnessfactor), 1.0);
  return vec4(pal(float(-data.iter) + 0.5, params.brightnessinfinite / params.brightnessfactor), 1.0);
}
)GLSL";

const char* const CODE_SMOOTH = R"GLSL(
vec4 color(Data data) {
  if (data.smoothiter >= 0.0)
    return vec4(pal(data.smoothiter + 0.5, params.brightnessfinite / params.brightnessfactor), 1.0);
  return vec4(pal(-data.smoothiter + 0.5, params.brightnessinfinite / params.brightnessfactor), 1.0);
}
)GLSL";

// A fine white outline of the set that fades at a width set by param[0].
const char* const CODE_DISTANCE = R"GLSL(
vec4 color(Data data) {
  vec3 c = vec3(0.0);
  if (data.iter < 0)
    c = pal(float(-data.iter) + 0.5, params.brightnessinfinite / params.brightnessfactor);
  float rr = data.dist * exp(5.0 * params.param[0]);
  if (rr < 1.0 && rr != 0.0) c += vec3(1.0 - rr) * params.brightnessfinite;
  return vec4(c, 1.0);
}
)GLSL";

// Outside, the iteration palette fades out with the second distance, whose
// reach param[1] sets; the outline of "Distance" on top.
const char* const CODE_DISTANCELEVELS = R"GLSL(
vec4 color(Data data) {
  vec3 c = vec3(0.0);
  if (data.iter < 0) {
    c = pal(float(-data.iter) + 0.5, params.brightnessinfinite / params.brightnessfactor);
  } else {
    float rr2 = data.dist2 * exp(5.0 * params.param[1] - 1.5);
    if (rr2 < 1.0 && rr2 != 0.0)
      c = (1.0 - rr2) * pal(float(data.iter) + 0.5, params.brightnessfinite / params.brightnessfactor);
  }
  float rr = data.dist * exp(5.0 * params.param[0]);
  if (rr < 1.0 && rr != 0.0) c += vec3(1.0 - rr) * params.brightnessfinite;
  return vec4(c, 1.0);
}
)GLSL";

// Goes on iterating past the escape until |z|^2 passes a limit set by
// param[0], then maps the angle and the overshoot of z into one of 15 cells
// of a 4 x 4 atlas, chosen by the final iteration.
const char* const CODE_TEXTURE = R"GLSL(
#define NTEXTURE 15
vec4 color(Data data) {
  if (data.iter < 0)
    return vec4(pal(float(-data.iter) + 0.5, params.brightnessinfinite / params.brightnessfactor), 1.0);
  vec2 z = data.value;
  float limit = exp((0.33 - params.param[0]) * 5.0);
  float i = float(data.iter);
  float len = dot(z, z);
  for (int k = 0; k < 20; k++) {
    if (len > limit) break;
    z = vec2(z.x * z.x - z.y * z.y, 2.0 * z.x * z.y) + data.coord;
    i += 1.0;
    len = dot(z, z);
  }
  float fi = mod(i, float(NTEXTURE));
  vec2 v;
  v.y = fract(atan(z.y, z.x) / M_PI_H * 6.0);
  v.x = fract(-0.5 * (log(len) - log(limit)) / M_PI_H * 6.0);
  v.x = (v.x + mod(fi, 4.0)) / 4.0;
  v.y = (v.y + 3.0 - float(int(fi) / 4)) / 4.0;
  return vec4(texture2D(tex_aux, v).rgb, 1.0);
}
)GLSL";

struct BUILTIN {
  const char* name;
  int samples;
  int nparam;
  int channels;
  const char* code;
  bool aux;  // the texture file
};

const BUILTIN BUILTINS[NBUILTINCOLORSCHEME] = {
    {"Iteration", 2, 0, 1, CODE_ITERATION, false},
    {"Smooth", 2, 0, 256, CODE_SMOOTH, false},
    {"Distance", 2, 1, 17, CODE_DISTANCE, false},
    {"Distance and iteration levels", 2, 2, 145, CODE_DISTANCELEVELS, false},
    {"Texture", 1, 1, 4103, CODE_TEXTURE, true},
};

Colorscheme* makebuiltin(OVCONTEXT* context, const BUILTIN* b, const char* texturefile) {
  Colorscheme* cs = newColorscheme();
  cs->name = newjstr(b->name);
  cs->code = newjstr(b->code);
  cs->builtin = true;
  cs->samples = b->samples;
  cs->nparam = b->nparam;
  cs->channels = b->channels;
  if (b->aux && texturefile) cs->auxfile = newjstr(texturefile);
  // Shipped code: a failure here is the driver's, and the scheme is kept
  // so that the list of schemes never comes out empty.
  compileColorscheme(context, cs, NULL);
  return cs;
}

}  // namespace

JDICT* builtincolorschemes(OVCONTEXT* context, const char* texturefile) {
  JDICT* dict = newjdict();
  for (const BUILTIN& b : BUILTINS) addjdict(dict, b.name, makebuiltin(context, &b, texturefile));
  return dict;
}
