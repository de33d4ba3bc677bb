// The link notation: a dictionary folded into the query part of a URL.
//
// Writing is a plain walk. Reading is one pass that pushes raw tokens and the
// marks "=", "&" and "*" on a stack; each "~" folds back to its "*", and the
// end of the text folds the rest into the top dictionary. A folded segment is
// a dictionary when it holds an "=", else an array. Tokens are decoded only
// when folded, so a nested value and a raw token never mix up.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "Array.h"

namespace {

// Nesting deeper than this is refused, as in the JSON parser: release and
// the writers recurse.
constexpr int NQUERYDEPTH = 512;
constexpr int NQUERYSTACK = 64;

bool isquerybyte(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == ';' || c == '_';
}

// ---------------------------------------------------------------- writer

// A string that would read back as a number or a word is marked with "_";
// so is one that starts with "_" itself, which the reader would otherwise
// strip, so that every string survives a round trip.
bool needsunderscore(const char* s) {
  double v;
  const char* end;
  if (s[0] == '_') return true;
  if (__parsenum(s, &v, &end) && !*end) return true;
  return !strcmp(s, "true") || !strcmp(s, "false") || !strcmp(s, "null");
}

// As in JSON text; escaped, since the "+" of an exponent would read back as
// a blank.
void appendquerynumber(JOBJECT* str, double num) {
  char buf[JNUMTEXTMAX];
  formatjnum(buf, num);
  appendjstr_query(str, buf);
}

void writequeryvalue(JOBJECT* str, JOBJECT* obj);

void writequerymembers(JOBJECT* str, JOBJECT* dict) {
  for (int i = 0; i < countjdict(dict); i++) {
    char* key;
    JOBJECT* value = getjdictenum(dict, i, &key);
    if (i) appendjstr(str, "&");
    appendjstr_query(str, key);
    appendjstr(str, "=");
    writequeryvalue(str, value);
  }
}

void writequeryelements(JOBJECT* str, JOBJECT* array) {
  for (int i = 0; i < countjarray(array); i++) {
    if (i) appendjstr(str, "&");
    writequeryvalue(str, getjarray(array, i));
  }
}

void writequerystring(JOBJECT* str, const char* s) {
  if (needsunderscore(s)) appendjstr(str, "_");
  appendjstr_query(str, s);
}

// Custom records and unknown kinds leave no text, like in JSON.
void writequeryvalue(JOBJECT* str, JOBJECT* obj) {
  if (!obj) return;
  switch (obj->type) {
    case JOBJECT_ARRAY:
      appendjstr(str, "*");
      writequeryelements(str, obj);
      appendjstr(str, "~");
      break;
    case JOBJECT_DICT:
      appendjstr(str, "*");
      writequerymembers(str, obj);
      appendjstr(str, "~");
      break;
    case JOBJECT_STR: writequerystring(str, getjstr(obj)); break;
    case JOBJECT_NUM: appendquerynumber(str, getjnum(obj)); break;
    case JOBJECT_BOOL: appendjstr(str, getjbool(obj) ? "true" : "false"); break;
    case JOBJECT_NULL: appendjstr(str, "null"); break;
    default: break;
  }
}

// ---------------------------------------------------------------- reader

// One stack item: a mark ('=', '&', '*'), or with mark 0 a value, which is
// either a raw token (a JSTR, still percent-encoded) or a folded nested
// array or dictionary.
struct QITEM {
  char mark;
  JOBJECT* obj;
};

struct QREADER {
  ARRAY stack;
  JSTR* token;
  int depth;
};

QITEM* itemat(QREADER* r, int i) { return arrayat<QITEM>(&r->stack, i); }

void push(QREADER* r, char mark, JOBJECT* obj) {
  QITEM* item = itemat(r, addarray(&r->stack));
  item->mark = mark;
  item->obj = obj;
}

// Drops the items from i on, releasing what they hold.
void popfrom(QREADER* r, int i) {
  for (int k = i; k < r->stack.n; k++) releasejobject(itemat(r, k)->obj);
  r->stack.n = i;
}

bool israwtoken(const QITEM* item) { return !item->mark && item->obj->type == JOBJECT_STR; }

// A token is closed only by a mark or by the end of the text, so two raw
// tokens never meet on the stack; a token right after a "~" stands beside
// the nested value and makes an error when folded.
void addlasttoken(QREADER* r) {
  if (!getjstr(r->token)[0]) return;
  push(r, 0, newjstr(getjstr(r->token)));
  clearjstr(r->token);
}

JOBJECT* wordvalue(const char* s) {
  if (!strcmp(s, "null")) return newjnull();
  if (!strcmp(s, "false")) return newjbool(false);
  if (!strcmp(s, "true")) return newjbool(true);
  double v;
  const char* end;
  if (__parsenum(s, &v, &end) && !*end) return newjnum(v);
  return nullptr;
}

// A raw token becomes a value; a nested value passes through with a
// reference of its own. NULL on a bad percent escape.
JOBJECT* tokenvalue(const QITEM* item) {
  if (!israwtoken(item)) return attachjobject(item->obj);
  JSTR* decoded = removepercentjstr(getjstr(item->obj));
  if (!decoded) return nullptr;
  const char* s = getjstr(decoded);
  JOBJECT* value = s[0] == '_' ? nullptr : wordvalue(s);
  if (!value) value = newjstr(s[0] == '_' ? s + 1 : s);
  releasejobject(decoded);
  return value;
}

// A key is a raw token, decoded, with no "_" rule. Empty on failure.
bool tokenkey(const QITEM* item, JSTR** key) {
  if (!israwtoken(item)) return false;
  *key = removepercentjstr(getjstr(item->obj));
  return *key;
}

// One member of a dictionary: "k=v" adds a pair; "k=", "=v" and "=" lose
// theirs, as an empty token leaves no item; anything else is an error.
bool foldpair(JOBJECT* dict, const QITEM* items, int n) {
  if (n == 0) return true;
  int eq = items[0].mark ? 0 : 1;  // where the "=" must stand
  if (eq >= n || items[eq].mark != '=') return false;
  int rest = n - eq - 1;  // items after the "="
  if (rest > 1 || (rest == 1 && items[eq + 1].mark)) return false;
  if (eq == 0 || rest == 0) return true;
  JSTR* key;
  if (!tokenkey(&items[0], &key)) return false;
  JOBJECT* value = tokenvalue(&items[eq + 1]);
  if (value) addjdict(dict, getjstr(key), value);
  releasejobject(key);
  return value;
}

// One element of an array: a single value, or nothing between two "&".
bool foldelement(JOBJECT* array, const QITEM* items, int n) {
  if (n == 0) return true;
  if (n > 1 || items[0].mark) return false;
  JOBJECT* value = tokenvalue(&items[0]);
  if (value) addjarray(array, value);
  return value;
}

// Items [first, stack end) split at "&" into members.
bool foldmembers(QREADER* r, int first, JOBJECT* into, bool dict) {
  int start = first;
  for (int i = first; i <= r->stack.n; i++) {
    if (i < r->stack.n && itemat(r, i)->mark != '&') continue;
    const QITEM* items = itemat(r, start);
    bool ok = dict ? foldpair(into, items, i - start) : foldelement(into, items, i - start);
    if (!ok) return false;
    start = i + 1;
  }
  return true;
}

bool hasmark(QREADER* r, int first, char mark) {
  for (int i = first; i < r->stack.n; i++)
    if (itemat(r, i)->mark == mark) return true;
  return false;
}

// Folds items [first, stack end) into one value and drops them. NULL on an
// error, with the items left for the caller's cleanup.
JOBJECT* foldsegment(QREADER* r, int first, bool forcedict) {
  bool dict = forcedict || hasmark(r, first, '=');
  JOBJECT* obj = dict ? static_cast<JOBJECT*>(newjdict()) : newjarray();
  if (!foldmembers(r, first, obj, dict)) {
    releasejobject(obj);
    return nullptr;
  }
  popfrom(r, first);
  return obj;
}

int lastopen(QREADER* r) {
  for (int i = r->stack.n - 1; i >= 0; i--)
    if (itemat(r, i)->mark == '*') return i;
  return -1;
}

bool closenested(QREADER* r) {
  int open = lastopen(r);
  if (open < 0) return false;
  JOBJECT* obj = foldsegment(r, open + 1, false);
  if (!obj) return false;
  popfrom(r, open);
  push(r, 0, obj);
  r->depth--;
  return true;
}

// One byte of the text; false on a syntax error.
bool readbyte(QREADER* r, char c) {
  if (isquerybyte(c) || c == '%') {
    char buf[2] = {c, 0};
    appendjstr(r->token, buf);
    return true;
  }
  if (c == '+') {
    appendjstr(r->token, " ");
    return true;
  }
  if (c != '=' && c != '&' && c != '*' && c != '~') return false;
  addlasttoken(r);
  if (c == '~') return closenested(r);
  if (c == '*' && ++r->depth > NQUERYDEPTH) return false;
  push(r, c, nullptr);
  return true;
}

JOBJECT* readquery(QREADER* r, const char* query) {
  for (const char* p = query; *p; p++)
    if (!readbyte(r, *p)) return nullptr;
  addlasttoken(r);
  if (lastopen(r) >= 0) return nullptr;
  return foldsegment(r, 0, true);
}

}  // namespace

void appendjstr_query(JOBJECT* str, const char* s) {
  for (; s && *s; s++) {
    char buf[4] = {*s, 0};
    if (*s == ' ')
      buf[0] = '+';
    else if (!isquerybyte(*s))
      snprintf(buf, sizeof buf, "%%%02X", static_cast<unsigned char>(*s));
    appendjstr(str, buf);
  }
}

JSTR* getqueryfromobject(JOBJECT* obj) {
  JSTR* str = newjstr(nullptr);
  if (obj && obj->type == JOBJECT_DICT) writequerymembers(str, obj);
  return str;
}

JOBJECT* getobjectfromquery(const char* query) {
  if (!query) return nullptr;
  QREADER r;
  initarray(&r.stack, sizeof(QITEM), NQUERYSTACK, NQUERYSTACK);
  r.token = newjstr(nullptr);
  r.depth = 0;
  JOBJECT* obj = readquery(&r, query);
  popfrom(&r, 0);
  freearray(&r.stack);
  releasejobject(r.token);
  return obj;
}
