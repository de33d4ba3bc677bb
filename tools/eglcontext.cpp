// The renderer's GL: no window, no X server. Mesa's surfaceless platform
// gives a context without a surface, and all drawing goes to a framebuffer
// object of the picture's size; with no GPU, Mesa's software rasteriser
// serves.
#include <glad/gl.h>
// after the loader
#include "eglcontext.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include "MandelbrotColorscheme.h"

struct EGLOFFSCREEN {
  EGLDisplay display = EGL_NO_DISPLAY;
  EGLContext context = EGL_NO_CONTEXT;
  GLuint fbo = 0;
  GLuint colour = 0;
  int w = 0, h = 0;
};

namespace {

COLORSCHEMEGL schemetable() {
  return COLORSCHEMEGL{
      glad_glCreateShader,      glad_glShaderSource,   glad_glCompileShader,
      glad_glGetShaderiv,       glad_glGetShaderInfoLog, glad_glDeleteShader,
      glad_glCreateProgram,     glad_glAttachShader,   glad_glLinkProgram,
      glad_glGetProgramiv,      glad_glDeleteProgram,  glad_glGetUniformLocation,
      glad_glUniform1i,         glad_glUniform1f,      glad_glUniform2f,
      glad_glUniform3f,         glad_glUniform1fv,     glad_glGenTextures,
      glad_glDeleteTextures,    glad_glBindTexture,    glad_glTexImage2D,
      glad_glTexParameteri,     glad_glActiveTexture,
  };
}

GLADapiproc loadproc(const char* name) {
  return reinterpret_cast<GLADapiproc>(eglGetProcAddress(name));
}

bool fail(EGLOFFSCREEN* gl, std::string* error, const std::string& why) {
  *error = why;
  closeoffscreen(gl);
  return false;
}

bool opendisplay(EGLOFFSCREEN* gl, std::string* error) {
  auto getplatformdisplay =
      reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
  if (!getplatformdisplay) return fail(gl, error, "EGL has no eglGetPlatformDisplayEXT");
  gl->display = getplatformdisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
  if (gl->display == EGL_NO_DISPLAY) return fail(gl, error, "no EGL surfaceless display");
  EGLint major = 0, minor = 0;
  if (!eglInitialize(gl->display, &major, &minor)) {
    gl->display = EGL_NO_DISPLAY;
    return fail(gl, error, "EGL initialisation failed");
  }
  return true;
}

bool opencontext(EGLOFFSCREEN* gl, std::string* error) {
  if (!eglBindAPI(EGL_OPENGL_API)) return fail(gl, error, "EGL offers no desktop OpenGL");
  const EGLint attributes[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE,
                               EGL_OPENGL_BIT, EGL_NONE};
  EGLConfig config = nullptr;
  EGLint n = 0;
  if (!eglChooseConfig(gl->display, attributes, &config, 1, &n) || n < 1) config = nullptr;
  const EGLint contextattributes[] = {EGL_CONTEXT_MAJOR_VERSION, 2, EGL_CONTEXT_MINOR_VERSION, 1,
                                      EGL_NONE};
  gl->context = eglCreateContext(gl->display, config, EGL_NO_CONTEXT, contextattributes);
  if (gl->context == EGL_NO_CONTEXT) return fail(gl, error, "no EGL OpenGL context");
  if (!eglMakeCurrent(gl->display, EGL_NO_SURFACE, EGL_NO_SURFACE, gl->context))
    return fail(gl, error, "the EGL context can't be made current without a surface");
  int version = gladLoadGL(loadproc);
  if (GLAD_VERSION_MAJOR(version) * 10 + GLAD_VERSION_MINOR(version) < 21)
    return fail(gl, error, "OpenGL 2.1 is not available");
  return true;
}

bool openframebuffer(EGLOFFSCREEN* gl, std::string* error) {
  glGenRenderbuffers(1, &gl->colour);
  glBindRenderbuffer(GL_RENDERBUFFER, gl->colour);
  glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, gl->w, gl->h);
  glGenFramebuffers(1, &gl->fbo);
  glBindFramebuffer(GL_FRAMEBUFFER, gl->fbo);
  glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, gl->colour);
  if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE)
    return fail(gl, error, "the framebuffer of the picture's size is not complete");
  glViewport(0, 0, gl->w, gl->h);
  glScissor(0, 0, gl->w, gl->h);
  glEnable(GL_SCISSOR_TEST);
  glDisable(GL_BLEND);
  return true;
}

}  // namespace

EGLOFFSCREEN* openoffscreen(int w, int h, std::string* error) {
  EGLOFFSCREEN* gl = new EGLOFFSCREEN;
  gl->w = w;
  gl->h = h;
  if (!opendisplay(gl, error) || !opencontext(gl, error) || !openframebuffer(gl, error))
    return nullptr;
  COLORSCHEMEGL table = schemetable();
  setcolorschemegl(&table);
  return gl;
}

void closeoffscreen(EGLOFFSCREEN* gl) {
  if (!gl) return;
  if (gl->context != EGL_NO_CONTEXT) {
    setcolorschemegl(nullptr);
    if (gl->fbo) glDeleteFramebuffers(1, &gl->fbo);
    if (gl->colour) glDeleteRenderbuffers(1, &gl->colour);
    eglMakeCurrent(gl->display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(gl->display, gl->context);
  }
  if (gl->display != EGL_NO_DISPLAY) eglTerminate(gl->display);
  delete gl;
}

std::vector<unsigned char> readoffscreen(EGLOFFSCREEN* gl) {
  std::vector<unsigned char> rgba(static_cast<size_t>(gl->w) * gl->h * 4);
  std::vector<unsigned char> row(static_cast<size_t>(gl->w) * 4);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, gl->w, gl->h, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
  // GL's rows rise from the bottom; images start at the top.
  for (int y = 0; y < gl->h / 2; y++) {
    unsigned char* a = &rgba[static_cast<size_t>(y) * gl->w * 4];
    unsigned char* b = &rgba[static_cast<size_t>(gl->h - 1 - y) * gl->w * 4];
    std::copy(a, a + row.size(), row.begin());
    std::copy(b, b + row.size(), a);
    std::copy(row.begin(), row.end(), b);
  }
  return rgba;
}
