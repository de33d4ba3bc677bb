// The fragment program of a scheme: the defines that say which channels it
// reads, the fixed prelude (uniform blocks, `Data`, the samplers, `pal` and
// `main` with its supersampling), the user's `color`; and its compilation.
#include <cstdio>
#include <cstdlib>

#include "MandelbrotColorscheme.h"
#include "matomic.h"

const char* const template_custom = R"GLSL(#define NCOLOR 20
#define NPARAM 10
#define M_PI_H 3.1415926538

struct UniformsColor {
  vec3 c;
  float frequency;
  float initial;
};

struct Params {
  int ncolor;
  UniformsColor color[NCOLOR];
  float brightnessfinite;
  float brightnessinfinite;
  float brightnessfactor;
  float param[NPARAM];
  float time;
  int auxwidth;
  int auxheight;
};

struct Uniforms {
  vec2 p;
  vec2 j;
  vec2 d;
  float globalcorrection;
  bool julia;
  vec2 screencoordoffset;
  bool inverse;
};

uniform Params params;
uniform Uniforms uniforms;

struct Data {
#ifdef CHANNEL_DIST
  float dist;
#endif
#ifdef CHANNEL_DIST2
  float dist2;
#endif
#ifdef CHANNEL_VALUE
  vec2 value;
#endif
#if defined(CHANNEL_ITER) || defined(CHANNEL_ITERINT)
  int iter;
#endif
#ifdef CHANNEL_SITER
  float smoothiter;
#endif
#ifdef CHANNEL_DERIVATIVE
  vec2 derivative;
#endif
#ifdef CHANNEL_II
  int ii;
#endif
#ifdef CHANNEL_COORD
  vec2 coord;
  vec2 screencoord;
#endif
  float pixelsize;
};

#ifdef CHANNEL_ITER
uniform sampler2D tex_iter;
#endif
#if defined(CHANNEL_VALUE) || defined(CHANNEL_DERIVATIVE)
uniform sampler2D tex_value_x;
uniform sampler2D tex_value_y;
#endif
#ifdef CHANNEL_DIST
uniform sampler2D tex_dist;
#endif
#ifdef CHANNEL_DERIVATIVE
uniform sampler2D tex_derivative_x;
uniform sampler2D tex_derivative_y;
#endif
#ifdef CHANNEL_DIST2
uniform sampler2D tex_dist2;
#endif
#ifdef CHANNEL_SITER
uniform sampler2D tex_smoothiter;
#endif
#ifdef AUX
uniform sampler2D tex_aux;
#endif

vec4 color(Data data);

// Sum of the waves in use, scaled by the brightness. On overexposure all
// three components are divided by the largest, so the hue stays.
vec3 pal(float iter, float brightness) {
  vec3 c = vec3(0.0);
  for (int i = 0; i < NCOLOR; i++) {
    if (i >= params.ncolor) break;
    c += params.color[i].c * 0.5 *
         (1.0 + sin(mod(iter * params.color[i].frequency + params.color[i].initial, 2.0 * M_PI_H)));
  }
  c *= brightness;
  float m = max(c.r, max(c.g, c.b));
  if (m > 1.0) c /= m;
  return c;
}

void main() {
  vec2 dx = dFdx(gl_TexCoord[0].xy);
  vec2 dy = dFdy(gl_TexCoord[0].xy);
  vec4 c = vec4(0.0);
  Data data;
  for (int xx = 0; xx < SAMPLES; xx++) {
    for (int yy = 0; yy < SAMPLES; yy++) {
      vec2 t = gl_TexCoord[0].xy +
               vec2(float(xx) * dx.x + float(yy) * dy.x, float(xx) * dx.y + float(yy) * dy.y) / float(SAMPLES);
#ifdef CHANNEL_COORD
      vec2 z = gl_FragCoord.xy + vec2(float(xx), float(yy)) / float(SAMPLES);
      z.y = -z.y;
      data.screencoord = z + uniforms.screencoordoffset;
      if (uniforms.julia)
        data.coord = uniforms.j;
      else
        data.coord = uniforms.p + vec2(uniforms.d.x * z.x, -uniforms.d.x * z.y) +
                     vec2(uniforms.d.y * z.y, uniforms.d.y * z.x);
#endif
#ifdef CHANNEL_ITER
      // The texel holds iteration / 2^30; negative means bounded.
      data.iter = int(0.5 * texture2D(tex_iter, t).r * 2147483648.0);
#endif
#ifdef CHANNEL_SITER
      data.smoothiter = texture2D(tex_smoothiter, t).r;
#endif
      // The rectangle's colour alpha carries its correction scaled by 2^-32.
      data.pixelsize = 4294967296.0 * gl_Color.a * uniforms.globalcorrection;
#ifdef CHANNEL_DIST
      data.dist = texture2D(tex_dist, t).r * data.pixelsize;
#endif
#ifdef CHANNEL_DIST2
      data.dist2 = texture2D(tex_dist2, t).r * data.pixelsize;
#endif
#ifdef CHANNEL_VALUE
      data.value = vec2(texture2D(tex_value_x, t).r, texture2D(tex_value_y, t).r);
#endif
#ifdef CHANNEL_DERIVATIVE
      data.derivative = vec2(texture2D(tex_value_x, t).r, texture2D(tex_value_y, t).r);
#endif
      c += color(data);
    }
  }
  c /= float(SAMPLES * SAMPLES);
  if (uniforms.inverse) c.rgb = vec3(1.0) - c.rgb;
  gl_FragColor = c;
}
)GLSL";

