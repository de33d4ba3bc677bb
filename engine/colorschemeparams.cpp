// The palette as JSON, inside a saved fractal's "parameters". Only what
// differs from the defaults is written, so a fractal saved with the default
// colours carries none of these keys, and reading starts from the defaults.
#include "MandelbrotColorscheme.h"

namespace {

JARRAY* numbers(const float* v, int n) {
  JARRAY* a = newjarray();
  for (int i = 0; i < n; i++) addjarray(a, newjnum(v[i]));
  return a;
}

// Slots 0 to 2 write only what differs from their defaults, possibly
// nothing; later slots have no defaults and write everything.
JDICT* colorentry(const UniformsColor* c, int i) {
  const UniformsColor* def = i < 3 ? &INITIALCOLORS[i] : NULL;
  JDICT* d = newjdict();
  if (!def || c->c.x != def->c.x || c->c.y != def->c.y || c->c.z != def->c.z) {
    const float rgb[3] = {c->c.x, c->c.y, c->c.z};
    addjdict(d, "rgb", numbers(rgb, 3));
  }
  if (!def || c->initial != def->initial) addjdict(d, "initial", newjnum(c->initial));
  if (!def || c->frequency != def->frequency) addjdict(d, "frequency", newjnum(c->frequency));
  return d;
}

bool defaultpalette(const Params* params) {
  if (params->ncolor != 3) return false;
  for (int i = 0; i < 3; i++)
    if (!UniformsColorEqual(&params->color[i], &INITIALCOLORS[i])) return false;
  return true;
}

bool customset(const Params* params, const Colorscheme* cs) {
  if (!cs || cs->nparam <= 0) return false;
  for (int i = 0; i < cs->nparam && i < NPARAM; i++)
    if (params->param[i] != 0) return true;
  return false;
}

// ---------------------------------------------------------------- reading

// An absent key leaves `*out`; a present one must be a number.
bool readfloat(JOBJECT* dict, const char* key, float* out) {
  JOBJECT* v = getjdict(dict, key);
  if (!v) return true;
  if (v->type != JOBJECT_NUM) return false;
  *out = static_cast<float>(getjnum(v));
  return true;
}

bool readbool(JOBJECT* dict, const char* key, bool* out) {
  float v = *out ? 1.0f : 0.0f;
  if (!readfloat(dict, key, &v)) return false;
  *out = v != 0;
  return true;
}

// The first NPARAM entries; a null leaves 0, the rest is ignored.
bool readcustom(JOBJECT* dict, Params* params) {
  JOBJECT* a = getjdict(dict, "custom");
  if (!a) return true;
  if (a->type != JOBJECT_ARRAY) return false;
  for (int i = 0; i < countjarray(a) && i < NPARAM; i++) {
    JOBJECT* v = getjarray(a, i);
    if (v->type == JOBJECT_NULL) continue;
    if (v->type != JOBJECT_NUM) return false;
    params->param[i] = static_cast<float>(getjnum(v));
  }
  return true;
}

// A shorter array changes only its first components; a null is skipped.
bool readrgb(JOBJECT* a, vec3* c) {
  if (a->type != JOBJECT_ARRAY || countjarray(a) > 3) return false;
  float* v[3] = {&c->x, &c->y, &c->z};
  for (int i = 0; i < countjarray(a); i++) {
    JOBJECT* n = getjarray(a, i);
    if (n->type == JOBJECT_NULL) continue;
    if (n->type != JOBJECT_NUM) return false;
    *v[i] = static_cast<float>(getjnum(n));
  }
  return true;
}

// An entry is a dictionary whose keys overwrite that slot, or an empty array
// that leaves it as it stands.
bool readcolor(JOBJECT* entry, UniformsColor* c) {
  if (entry->type == JOBJECT_ARRAY) return countjarray(entry) == 0;
  if (entry->type != JOBJECT_DICT) return false;
  if (!readfloat(entry, "frequency", &c->frequency) || !readfloat(entry, "initial", &c->initial)) return false;
  JOBJECT* rgb = getjdict(entry, "rgb");
  return !rgb || readrgb(rgb, &c->c);
}

bool readcolors(JOBJECT* dict, Params* params) {
  JOBJECT* a = getjdict(dict, "colors");
  if (!a) return true;
  if (a->type != JOBJECT_ARRAY || countjarray(a) > NCOLOR) return false;
  for (int i = 0; i < countjarray(a); i++)
    if (!readcolor(getjarray(a, i), &params->color[i])) return false;
  params->ncolor = countjarray(a);
  return true;
}

Colorscheme* schemenamed(JOBJECT* csdict, const char* name) {
  JOBJECT* cs = csdict ? getjdict(csdict, name) : NULL;
  return cs && cs->type == JOBJECT_CUSTOM ? static_cast<Colorscheme*>(cs) : NULL;
}

// The scheme "colorscheme" names, with a reference, or NULL for none; a
// dictionary that carries its own code is compiled from it. False on a
// value of a wrong type.
bool readscheme(OVCONTEXT* context, JOBJECT* dict, JOBJECT* csdict, Colorscheme** out) {
  *out = NULL;
  JOBJECT* d = getjdict(dict, "colorscheme");
  if (!d) return true;
  if (d->type != JOBJECT_DICT) return false;
  JOBJECT* name = getjdict(d, "name");
  if (!name || name->type != JOBJECT_STR) return false;
  if (getjdict(d, "codegl"))
    *out = ColorschemeFromDictionary(context, d);
  else
    *out = attachjobject(schemenamed(csdict, getjstr(name)));
  return true;
}

// `next` comes with a reference, which `*cs` takes over. The new scheme is
// activated before the old one lets go, so a scheme that stays keeps its
// aux texture.
void replacescheme(Colorscheme** cs, Colorscheme* next, ReadImageFct readimagefct) {
  activateColorscheme(next, readimagefct);
  if (*cs) {
    deactivateColorscheme(*cs);
    releasejobject(*cs);
  }
  *cs = next;
}

}  // namespace

