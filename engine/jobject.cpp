// Reference-counted dynamic values: construction, release, strings and the
// two containers. The JSON text lives in json.cpp, the link notation in
// query.cpp.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Array.h"

namespace {

constexpr int JARRAY_NMAX = 128;
constexpr int JARRAY_NGROW = 128;
constexpr int JDICT_NMAX = 128;
constexpr int JDICT_NGROW = 128;
constexpr int JSTR_NMAX = 128;
constexpr int JSTR_NGROW = 128;

template <typename T>
T* allocjobject(JOBJECTTYPE type, void (*freefct)(JOBJECT*)) {
  T* obj = static_cast<T*>(malloc(sizeof(T)));
  obj->type = type;
  obj->freefct = freefct;
  obj->count = 1;
  return obj;
}

void freeplain(JOBJECT* obj) { free(obj); }

void freejarray(JOBJECT* obj) {
  JARRAY* a = static_cast<JARRAY*>(obj);
  for (int i = 0; i < a->array.n; i++) releasejobject(*arrayat<JOBJECT*>(&a->array, i));
  freearray(&a->array);
  free(a);
}

void freejdict(JOBJECT* obj) {
  JDICT* d = static_cast<JDICT*>(obj);
  for (int i = 0; i < d->array.n; i++) {
    JDICTENTRY* e = arrayat<JDICTENTRY>(&d->array, i);
    free(e->key);
    releasejobject(e->value);
  }
  freearray(&d->array);
  free(d);
}

void freejstr(JOBJECT* obj) {
  JSTR* s = static_cast<JSTR*>(obj);
  freearray(&s->array);
  free(s);
}

// Appends n raw bytes, which may include a NUL, before the terminator. The
// bytes may be the string's own: growing moves them, so they are found again
// by their offset.
void appendbytes(JOBJECT* str, const char* s, size_t n) {
  ARRAY* a = &static_cast<JSTR*>(str)->array;
  const char* old = static_cast<const char*>(a->data);
  bool own = s >= old && s < old + a->n;
  size_t offset = own ? static_cast<size_t>(s - old) : 0;
  int first = appendarray(a, static_cast<int>(n));
  char* data = static_cast<char*>(a->data);
  memmove(data + first - 1, own ? data + offset : s, n);
  data[a->n - 1] = 0;
}

void appendbyte(JOBJECT* str, char c) { appendbytes(str, &c, 1); }

bool isjstr(const JOBJECT* obj) { return obj && obj->type == JOBJECT_STR; }
bool isjarray(const JOBJECT* obj) { return obj && obj->type == JOBJECT_ARRAY; }
bool isjdict(const JOBJECT* obj) { return obj && obj->type == JOBJECT_DICT; }

int hexvalue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

JDICTENTRY* findjdict(JDICT* d, const char* key) {
  for (int i = 0; i < d->array.n; i++) {
    JDICTENTRY* e = arrayat<JDICTENTRY>(&d->array, i);
    if (!strcmp(e->key, key)) return e;
  }
  return nullptr;
}

}  // namespace

// ---------------------------------------------------------------- counts

// A release past zero is a caller's bug; the value may already be gone, so
// say so and touch nothing else.
void releasejobject(JOBJECT* obj) {
  if (!obj) return;
  if (!obj->count) fputs("FATAL ERROR: releasejobject: !obj->count.\n", stderr);
  if (--obj->count == 0 && obj->freefct) obj->freefct(obj);
}

// ---------------------------------------------------------------- constructors

JARRAY* newjarray() {
  JARRAY* a = allocjobject<JARRAY>(JOBJECT_ARRAY, freejarray);
  initarray(&a->array, sizeof(JOBJECT*), JARRAY_NMAX, JARRAY_NGROW);
  return a;
}

JDICT* newjdict() {
  JDICT* d = allocjobject<JDICT>(JOBJECT_DICT, freejdict);
  initarray(&d->array, sizeof(JDICTENTRY), JDICT_NMAX, JDICT_NGROW);
  return d;
}

JNUM* newjnum(double num) {
  JNUM* n = allocjobject<JNUM>(JOBJECT_NUM, freeplain);
  n->num = num;
  return n;
}

JBOOL* newjbool(bool value) {
  JBOOL* b = allocjobject<JBOOL>(JOBJECT_BOOL, freeplain);
  b->num = value;
  return b;
}

JNULL* newjnull() { return allocjobject<JNULL>(JOBJECT_NULL, freeplain); }

JSTR* newjstr(const char* str) {
  JSTR* s = allocjobject<JSTR>(JOBJECT_STR, freejstr);
  initarray(&s->array, 1, JSTR_NMAX, JSTR_NGROW);
  addarray(&s->array);
  *static_cast<char*>(s->array.data) = 0;
  if (str) appendjstr(s, str);
  return s;
}

// Win32 edit controls want "\r\n"; every "\n" is widened, even one that
// already follows a "\r".
JSTR* newjstrwithcr(const char* str) {
  JSTR* s = newjstr(nullptr);
  for (const char* p = str; p && *p; p++) {
    if (*p == '\n') appendbyte(s, '\r');
    appendbyte(s, *p);
  }
  return s;
}

JSTR* newjstrwithoutcr(const char* str) {
  JSTR* s = newjstr(nullptr);
  for (const char* p = str; p && *p; p++)
    if (*p != '\r') appendbyte(s, *p);
  return s;
}

