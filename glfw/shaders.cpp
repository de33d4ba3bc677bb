// The three fixed programs of the display and the GL state that never
// changes. Each is one GLSL 1.10 fragment shader.
#include <cstdio>
#include <cstdlib>

#include "app.h"

namespace {

const char* const template_tex = R"GLSL(#version 110
uniform sampler2D tex0;
void main() {
  gl_FragColor = texture2D(tex0, gl_TexCoord[0].xy);
}
)GLSL";

const char* const template_color = R"GLSL(#version 110
void main() {
  gl_FragColor = gl_Color;
}
)GLSL";

// A round point with a soft rim one pixel wide; a red of 0 asks for the
// plain square.
const char* const template_pointsmooth = R"GLSL(#version 110
const float radius = 15.0;
void main() {
  float a = 1.0;
  if (gl_Color.r != 0.0) {
    float r = length(gl_TexCoord[0].xy - vec2(0.5, 0.5)) * 2.0 * radius;
    if (r < radius - 1.0) a = 1.0;
    else if (r > radius) a = 0.0;
    else a = 1.0 - (r - radius + 1.0);
  }
  gl_FragColor = vec4(1.0, 1.0, 1.0, gl_Color.a * a);
}
)GLSL";

// The object's log, or NULL; malloc'd.
char* infolog(GLuint object, bool program) {
  GLint length = 0;
  if (program)
    glGetProgramiv(object, GL_INFO_LOG_LENGTH, &length);
  else
    glGetShaderiv(object, GL_INFO_LOG_LENGTH, &length);
  if (length <= 1) return nullptr;
  char* log = static_cast<char*>(malloc(static_cast<size_t>(length)));
  if (!log) {
    perror("malloc failed");
    return nullptr;
  }
  if (program)
    glGetProgramInfoLog(object, length, nullptr, log);
  else
    glGetShaderInfoLog(object, length, nullptr, log);
  return log;
}

void reportfailure(const char* what, char* log) {
  if (log)
    fprintf(stderr, "shader %s failed: %s\n", what, log);
  else
    fprintf(stderr, "shader %s failed\n", what);
  free(log);
}

}  // namespace

GLuint setup_shader(const char* code) {
  GLuint shader = glCreateShader(GL_FRAGMENT_SHADER);
  glShaderSource(shader, 1, &code, nullptr);
  glCompileShader(shader);
  GLint ok = 0;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
  if (!ok) {
    reportfailure("compilation", infolog(shader, false));
    glDeleteShader(shader);
    return 0;
  }
  GLuint program = glCreateProgram();
  glAttachShader(program, shader);
  glLinkProgram(program);
  // The program keeps the shader alive as long as it needs it.
  glDeleteShader(shader);
  glGetProgramiv(program, GL_LINK_STATUS, &ok);
  if (!ok) {
    reportfailure("linking", infolog(program, true));
    glDeleteProgram(program);
    return 0;
  }
  return program;
}

void setupfixedprograms() {
  progtex = setup_shader(template_tex);
  progcolor = setup_shader(template_color);
  progpointsmooth = setup_shader(template_pointsmooth);
}

void setfixedglstate() {
  glEnable(GL_TEXTURE_2D);
  glEnable(GL_BLEND);
  // Sprites' coordinate replacement is set once, but point sprites are
  // switched on only while points are drawn (beginpoints): Mesa applies the
  // replacement to triangles as well, which would take the tiles' texture
  // coordinates away.
  glTexEnvi(GL_POINT_SPRITE, GL_COORD_REPLACE, 1);
  glBlendEquationSeparate(GL_FUNC_ADD, GL_FUNC_ADD);
  glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE, GL_ZERO);
  glEnable(GL_SCISSOR_TEST);
}

void beginpoints() { glEnable(GL_POINT_SPRITE); }
void endpoints() { glDisable(GL_POINT_SPRITE); }
