// orvanta.json: every key optional, a wrong type silently ignored, numbers
// truncated toward zero. The file is only read.
#include "settings.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "Mandelbrot.h"

void defaultsettings(SETTINGS* s, int processors, int64_t physicalmemory) {
  *s = SETTINGS{};
  s->sizefactor = 1.0;
  s->framerate = 60;
  s->linewidth = 1;
  s->nthread = std::max(5, processors + 1);
  s->cachesize = 10;
  s->totalmemory = physicalmemory >> 21;
  s->graphicsmemory = 0;
  s->graphicsrate = 0;
  s->ntrace = 1000;
  s->pointsize = 5;
  s->juliawndsize = 0;
  s->glmajor = 3;
  s->glminor = 0;
  s->yreduce = 1;
  s->startautomode = 120;
  s->videooptions = nullptr;
}

namespace {

// Truncation toward zero; a value beyond the type's range (or NaN) keeps the
// default rather than wrapping into nonsense.
template <typename T>
void readint(JOBJECT* root, const char* key, T* out) {
  JOBJECT* v = getjdict(root, key);
  if (!v || v->type != JOBJECT_NUM) return;
  double d = std::trunc(getjnum(v));
  if (!(d >= static_cast<double>(std::numeric_limits<T>::min()) &&
        d <= static_cast<double>(std::numeric_limits<T>::max())))
    return;
  *out = static_cast<T>(d);
}

void readdouble(JOBJECT* root, const char* key, double* out) {
  JOBJECT* v = getjdict(root, key);
  if (v && v->type == JOBJECT_NUM) *out = getjnum(v);
}

void readbool(JOBJECT* root, const char* key, bool* out) {
  JOBJECT* v = getjdict(root, key);
  if (v && v->type == JOBJECT_BOOL) *out = getjbool(v);
}

void readdict(JOBJECT* root, const char* key, JDICT** out) {
  JOBJECT* v = getjdict(root, key);
  if (!v || v->type != JOBJECT_DICT) return;
  if (*out) releasejobject(*out);
  *out = static_cast<JDICT*>(attachjobject(v));
}

}  // namespace

bool applysettings(SETTINGS* s, JOBJECT* root, FILE* err) {
  if (!root || root->type != JOBJECT_DICT) {
    fprintf(err, "Could not read settings file \"orvanta.json\".\n");
    return false;
  }
  readdouble(root, "guiscale", &s->sizefactor);
  readdouble(root, "framerate", &s->framerate);
  readint(root, "linewidth", &s->linewidth);
  readint(root, "nthread", &s->nthread);
  readint(root, "cachesize", &s->cachesize);
  readint(root, "totalmemory", &s->totalmemory);
  readint(root, "graphicsmemory", &s->graphicsmemory);
  readint(root, "graphicsrate", &s->graphicsrate);
  readint(root, "ntrace", &s->ntrace);
  readint(root, "pointsize", &s->pointsize);
  readint(root, "juliawndsize", &s->juliawndsize);
  readint(root, "GLFW_CONTEXT_VERSION_MAJOR", &s->glmajor);
  readint(root, "GLFW_CONTEXT_VERSION_MINOR", &s->glminor);
  readint(root, "yreduce", &s->yreduce);
  readint(root, "startautomode", &s->startautomode);
  readbool(root, "highres", &s->highres);
  readbool(root, "presentationmode", &s->presentationmode);
  readbool(root, "debuginfomode", &s->debuginfomode);
  readdict(root, "videooptions", &s->videooptions);
  readbool(root, "touchmodeaverage", &s->touchmodeaverage);
  return true;
}

bool readsettings(SETTINGS* s, const char* path, FILE* err) {
  // Opened for update, as the settings are meant to be the user's own file:
  // a read-only one counts as unreadable.
  FILE* f = fopen(path, "r+");
  if (!f) return applysettings(s, nullptr, err);
  JSTR* text = newjstr("");
  char buf[4096];
  while (fgets(buf, sizeof(buf), f)) appendjstr(text, buf);
  fclose(f);
  JOBJECT* root = getobjectfromjson(getjstr(text));
  releasejobject(text);
  bool ok = applysettings(s, root, err);
  if (root) releasejobject(root);
  return ok;
}

void derivesettings(SETTINGS* s, int width, int height) {
  if (s->graphicsmemory == 0)
    s->graphicsmemory = (static_cast<int64_t>(width) * static_cast<int64_t>(height)) / 8192;
  s->ngltexture = static_cast<int>(s->graphicsmemory * 4);
  if (s->graphicsrate == 0) s->graphicsrate = s->graphicsmemory / 5;
  s->uploadperframe = uploadperframe(static_cast<double>(s->graphicsrate), s->framerate);
}

void printsettings(const SETTINGS* s, FILE* err) {
  fprintf(err, "total (base) memory used : %i MB\n", static_cast<int>(s->totalmemory));
  fprintf(err, "nthread                  : %i\n", s->nthread);
  fprintf(err, "graphicsmemory           : %lli MB\n", static_cast<long long>(s->graphicsmemory));
  fprintf(err, "graphicsrate             : %lli MB/s\n", static_cast<long long>(s->graphicsrate));
  fprintf(err, "ngltexture               : %i\n", s->ngltexture);
  fprintf(err, "UPLOADPERFRAME           : %i\n", s->uploadperframe);
}

void freesettings(SETTINGS* s) {
  if (s->videooptions) releasejobject(s->videooptions);
  s->videooptions = nullptr;
}

int machineprocessors() {
  long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<int>(n) : 1;
}

int64_t machinememory() {
  long pages = sysconf(_SC_PHYS_PAGES), pagesize = sysconf(_SC_PAGESIZE);
  int64_t mem = pages > 0 && pagesize > 0 ? static_cast<int64_t>(pages) * pagesize : 0;
  // A container's limit is the memory this process really has.
  const char* limits[] = {"/sys/fs/cgroup/memory.max", "/sys/fs/cgroup/memory/memory.limit_in_bytes"};
  for (const char* path : limits) {
    FILE* f = fopen(path, "r");
    if (!f) continue;
    long long limit = 0;
    if (fscanf(f, "%lld", &limit) == 1 && limit > 0 && (mem == 0 || limit < mem)) mem = limit;
    fclose(f);
  }
  return mem;
}
