// A recording stand-in for the GL entry points of the colour schemes: it
// keeps the last shader source, answers compile and link as a test asks,
// and records every uniform and texture call by name, so the engine's side
// of compilation and upload can be checked without a display.
#pragma once

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "MandelbrotColorscheme.h"

namespace fakegl {

struct STATE {
  std::string source;
  bool compileok = true;
  std::string log;  // compile log offered on failure; empty for none
  bool linkok = true;
  GLuint nextname = 1;
  std::vector<GLuint> deletedprograms;
  std::vector<GLuint> deletedtextures;
  std::map<std::string, GLint> locations;  // name -> location, assigned on lookup
  std::vector<std::string> dropped;         // names the "compiler" optimised away
  std::map<GLint, std::vector<float>> values;
  std::vector<std::string> calls;  // texture calls in order
  int teximagew = 0, teximageh = 0;
  unsigned char firstpixel[4] = {0, 0, 0, 0};
};

inline STATE state;

inline GLuint CreateShader(GLenum) { return state.nextname++; }
inline void ShaderSource(GLuint, GLsizei count, const GLchar* const* s, const GLint*) {
  state.source.clear();
  for (int i = 0; i < count; i++) state.source += s[i];
}
inline void CompileShader(GLuint) {}
inline void GetShaderiv(GLuint, GLenum pname, GLint* v) {
  if (pname == CSGL_COMPILE_STATUS) *v = state.compileok;
  if (pname == CSGL_INFO_LOG_LENGTH) *v = state.log.empty() ? 0 : static_cast<GLint>(state.log.size()) + 1;
}
inline void GetShaderInfoLog(GLuint, GLsizei n, GLsizei*, GLchar* log) {
  strncpy(log, state.log.c_str(), n);
}
inline void DeleteShader(GLuint) {}
inline GLuint CreateProgram() { return state.nextname++; }
inline void AttachShader(GLuint, GLuint) {}
inline void LinkProgram(GLuint) {}
inline void GetProgramiv(GLuint, GLenum, GLint* v) { *v = state.linkok; }
inline void DeleteProgram(GLuint p) { state.deletedprograms.push_back(p); }
inline GLint GetUniformLocation(GLuint, const GLchar* name) {
  for (const std::string& d : state.dropped)
    if (d == name) return -1;
  auto it = state.locations.find(name);
  if (it != state.locations.end()) return it->second;
  GLint l = static_cast<GLint>(state.locations.size());
  state.locations[name] = l;
  return l;
}
inline void Uniform1i(GLint l, GLint v) { state.values[l] = {static_cast<float>(v)}; }
inline void Uniform1f(GLint l, GLfloat v) { state.values[l] = {v}; }
inline void Uniform2f(GLint l, GLfloat a, GLfloat b) { state.values[l] = {a, b}; }
inline void Uniform3f(GLint l, GLfloat a, GLfloat b, GLfloat c) { state.values[l] = {a, b, c}; }
inline void Uniform1fv(GLint l, GLsizei n, const GLfloat* v) { state.values[l] = std::vector<float>(v, v + n); }
inline void GenTextures(GLsizei n, GLuint* t) {
  for (int i = 0; i < n; i++) t[i] = state.nextname++;
  state.calls.push_back("gen");
}
inline void DeleteTextures(GLsizei n, const GLuint* t) {
  for (int i = 0; i < n; i++) state.deletedtextures.push_back(t[i]);
}
inline void BindTexture(GLenum, GLuint t) { state.calls.push_back("bind " + std::to_string(t)); }
inline void TexImage2D(GLenum, GLint, GLint, GLsizei w, GLsizei h, GLint, GLenum, GLenum, const void* p) {
  state.teximagew = w;
  state.teximageh = h;
  memcpy(state.firstpixel, p, 4);
  state.calls.push_back("teximage");
}
inline void TexParameteri(GLenum, GLenum pname, GLint v) {
  state.calls.push_back("param " + std::to_string(pname) + " " + std::to_string(v));
}
inline void ActiveTexture(GLenum unit) { state.calls.push_back("unit " + std::to_string(unit - CSGL_TEXTURE0)); }

inline const COLORSCHEMEGL table = {
    CreateShader, ShaderSource,  CompileShader,      GetShaderiv, GetShaderInfoLog, DeleteShader,
    CreateProgram, AttachShader, LinkProgram,        GetProgramiv, DeleteProgram,   GetUniformLocation,
    Uniform1i,     Uniform1f,    Uniform2f,          Uniform3f,   Uniform1fv,       GenTextures,
    DeleteTextures, BindTexture, TexImage2D,         TexParameteri, ActiveTexture,
};

// A fresh state with the table installed.
inline void install() {
  state = STATE();
  setcolorschemegl(&table);
}

// The value last sent to a uniform, empty if none was.
inline std::vector<float> sent(const std::string& name) {
  auto l = state.locations.find(name);
  if (l == state.locations.end()) return {};
  auto v = state.values.find(l->second);
  return v == state.values.end() ? std::vector<float>{} : v->second;
}

}  // namespace fakegl