namespace {

constexpr int CANVASSIZE = 256;

struct CHANNELDEFINE {
  int mask;  // any of these bits
  const char* line;
};

const CHANNELDEFINE CHANNELDEFINES[] = {
    {CHANNELMASK_ITER, "#define CHANNEL_ITER\n"},
    {CHANNELMASK_ITERINT, "#define CHANNEL_ITERINT\n"},
    {CHANNELMASK_VALUE_X | CHANNELMASK_VALUE_Y, "#define CHANNEL_VALUE\n"},
    {CHANNELMASK_DIST, "#define CHANNEL_DIST\n"},
    {CHANNELMASK_DERIVATIVE_X | CHANNELMASK_DERIVATIVE_Y, "#define CHANNEL_DERIVATIVE\n"},
    {CHANNELMASK_COORD, "#define CHANNEL_COORD\n"},
    {CHANNELMASK_SITER, "#define CHANNEL_SITER\n"},
    {CHANNELMASK_DIST2, "#define CHANNEL_DIST2\n"},
};

JSTR* compileerror(GLuint shader, const COLORSCHEMEGL* gl) {
  GLint length = 0;
  gl->GetShaderiv(shader, CSGL_INFO_LOG_LENGTH, &length);
  if (length <= 1) return newjstr("Shader compilation failed.");
  char* log = static_cast<char*>(malloc(length));
  if (!log) return newjstr("Internal error.\n");
  gl->GetShaderInfoLog(shader, length, NULL, log);
  log[length - 1] = 0;
  JSTR* error = newjstr("Shader compilation failed: ");
  appendjstr(error, log);
  free(log);
  return error;
}

void seterror(JSTR** error, JSTR* text) {
  if (error)
    *error = text;
  else
    releasejobject(text);
}

// The program, or 0 with the reason in `error`.
GLuint buildprogram(const char* source, JSTR** error, const COLORSCHEMEGL* gl) {
  GLuint shader = gl->CreateShader(CSGL_FRAGMENT_SHADER);
  gl->ShaderSource(shader, 1, &source, NULL);
  gl->CompileShader(shader);
  GLint ok = 0;
  gl->GetShaderiv(shader, CSGL_COMPILE_STATUS, &ok);
  if (!ok) {
    seterror(error, compileerror(shader, gl));
    gl->DeleteShader(shader);
    return 0;
  }
  // No vertex shader: the fixed function feeds gl_TexCoord[0] and gl_Color.
  GLuint prog = gl->CreateProgram();
  gl->AttachShader(prog, shader);
  gl->LinkProgram(prog);
  gl->DeleteShader(shader);  // goes with the program
  gl->GetProgramiv(prog, CSGL_LINK_STATUS, &ok);
  if (!ok) {
    seterror(error, newjstr("Shader linking failed.\n"));
    gl->DeleteProgram(prog);
    return 0;
  }
  return prog;
}

}  // namespace

JSTR* assemblecolorscheme(const Colorscheme* cs) {
  JSTR* text = newjstr("#version 110\n");
  for (const CHANNELDEFINE& d : CHANNELDEFINES)
    if (cs->channels & d.mask) appendjstr(text, d.line);
  if (cs->auxfile) appendjstr(text, "#define AUX\n");
  char line[64];
  snprintf(line, sizeof line, "#define SAMPLES %i\n", cs->samples);
  appendjstr(text, line);
  snprintf(line, sizeof line, "#define CANVASSIZE %i\n", CANVASSIZE);
  appendjstr(text, line);
  appendjstr(text, template_custom);
  if (cs->code) appendjstr(text, getjstr(cs->code));
  return text;
}

bool compileColorscheme(OVCONTEXT* context, Colorscheme* cs, JSTR** error) {
  const COLORSCHEMEGL* gl = getcolorschemegl();
  GLuint prog = 0;
  if (gl) {
    JSTR* source = assemblecolorscheme(cs);
    prog = buildprogram(getjstr(source), error, gl);
    releasejobject(source);
    if (!prog) return false;
    if (cs->prog) gl->DeleteProgram(cs->prog);
  }
  cs->prog = prog;
  if (cs->cs) {
    // A recompiled scheme: the old handle may still be drawn from.
    atomicstore(&cs->cs->shader, static_cast<Colorscheme*>(NULL));
    detachcs(cs->cs);
  }
  cs->cs = addcs(context);
  cs->cs->shader = cs;
  cs->cs->channels = cs->channels;
  return true;
}
