// Colour scheme records: the scheme object, its engine handle, activations
// and their aux texture, the palette's defaults and the upload of uniforms.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "MandelbrotColorscheme.h"
#include "matomic.h"

namespace {

COLORSCHEMEGL gltable;
bool hasgl = false;

const char* const SAMPLERNAMES[9] = {
    "tex_iter", "tex_value_x", "tex_value_y", NULL, "tex_dist", "tex_derivative_x", "tex_derivative_y",
    "tex_dist2", "tex_smoothiter",
};

void releaseifset(JSTR* s) {
  if (s) releasejobject(s);
}

// Looked up at every upload: a compiler drops whatever the code leaves
// unused, and its location is then -1.
GLint location(GLuint shader, const char* name) { return gltable.GetUniformLocation(shader, name); }

void sendint(GLuint shader, const char* name, int v) {
  GLint l = location(shader, name);
  if (l != -1) gltable.Uniform1i(l, v);
}

void sendfloat(GLuint shader, const char* name, float v) {
  GLint l = location(shader, name);
  if (l != -1) gltable.Uniform1f(l, v);
}

void sendvec2(GLuint shader, const char* name, vec2 v) {
  GLint l = location(shader, name);
  if (l != -1) gltable.Uniform2f(l, v.x, v.y);
}

void sendvec3(GLuint shader, const char* name, vec3 v) {
  GLint l = location(shader, name);
  if (l != -1) gltable.Uniform3f(l, v.x, v.y, v.z);
}

// The level a palette keeps when waves are added: the built-ins divide their
// brightness by it.
float brightnessfactor(const Params* params) {
  float s[3] = {0, 0, 0};
  for (int i = 0; i < params->ncolor && i < NCOLOR; i++) {
    s[0] += params->color[i].c.x;
    s[1] += params->color[i].c.y;
    s[2] += params->color[i].c.z;
  }
  float m = 0;
  for (float v : s) m = v > m ? v : m;
  return m;
}

void loaduniforms(GLuint shader, const Uniforms* uniforms, const Params* params) {
  sendvec2(shader, "uniforms.p", uniforms->p);
  sendvec2(shader, "uniforms.j", uniforms->j);
  sendvec2(shader, "uniforms.d", uniforms->d);
  sendfloat(shader, "uniforms.globalcorrection", uniforms->globalcorrection);
  sendint(shader, "uniforms.julia", uniforms->julia ? 1 : 0);
  sendvec2(shader, "uniforms.screencoordoffset", uniforms->screencoordoffset);
  sendfloat(shader, "uniforms.inverse", params->inverse ? 1.0f : 0.0f);
}

void loadpalette(GLuint shader, const Params* params, const Colorscheme* cs) {
  char name[64];
  sendint(shader, "params.ncolor", params->ncolor);
  for (int i = 0; i < NCOLOR; i++) {
    const UniformsColor* c = &params->color[i];
    snprintf(name, sizeof name, "params.color[%i].c", i);
    sendvec3(shader, name, c->c);
    snprintf(name, sizeof name, "params.color[%i].frequency", i);
    sendfloat(shader, name, expf(c->frequency + params->frequency));
    snprintf(name, sizeof name, "params.color[%i].initial", i);
    sendfloat(shader, name, c->initial + params->initial);
  }
  sendfloat(shader, "params.brightnessfinite", params->brightnessfinite);
  sendfloat(shader, "params.brightnessinfinite", params->brightnessinfinite);
  sendfloat(shader, "params.brightnessfactor", brightnessfactor(params));
  if (cs->nparam) {
    GLint l = location(shader, "params.param");
    if (l != -1) gltable.Uniform1fv(l, cs->nparam, params->param);
  }
  sendfloat(shader, "params.time", params->time);
  sendint(shader, "params.auxwidth", cs->auxwidth);
  sendint(shader, "params.auxheight", cs->auxheight);
}

void bindaux(GLuint shader, const Colorscheme* cs) {
  if (!cs->auxtexture) return;
  sendint(shader, "tex_aux", 1);
  gltable.ActiveTexture(CSGL_TEXTURE1);
  gltable.BindTexture(CSGL_TEXTURE_2D, cs->auxtexture);
  gltable.TexParameteri(CSGL_TEXTURE_2D, CSGL_TEXTURE_WRAP_S, CSGL_REPEAT);
  gltable.TexParameteri(CSGL_TEXTURE_2D, CSGL_TEXTURE_WRAP_T, CSGL_REPEAT);
  gltable.TexParameteri(CSGL_TEXTURE_2D, CSGL_TEXTURE_MIN_FILTER, CSGL_LINEAR);
  gltable.TexParameteri(CSGL_TEXTURE_2D, CSGL_TEXTURE_MAG_FILTER, CSGL_LINEAR);
  gltable.ActiveTexture(CSGL_TEXTURE0);
}

// The k-th channel with a tile takes unit 2+k, the order in which a draw
// rectangle binds its tiles; bit 3 has no sampler but counts, as it does
// there. Unit 0 stays free, unit 1 is the aux image's.
void bindsamplers(GLuint shader, const Colorscheme* cs) {
  int unit = 2;
  for (int bit = 0; bit < 9; bit++) {
    if (!(cs->channels & (1 << bit))) continue;
    if (SAMPLERNAMES[bit]) sendint(shader, SAMPLERNAMES[bit], unit);
    unit++;
  }
}

void deleteauxtexture(Colorscheme* cs) {
  if (cs->auxtexture && hasgl) gltable.DeleteTextures(1, &cs->auxtexture);
  cs->auxtexture = 0;
}

}  // namespace