namespace {

// Digits that the precision of op can carry, truncated.
size_t mpfdigits(mpf_srcptr op) {
  return static_cast<size_t>(static_cast<double>(mpf_get_prec(op)) * log10(2.0));
}

void freegmpstring(char* str) {
  void (*freefunc)(void*, size_t);
  mp_get_memory_functions(nullptr, nullptr, &freefunc);
  freefunc(str, strlen(str) + 1);
}

}  // namespace

JSTR* newjstrfrommpf(mpf_srcptr op) {
  mp_exp_t exp;
  char* digits = mpf_get_str(nullptr, &exp, 10, mpfdigits(op), op);
  const char* mantissa = digits[0] == '-' ? digits + 1 : digits;
  JSTR* s = newjstr(nullptr);
  if (!*mantissa) {
    appendjstr(s, "0");
  } else {
    appendjstr(s, digits[0] == '-' ? "-0." : "0.");
    appendjstr(s, mantissa);
    char buf[32];
    snprintf(buf, sizeof buf, "e%li", static_cast<long>(exp));
    if (exp) appendjstr(s, buf);
  }
  freegmpstring(digits);
  return s;
}

JSTR* removepercentjstr(const char* s) {
  JSTR* out = newjstr(nullptr);
  for (const char* p = s; p && *p; p++) {
    if (*p != '%') {
      appendbyte(out, *p);
      continue;
    }
    int hi = hexvalue(p[1]);
    int lo = hi < 0 ? -1 : hexvalue(p[2]);
    if (lo < 0) {
      releasejobject(out);
      return nullptr;
    }
    appendbyte(out, static_cast<char>(hi << 4 | lo));
    p += 2;
  }
  return out;
}

// ---------------------------------------------------------------- strings

void clearjstr(JOBJECT* str) {
  if (!isjstr(str)) return;
  ARRAY* a = &static_cast<JSTR*>(str)->array;
  a->n = 1;
  *static_cast<char*>(a->data) = 0;
}

void appendjstr(JOBJECT* str, const char* s) {
  if (isjstr(str) && s) appendbytes(str, s, strlen(s));
}

// The getters answer a neutral value for the wrong kind rather than reading
// another kind's fields: values come from files and links the user hands in.
char* getjstr(JOBJECT* a) {
  return isjstr(a) ? static_cast<char*>(static_cast<JSTR*>(a)->array.data) : nullptr;
}

double getjnum(JOBJECT* a) {
  return a && a->type == JOBJECT_NUM ? static_cast<JNUM*>(a)->num : 0.0;
}

bool getjbool(JOBJECT* a) {
  return a && a->type == JOBJECT_BOOL ? static_cast<JBOOL*>(a)->num : false;
}

// ---------------------------------------------------------------- containers

void addjdict(JOBJECT* a, const char* key, JOBJECT* value) {
  if (!isjdict(a) || !key) {
    releasejobject(value);
    return;
  }
  JDICT* d = static_cast<JDICT*>(a);
  JDICTENTRY* e = findjdict(d, key);
  if (e) {
    JOBJECT* old = e->value;
    e->value = value;
    releasejobject(old);
    return;
  }
  e = arrayat<JDICTENTRY>(&d->array, addarray(&d->array));
  e->key = strdup(key);
  e->value = value;
}

void addjarray(JOBJECT* a, JOBJECT* value) {
  if (!isjarray(a)) {
    releasejobject(value);
    return;
  }
  ARRAY* arr = &static_cast<JARRAY*>(a)->array;
  *arrayat<JOBJECT*>(arr, addarray(arr)) = value;
}

int countjarray(JOBJECT* d) { return isjarray(d) ? static_cast<JARRAY*>(d)->array.n : 0; }

int countjdict(JOBJECT* d) { return isjdict(d) ? static_cast<JDICT*>(d)->array.n : 0; }

void removejdict(JOBJECT* dict, JOBJECT* obj) {
  if (!isjdict(dict)) return;
  ARRAY* arr = &static_cast<JDICT*>(dict)->array;
  for (int i = 0; i < arr->n; i++) {
    JDICTENTRY* e = arrayat<JDICTENTRY>(arr, i);
    if (e->value != obj) continue;
    releasejobject(e->value);
    free(e->key);
    removearray(arr, i);
    return;
  }
}

JOBJECT* getjdict(JOBJECT* a, const char* key) {
  if (!isjdict(a) || !key) return nullptr;
  JDICTENTRY* e = findjdict(static_cast<JDICT*>(a), key);
  return e ? e->value : nullptr;
}

JOBJECT* getjarray(JOBJECT* a, int i) { return *arrayat<JOBJECT*>(&static_cast<JARRAY*>(a)->array, i); }

JOBJECT* getjdictenum(JOBJECT* a, int i, char** key) {
  JDICTENTRY* e = arrayat<JDICTENTRY>(&static_cast<JDICT*>(a)->array, i);
  if (key) *key = e->key;
  return e->value;
}

JOBJECT* getlastjarray(JOBJECT* a) {
  int n = countjarray(a);
  return n ? getjarray(a, n - 1) : nullptr;
}

void removerangejarray(JOBJECT* a, int i, int count) {
  if (!isjarray(a)) return;
  ARRAY* arr = &static_cast<JARRAY*>(a)->array;
  for (int k = 0; k < count && i < arr->n; k++) {
    releasejobject(*arrayat<JOBJECT*>(arr, i));
    removearray(arr, i);
  }
}
