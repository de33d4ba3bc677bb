// eglcontext.h: a GL context without any display: EGL on Mesa's surfaceless
// platform, the GL loader filled through eglGetProcAddress, the colour
// schemes' table of entry points installed, and one framebuffer of 8-bit
// RGBA to draw into and read back.
#pragma once

#include <string>
#include <vector>

struct EGLOFFSCREEN;

// A current context of at least GL 2.1 with a framebuffer of w x h; NULL with
// the reason in `*error`.
EGLOFFSCREEN* openoffscreen(int w, int h, std::string* error);
void closeoffscreen(EGLOFFSCREEN* gl);

// The framebuffer's pixels, RGBA, top row first.
std::vector<unsigned char> readoffscreen(EGLOFFSCREEN* gl);
