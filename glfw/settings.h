// settings.h: the explorer's settings file orvanta.json and the values
// derived from it and from the machine. Pure: no window, no GL, so every rule
// can be tested without a display.
#pragma once

#include <cstdint>
#include <cstdio>

#include "Array.h"

struct SETTINGS {
  double sizefactor;   // guiscale
  double framerate;    // frames per second of the virtual clock
  int linewidth;       // stored only
  int nthread;         // argument of initcontext
  int cachesize;       // juliastacksizeshift of initcontext
  int64_t totalmemory;  // MB
  int64_t graphicsmemory;  // MB; 0: derived from the framebuffer
  int64_t graphicsrate;    // MB/s; 0: derived from graphicsmemory
  int ntrace;              // NTRACE
  int pointsize;
  int juliawndsize;  // stored only
  int glmajor;       // GLFW_CONTEXT_VERSION_MAJOR
  int glminor;       // GLFW_CONTEXT_VERSION_MINOR
  int yreduce;
  int startautomode;  // seconds
  bool highres;
  bool presentationmode;
  bool debuginfomode;
  bool touchmodeaverage;
  JDICT* videooptions;  // attached, or NULL

  // Derived once the framebuffer's size is known (derivesettings).
  int ngltexture;      // NGLTEXTURE
  int uploadperframe;  // UPLOADPERFRAME
};

// The defaults, from the machine: `processors` and `physicalmemory` in bytes.
void defaultsettings(SETTINGS* s, int processors, int64_t physicalmemory);

// Reads `path` over the defaults already in `s`. A file that can't be opened
// for reading and writing, doesn't parse or isn't a dictionary leaves every
// default and prints the one line about it to `err`; a key of a wrong type
// is skipped without a word. False in the first case.
bool readsettings(SETTINGS* s, const char* path, FILE* err);

// The same rules over a parsed value (NULL when the file gave none).
bool applysettings(SETTINGS* s, JOBJECT* root, FILE* err);

// graphicsmemory, NGLTEXTURE, graphicsrate and UPLOADPERFRAME from the
// framebuffer's size.
void derivesettings(SETTINGS* s, int width, int height);

// The start report of the derived values.
void printsettings(const SETTINGS* s, FILE* err);

// Releases `videooptions`.
void freesettings(SETTINGS* s);

// The machine: processors online and physical memory in bytes (the smaller
// of the RAM and a cgroup's memory limit, when there is one).
int machineprocessors();
int64_t machinememory();
