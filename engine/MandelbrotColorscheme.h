// MandelbrotColorscheme.h: colour schemes. The engine delivers channels of
// floats; a scheme is the GLSL function `color` that turns them into a pixel
// on the graphics card, plus the mask of channels it reads. Here: the user's
// `Colorscheme` (a JOBJECT, so schemes live in a JDICT by name), the engine's
// handle `COLORSCHEME`, the palette `Params` and its JSON form, the uniform
// block, the file colorschemes.json, the assembly of the fragment program and
// the five built-in schemes.
//
// GL. The engine links no GL library. Everything that needs GL goes through
// the table of entry points `COLORSCHEMEGL`, which the application fills from
// its loader once its context is current (`setcolorschemegl`). Without a
// table (headless tools and tests) a scheme is assembled but not compiled:
// `compileColorscheme` succeeds with `prog` 0, no aux image is loaded and
// `loadParams` sends nothing.
//
// Threads. Every operation here runs on the GL thread. The engine's threads
// only read a COLORSCHEME through its handle; its `count` is atomic.
//
// Operations: colorscheme.cpp (records, handles, activation, uniforms),
// colorschemeglsl.cpp (program text and compilation), colorschemebuiltin.cpp
// (the five built-ins), colorschemefile.cpp (colorschemes.json),
// colorschemeparams.cpp (Params as JSON), colorschemeimage.cpp (JPEG aux
// images).
#pragma once

#include "Array.h"

struct OVCONTEXT;
struct Colorscheme;

// The GL scalar types, as the GL headers define them (an identical typedef
// may be repeated in C++, so this header and a GL loader's mix).
typedef unsigned int GLenum;
typedef unsigned int GLuint;
typedef int GLint;
typedef int GLsizei;
typedef float GLfloat;
typedef char GLchar;

// ---------------------------------------------------------------- channels
//
// One bit mask for `viewport.channels`, `Colorscheme.channels` and
// `COLORSCHEME.channels`. Bits 0 to 8 are the slots of `AREA.texture`; bit 12
// asks for screen coordinates and has no tile.
constexpr int CHANNELMASK_ITER = 1;
constexpr int CHANNELMASK_VALUE_X = 2;
constexpr int CHANNELMASK_VALUE_Y = 4;
constexpr int CHANNELMASK_ITERINT = 8;
constexpr int CHANNELMASK_DIST = 16;
constexpr int CHANNELMASK_DERIVATIVE_X = 32;
constexpr int CHANNELMASK_DERIVATIVE_Y = 64;
constexpr int CHANNELMASK_DIST2 = 128;
constexpr int CHANNELMASK_SITER = 256;
constexpr int CHANNELMASK_COORD = 4096;
constexpr int CHANNELMASK_ALL = 0x1ff | CHANNELMASK_COORD;

// Sampler name of channel bit i (0..8), NULL for bit 3, which has none.
const char* channelsamplername(int bit);

// ---------------------------------------------------------------- COLORSCHEME

// What the engine keeps of a scheme. `shader` points back at the scheme and
// is cleared when the scheme goes, since display lists may outlive it.
// `shaderaa`, `iauxtexture` and the aux arrays stay zero.
constexpr int NCSAUXTEXTURE = 4;
struct COLORSCHEME {
  Colorscheme* volatile shader;
  int channels;
  bool positiondependent;  // always true
  bool timedependent;      // always false
  volatile int count;      // atomic
  Colorscheme* shaderaa;
  int iauxtexture;
  GLuint auxtexture[NCSAUXTEXTURE];
  int auxwidth[NCSAUXTEXTURE];
  int auxheight[NCSAUXTEXTURE];
};

// A new handle: `positiondependent` true, `channels` 1, `count` 1.
COLORSCHEME* addcs(OVCONTEXT* context);
void attachcs(COLORSCHEME* cs);
void detachcs(COLORSCHEME* cs);  // frees at 0; any thread

// ---------------------------------------------------------------- Colorscheme

