// The callbacks the engine and GLFW call. Tiles reach GL here, on the first
// thread, as the frame loop drains the GL queue.
#include <cstdio>

#include "app.h"

void initcallback(OVCONTEXT*, int, void*) {
  // The context runs without a GL thread of its own, so the tiles' GL side is
  // this application's; the engine has no reason to call this.
  fprintf(stderr, "initcallback called!\n");
}

void donecallback(OVCONTEXT*, void*) {}

void textureuploadcallback(OVCONTEXT*, int i, void* data, void* pdata) {
  CALLBACKINFO* cb = static_cast<CALLBACKINFO*>(pdata);
  // Unit 0 is nobody's: the display lists bind tiles from unit 2 up and the
  // aux image on unit 1.
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, cb->texture[i]);
  // A tile's first upload makes its storage (see maketiles).
  if (cb->generation && cb->generation[i] == 0)
    glTexImage2D(GL_TEXTURE_2D, 0, GL_R32F, TEXTURESIZE, TEXTURESIZE, 0, GL_RED, GL_FLOAT, data);
  else
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, TEXTURESIZE, TEXTURESIZE, GL_RED, GL_FLOAT, data);
  if (cb->generation) cb->generation[i]++;
  tileuploads++;
}

void stringscallback(OVCONTEXT*, void*) { stringschanged = true; }

void error_callback(int, const char* text) { fprintf(stderr, "Error: %s\n", text); }

void refresh_callback(GLFWwindow*) { redrawall = true; }

void standardcallback(OVCONTEXT*, VIEWPORT*, int event, void*) {
  // Auto mode's zoom to a satellite joins here once auto mode exists.
  if (event == VPCALLBACK_FINISH) viewfinished.store(true);
}

COLORSCHEMEGL loadercolorschemegl() {
  return COLORSCHEMEGL{
      glad_glCreateShader,      glad_glShaderSource,   glad_glCompileShader,  glad_glGetShaderiv,
      glad_glGetShaderInfoLog,  glad_glDeleteShader,   glad_glCreateProgram,  glad_glAttachShader,
      glad_glLinkProgram,       glad_glGetProgramiv,   glad_glDeleteProgram,  glad_glGetUniformLocation,
      glad_glUniform1i,         glad_glUniform1f,      glad_glUniform2f,      glad_glUniform3f,
      glad_glUniform1fv,        glad_glGenTextures,    glad_glDeleteTextures, glad_glBindTexture,
      glad_glTexImage2D,        glad_glTexParameteri,  glad_glActiveTexture,
  };
}

namespace {

void hookattachcs(COLORSCHEME* cs) { attachcs(cs); }
void hookdetachcs(OVCONTEXT*, COLORSCHEME* cs) { detachcs(cs); }
unsigned int hookchannels(const COLORSCHEME* cs) { return static_cast<unsigned int>(cs->channels); }

}  // namespace

void installschemehooks() {
  schemehooks.attachcs = hookattachcs;
  schemehooks.detachcs = hookdetachcs;
  schemehooks.channels = hookchannels;
}
