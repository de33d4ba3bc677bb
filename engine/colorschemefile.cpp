// colorschemes.json: one array of dictionaries, one per scheme, in the order
// of the scheme dictionary. An entry that is wrong in any way is dropped
// alone; a file that yields no scheme at all gives the built-ins, and is
// rewritten with them only when it did not exist, so that a file the user
// broke by hand is still there to be mended.
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "MandelbrotColorscheme.h"

namespace {

constexpr int SAMPLESMAX = 16;  // 256 samples a pixel

// The value of `key` if it is absent (NULL) or of the given kind.
bool typed(JOBJECT* dict, const char* key, JOBJECTTYPE type, JOBJECT** value) {
  *value = getjdict(dict, key);
  return !*value || (*value)->type == type;
}

// A number truncated toward zero into [lo, hi].
bool intin(JOBJECT* num, int lo, int hi, int* out) {
  double v = std::trunc(getjnum(num));
  if (!(v >= lo && v <= hi)) return false;
  *out = static_cast<int>(v);
  return true;
}

struct ENTRY {
  JOBJECT* name;
  JOBJECT* code;
  JOBJECT* channels;
  JOBJECT* samples;
  JOBJECT* nparam;
  JOBJECT* builtin;
  JOBJECT* aux;
};

bool readentry(JOBJECT* dict, ENTRY* e) {
  return typed(dict, "name", JOBJECT_STR, &e->name) && e->name && typed(dict, "codegl", JOBJECT_STR, &e->code) &&
         e->code && typed(dict, "channels", JOBJECT_NUM, &e->channels) && e->channels &&
         typed(dict, "samples", JOBJECT_NUM, &e->samples) && typed(dict, "nparam", JOBJECT_NUM, &e->nparam) &&
         typed(dict, "builtin", JOBJECT_NUM, &e->builtin) && typed(dict, "aux", JOBJECT_STR, &e->aux);
}

// Channels outside the table would ask the engine for tiles it has not got;
// a sample count out of range or more parameters than a palette holds would
// make a program that cannot run. Such an entry goes like a mistyped one.
bool fillscheme(const ENTRY* e, Colorscheme* cs) {
  cs->samples = 1;
  cs->nparam = 0;
  if (!intin(e->channels, 0, CHANNELMASK_ALL, &cs->channels) || (cs->channels & ~CHANNELMASK_ALL)) return false;
  if (e->samples && !intin(e->samples, 1, SAMPLESMAX, &cs->samples)) return false;
  if (e->nparam && !intin(e->nparam, 0, NPARAM, &cs->nparam)) return false;
  cs->builtin = e->builtin && getjnum(e->builtin) != 0;
  cs->name = attachjobject(static_cast<JSTR*>(e->name));
  cs->code = attachjobject(static_cast<JSTR*>(e->code));
  if (e->aux && *getjstr(e->aux)) cs->auxfile = attachjobject(static_cast<JSTR*>(e->aux));
  return true;
}

// The whole file as one string, or NULL; `missing` tells a file that does not
// exist from one that cannot be read.
char* readfile(const char* path, bool* missing) {
  FILE* f = fopen(path, "r");
  *missing = !f && errno == ENOENT;
  if (!f) return NULL;
  size_t n = 0, size = 4096;
  char* text = static_cast<char*>(malloc(size + 1));
  for (size_t got; (got = fread(text + n, 1, size - n, f)) > 0;) {
    n += got;
    if (n == size) text = static_cast<char*>(realloc(text, (size *= 2) + 1));
  }
  bool failed = ferror(f);
  fclose(f);
  if (failed) {
    free(text);
    return NULL;
  }
  text[n] = 0;
  return text;
}

// Every scheme the text yields, later names replacing earlier ones.
JDICT* schemesfromtext(OVCONTEXT* context, const char* text) {
  JDICT* csdict = newjdict();
  JOBJECT* array = text ? getobjectfromjson(text) : NULL;
  if (array && array->type == JOBJECT_ARRAY) {
    for (int i = 0; i < countjarray(array); i++) {
      JOBJECT* entry = getjarray(array, i);
      if (entry->type != JOBJECT_DICT) continue;
      Colorscheme* cs = ColorschemeFromDictionary(context, entry);
      if (cs) addjdict(csdict, getjstr(cs->name), cs);
    }
  }
  if (array) releasejobject(array);
  return csdict;
}

}  // namespace

Colorscheme* ColorschemeFromDictionary(OVCONTEXT* context, JOBJECT* dict) {
  ENTRY e;
  if (!dict || dict->type != JOBJECT_DICT || !readentry(dict, &e)) return NULL;
  Colorscheme* cs = newColorscheme();
  if (!fillscheme(&e, cs) || !compileColorscheme(context, cs, NULL)) {
    releasejobject(cs);
    return NULL;
  }
  return cs;
}

JDICT* DictionaryFromColorscheme(const Colorscheme* cs) {
  JDICT* dict = newjdict();
  if (cs->name) addjdict(dict, "name", newjstr(getjstr(cs->name)));
  if (cs->code) addjdict(dict, "codegl", newjstr(getjstr(cs->code)));
  addjdict(dict, "channels", newjnum(cs->channels));
  addjdict(dict, "samples", newjnum(cs->samples));
  if (cs->nparam) addjdict(dict, "nparam", newjnum(cs->nparam));
  addjdict(dict, "builtin", newjnum(cs->builtin ? 1 : 0));
  if (cs->auxfile) addjdict(dict, "aux", newjstr(getjstr(cs->auxfile)));
  return dict;
}

JDICT* readColorschemes(OVCONTEXT* context, const char* dictfile, const char* texturefile) {
  bool missing = false;
  char* text = readfile(dictfile, &missing);
  JDICT* csdict = schemesfromtext(context, text);
  free(text);
  if (countjdict(csdict)) return csdict;
  releasejobject(csdict);
  fprintf(stderr, "Could not read colour scheme file \"%s\".\n", dictfile);
  csdict = builtincolorschemes(context, texturefile);
  if (missing) writeColorschemes(csdict, dictfile);
  return csdict;
}

void writeColorschemes(JOBJECT* csdict, const char* dictfile) {
  FILE* f = fopen(dictfile, "w+");
  if (!f) return;
  JARRAY* array = newjarray();
  for (int i = 0; i < countjdict(csdict); i++) {
    JOBJECT* cs = getjdictenum(csdict, i, NULL);
    if (cs->type == JOBJECT_CUSTOM) addjarray(array, DictionaryFromColorscheme(static_cast<Colorscheme*>(cs)));
  }
  JSTR* json = getjsonfromobject(array);
  fputs(getjstr(json), f);
  fputc('\n', f);
  fclose(f);
  releasejobject(json);
  releasejobject(array);
}