void writeParams(JOBJECT* dict, const Params* params, const Colorscheme* cs, int juliamode) {
  if (!defaultpalette(params)) {
    JARRAY* colors = newjarray();
    for (int i = 0; i < params->ncolor && i < NCOLOR; i++) addjarray(colors, colorentry(&params->color[i], i));
    addjdict(dict, "colors", colors);
  }
  if (customset(params, cs)) addjdict(dict, "custom", numbers(params->param, cs->nparam));
  if (params->brightnessfinite != 1.0f) addjdict(dict, "brightnessfinite", newjnum(params->brightnessfinite));
  if (params->brightnessinfinite != 1.0f)
    addjdict(dict, "brightnessinfinite", newjnum(params->brightnessinfinite));
  if (juliamode) addjdict(dict, "juliamode", newjnum(juliamode));
  if (params->frequency != PARAMS_FREQUENCY) addjdict(dict, "frequency", newjnum(params->frequency));
  if (params->initial != 0.0f) addjdict(dict, "initial", newjnum(params->initial));
  if (params->inverse) addjdict(dict, "inverse", newjnum(1));
  if (!cs) return;
  if (cs->builtin) {
    JDICT* named = newjdict();
    addjdict(named, "name", newjstr(cs->name ? getjstr(cs->name) : ""));
    addjdict(dict, "colorscheme", named);
  } else {
    addjdict(dict, "colorscheme", DictionaryFromColorscheme(cs));
  }
}

bool readParams(OVCONTEXT* context, JOBJECT* dict, Params* params, Colorscheme** cs, JOBJECT* csdict,
                ReadImageFct readimagefct) {
  initParams(params);
  if (!dict) {
    replacescheme(cs, attachjobject(schemenamed(csdict, "Iteration")), readimagefct);
    return false;
  }
  if (!readfloat(dict, "brightnessfinite", &params->brightnessfinite) ||
      !readfloat(dict, "brightnessinfinite", &params->brightnessinfinite) ||
      !readfloat(dict, "initial", &params->initial) || !readfloat(dict, "frequency", &params->frequency) ||
      !readbool(dict, "inverse", &params->inverse) || !readcustom(dict, params))
    return false;
  Colorscheme* next = NULL;
  if (!readscheme(context, dict, csdict, &next)) return false;
  if (!readcolors(dict, params)) {
    if (next) releasejobject(next);
    return false;
  }
  if (!next) next = attachjobject(schemenamed(csdict, "Iteration"));
  replacescheme(cs, next, readimagefct);
  return true;
}