struct Colorscheme : JOBJECT {
  JSTR* name;    // also the key in the scheme dictionary
  JSTR* code;    // GLSL that defines `vec4 color(Data data)`
  bool builtin;  // shipped: saved by name only, not editable
  int samples;   // supersampling per axis
  int nparam;    // how many of `Params.param` the code uses
  int channels;  // mask, above
  COLORSCHEME* cs;
  JSTR* auxfile;    // path of the auxiliary image, or NULL
  int activecount;  // the aux texture lives while this is above 0
  GLuint prog;      // linked program, 0 if none
  GLuint auxtexture;
  int auxwidth;
  int auxheight;
};

// Decodes the image at `url` into a new malloc'd buffer of 8-bit RGBA rows,
// top row first; the caller frees it.
typedef bool (*ReadImageFct)(const char* url, unsigned char** pixels, int* w, int* h);

// The one image reader: a JPEG file through TurboJPEG.
bool readimagefct(const char* url, unsigned char** pixels, int* w, int* h);

Colorscheme* newColorscheme();  // all fields 0, count 1
void freecolorscheme(JOBJECT* obj);

// Activations share the aux texture: the first loads it (when `auxfile` is
// set and no texture exists), the last deletes it. A NULL scheme is ignored.
void activateColorscheme(Colorscheme* cs, ReadImageFct readimagefct);
void deactivateColorscheme(Colorscheme* cs);

// ---------------------------------------------------------------- the program

// The fixed prelude between the defines and the user's code.
extern const char* const template_custom;

// The whole fragment program of `cs`: version, channel defines, AUX, SAMPLES
// and CANVASSIZE, `template_custom`, `code`. A new JSTR.
JSTR* assemblecolorscheme(const Colorscheme* cs);

// Compiles and links the assembled text. On success `prog` is set and `cs`
// gets a new handle; on failure `*error` (when `error` is not NULL) receives a
// new JSTR with the reason.
bool compileColorscheme(OVCONTEXT* context, Colorscheme* cs, JSTR** error);

// ---------------------------------------------------------------- Params

constexpr int NCOLOR = 20;
constexpr int NPARAM = 10;
constexpr float PARAMS_FREQUENCY = -2.3025851f;  // ln 0.1

struct vec2 {
  float x, y;
};
struct vec3 {
  float x, y, z;
};

// One sine wave of the palette: RGB amplitude, natural logarithm of the
// frequency, phase.
struct UniformsColor {
  vec3 c;
  float frequency;
  float initial;
};

extern const UniformsColor INITIALCOLORS[3];

struct Params {
  int ncolor;
  UniformsColor color[NCOLOR];
  float brightnessfinite;
  float brightnessinfinite;
  float param[NPARAM];
  float time;
  float initial;    // added to every wave's phase
  float frequency;  // added to every wave's log-frequency
  bool inverse;
};

// Per frame and per draw call.
struct Uniforms {
  vec2 p;  // absolute position of the origin pixel
  vec2 j;  // the Julia constant
  vec2 d;  // step per pixel, complex
  float globalcorrection;
  bool julia;
  vec2 screencoordoffset;
};

bool UniformsColorEqual(const UniformsColor* c1, const UniformsColor* c2);
void initParams(Params* params);

// Adds to `dict` only what differs from the defaults (exact float compares).
void writeParams(JOBJECT* dict, const Params* params, const Colorscheme* cs, int juliamode);

// Reads `dict` into `params` and replaces `*cs` (which holds a reference and
// an activation, or is NULL) by the scheme it names, or "Iteration" from
// `csdict`. False on a NULL dictionary or a value of a wrong type.
bool readParams(OVCONTEXT* context, JOBJECT* dict, Params* params, Colorscheme** cs, JOBJECT* csdict,
                ReadImageFct readimagefct);

// Sends every uniform and sampler unit to the program `shader`, which must be
// in use. No-op with `cs` NULL.
void loadParams(GLuint shader, const Uniforms* uniforms, const Params* params, const Colorscheme* cs);

// ---------------------------------------------------------------- the scheme file

// A scheme from one dictionary of colorschemes.json, compiled; NULL on a
// missing or mistyped key, a value out of range or a failed compilation.
Colorscheme* ColorschemeFromDictionary(OVCONTEXT* context, JOBJECT* dict);
JDICT* DictionaryFromColorscheme(const Colorscheme* cs);