const UniformsColor INITIALCOLORS[3] = {
    {{1, 0, 0}, -2.1202636f, -1.0f},
    {{0, 1, 0}, -1.1363142f, -1.5f},
    {{0, 0, 1}, -0.023268627f, -0.5f},
};

const char* channelsamplername(int bit) { return bit >= 0 && bit < 9 ? SAMPLERNAMES[bit] : NULL; }

void setcolorschemegl(const COLORSCHEMEGL* gl) {
  hasgl = gl != NULL;
  if (gl) gltable = *gl;
}

const COLORSCHEMEGL* getcolorschemegl() { return hasgl ? &gltable : NULL; }

// ---------------------------------------------------------------- COLORSCHEME

COLORSCHEME* addcs(OVCONTEXT*) {
  COLORSCHEME* cs = static_cast<COLORSCHEME*>(calloc(1, sizeof(COLORSCHEME)));
  cs->positiondependent = true;
  cs->channels = 1;
  cs->count = 1;
  return cs;
}

void attachcs(COLORSCHEME* cs) {
  if (cs) atomicincrementint(&cs->count);
}

void detachcs(COLORSCHEME* cs) {
  if (cs && atomicdecrementint(&cs->count) == 0) free(cs);
}

// ---------------------------------------------------------------- Colorscheme

Colorscheme* newColorscheme() {
  Colorscheme* cs = static_cast<Colorscheme*>(calloc(1, sizeof(Colorscheme)));
  cs->type = JOBJECT_CUSTOM;
  cs->freefct = freecolorscheme;
  cs->count = 1;
  return cs;
}

void freecolorscheme(JOBJECT* obj) {
  Colorscheme* cs = static_cast<Colorscheme*>(obj);
  releaseifset(cs->code);
  releaseifset(cs->name);
  releaseifset(cs->auxfile);
  if (cs->cs) {
    // The engine's draw lists may hold the handle longer than the scheme.
    atomicstore(&cs->cs->shader, static_cast<Colorscheme*>(NULL));
    detachcs(cs->cs);
  }
  if (cs->prog && hasgl) gltable.DeleteProgram(cs->prog);
  deleteauxtexture(cs);
  free(cs);
}

void activateColorscheme(Colorscheme* cs, ReadImageFct readimagefct) {
  if (!cs) return;
  cs->activecount++;
  if (!cs->auxfile || cs->auxtexture || !hasgl || !readimagefct) return;
  unsigned char* pixels = NULL;
  int w = 0, h = 0;
  // An image that cannot be read leaves the scheme without one, silently.
  if (!readimagefct(getjstr(cs->auxfile), &pixels, &w, &h)) return;
  gltable.GenTextures(1, &cs->auxtexture);
  gltable.BindTexture(CSGL_TEXTURE_2D, cs->auxtexture);
  gltable.TexImage2D(CSGL_TEXTURE_2D, 0, CSGL_RGBA, w, h, 0, CSGL_RGBA, CSGL_UNSIGNED_BYTE, pixels);
  free(pixels);
  cs->auxwidth = w;
  cs->auxheight = h;
}

void deactivateColorscheme(Colorscheme* cs) {
  if (!cs) return;
  if (--cs->activecount == 0) deleteauxtexture(cs);
}

// ---------------------------------------------------------------- Params

bool UniformsColorEqual(const UniformsColor* c1, const UniformsColor* c2) {
  return c1->c.x == c2->c.x && c1->c.y == c2->c.y && c1->c.z == c2->c.z && c1->frequency == c2->frequency &&
         c1->initial == c2->initial;
}

void initParams(Params* params) {
  memset(params, 0, sizeof *params);
  params->ncolor = 3;
  for (int i = 0; i < 3; i++) params->color[i] = INITIALCOLORS[i];
  params->brightnessfinite = 1.0f;
  params->brightnessinfinite = 1.0f;
  params->initial = 0.0f;
  params->frequency = PARAMS_FREQUENCY;
  params->inverse = false;
}

void loadParams(GLuint shader, const Uniforms* uniforms, const Params* params, const Colorscheme* cs) {
  if (!cs || !hasgl) return;
  loaduniforms(shader, uniforms, params);
  loadpalette(shader, params, cs);
  bindaux(shader, cs);
  bindsamplers(shader, cs);
}