// The scheme dictionary, never empty. When the file yields no scheme, the
// five built-ins stand in; the file is then written only if it did not exist,
// so a broken file is never overwritten by a read.
JDICT* readColorschemes(OVCONTEXT* context, const char* dictfile, const char* texturefile);
void writeColorschemes(JOBJECT* csdict, const char* dictfile);  // silent on failure

// The five built-ins, compiled without looking at the result, in their order.
constexpr int NBUILTINCOLORSCHEME = 5;
JDICT* builtincolorschemes(OVCONTEXT* context, const char* texturefile);

// ---------------------------------------------------------------- GL entry points
//
// The GL 2.1 functions the schemes need, with GL's own signatures, so a
// loader's pointers go in unchanged.
struct COLORSCHEMEGL {
  GLuint (*CreateShader)(GLenum type);
  void (*ShaderSource)(GLuint shader, GLsizei count, const GLchar* const* string, const GLint* length);
  void (*CompileShader)(GLuint shader);
  void (*GetShaderiv)(GLuint shader, GLenum pname, GLint* params);
  void (*GetShaderInfoLog)(GLuint shader, GLsizei bufsize, GLsizei* length, GLchar* infolog);
  void (*DeleteShader)(GLuint shader);
  GLuint (*CreateProgram)();
  void (*AttachShader)(GLuint program, GLuint shader);
  void (*LinkProgram)(GLuint program);
  void (*GetProgramiv)(GLuint program, GLenum pname, GLint* params);
  void (*DeleteProgram)(GLuint program);
  GLint (*GetUniformLocation)(GLuint program, const GLchar* name);
  void (*Uniform1i)(GLint location, GLint v0);
  void (*Uniform1f)(GLint location, GLfloat v0);
  void (*Uniform2f)(GLint location, GLfloat v0, GLfloat v1);
  void (*Uniform3f)(GLint location, GLfloat v0, GLfloat v1, GLfloat v2);
  void (*Uniform1fv)(GLint location, GLsizei count, const GLfloat* value);
  void (*GenTextures)(GLsizei n, GLuint* textures);
  void (*DeleteTextures)(GLsizei n, const GLuint* textures);
  void (*BindTexture)(GLenum target, GLuint texture);
  void (*TexImage2D)(GLenum target, GLint level, GLint internalformat, GLsizei width, GLsizei height,
                     GLint border, GLenum format, GLenum type, const void* pixels);
  void (*TexParameteri)(GLenum target, GLenum pname, GLint param);
  void (*ActiveTexture)(GLenum texture);
};

// The table in use, copied; NULL removes it. GL thread only.
void setcolorschemegl(const COLORSCHEMEGL* gl);
const COLORSCHEMEGL* getcolorschemegl();

// The GL enumerants the schemes use.
constexpr GLenum CSGL_FRAGMENT_SHADER = 0x8B30;
constexpr GLenum CSGL_COMPILE_STATUS = 0x8B81;
constexpr GLenum CSGL_LINK_STATUS = 0x8B82;
constexpr GLenum CSGL_INFO_LOG_LENGTH = 0x8B84;
constexpr GLenum CSGL_TEXTURE_2D = 0x0DE1;
constexpr GLenum CSGL_TEXTURE0 = 0x84C0;
constexpr GLenum CSGL_TEXTURE1 = 0x84C1;
constexpr GLenum CSGL_RGBA = 0x1908;
constexpr GLenum CSGL_UNSIGNED_BYTE = 0x1401;
constexpr GLenum CSGL_TEXTURE_MAG_FILTER = 0x2800;
constexpr GLenum CSGL_TEXTURE_MIN_FILTER = 0x2801;
constexpr GLenum CSGL_TEXTURE_WRAP_S = 0x2802;
constexpr GLenum CSGL_TEXTURE_WRAP_T = 0x2803;
constexpr GLenum CSGL_LINEAR = 0x2601;
constexpr GLenum CSGL_REPEAT = 0x2901;
