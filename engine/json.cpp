// JSON text of dynamic values: the writer, its escaping, the parser and the
// number grammar that the link reader shares.
//
// The writer's layout is fixed (two blanks per level, one element a line) so
// that saved files compare and diff well. The parser keeps a few limits that
// differ from common JSON on purpose: raw bytes from 26 to 31 pass, "\u"
// escapes encode with bounds one below the usual ones, and numbers that
// strtod flags (overflow, and with glibc also subnormal results) are refused.
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Array.h"

namespace {

constexpr int JSON_NGROW = 4096;  // writer output grows in pages, not lines
constexpr size_t NNUMTEXT = 1024;  // longest number text is one byte less
// Nesting deeper than this is refused rather than risking the stack: no file
// or link this system writes comes anywhere near it.
constexpr int NJSONDEPTH = 512;

// ---------------------------------------------------------------- writer

// The escape of one byte, or nullptr for a byte that stands as it is.
const char* escapeof(unsigned char c, char* buf, size_t size) {
  switch (c) {
    case '\b': return "\\b";
    case '\t': return "\\t";
    case '\n': return "\\n";
    case '\f': return "\\f";
    case '\r': return "\\r";
    case '"': return "\\\"";
    case '/': return "\\/";
    case '\\': return "\\\\";
    default: break;
  }
  if (c >= 32) return nullptr;
  snprintf(buf, size, "\\u00%02X", c);
  return buf;
}

void appendnumber(JOBJECT* str, double num) {
  char buf[JNUMTEXTMAX];
  formatjnum(buf, num);
  appendjstr(str, buf);
}

void appendbreak(JOBJECT* str, int margin) {
  appendjstr(str, "\n");
  for (int i = 0; i < margin; i++) appendjstr(str, " ");
}

void appendquoted(JOBJECT* str, const char* s) {
  appendjstr(str, "\"");
  appendjstr_escape(str, s);
  appendjstr(str, "\"");
}

void writevalue(JOBJECT* str, JOBJECT* obj, int margin);

void writearray(JOBJECT* str, JOBJECT* a, int margin) {
  int n = countjarray(a);
  if (!n) {
    appendjstr(str, "[ ]");
    return;
  }
  appendjstr(str, "[");
  for (int i = 0; i < n; i++) {
    appendbreak(str, margin + 2);
    writevalue(str, getjarray(a, i), margin + 2);
    if (i + 1 < n) appendjstr(str, ",");
  }
  appendbreak(str, margin);
  appendjstr(str, "]");
}

void writedict(JOBJECT* str, JOBJECT* d, int margin) {
  int n = countjdict(d);
  if (!n) {
    appendjstr(str, "{ }");
    return;
  }
  appendjstr(str, "{");
  for (int i = 0; i < n; i++) {
    char* key;
    JOBJECT* value = getjdictenum(d, i, &key);
    appendbreak(str, margin + 2);
    appendquoted(str, key);
    appendjstr(str, ": ");
    writevalue(str, value, margin + 2);
    if (i + 1 < n) appendjstr(str, ",");
  }
  appendbreak(str, margin);
  appendjstr(str, "}");
}

// Custom records and unknown kinds leave no text at all.
void writevalue(JOBJECT* str, JOBJECT* obj, int margin) {
  if (!obj) return;
  switch (obj->type) {
    case JOBJECT_ARRAY: writearray(str, obj, margin); break;
    case JOBJECT_DICT: writedict(str, obj, margin); break;
    case JOBJECT_STR: appendquoted(str, getjstr(obj)); break;
    case JOBJECT_NUM: appendnumber(str, getjnum(obj)); break;
    case JOBJECT_BOOL: appendjstr(str, getjbool(obj) ? "true" : "false"); break;
    case JOBJECT_NULL: appendjstr(str, "null"); break;
    default: break;
  }
}

// ---------------------------------------------------------------- numbers

bool isdigitbyte(char c) { return c >= '0' && c <= '9'; }

bool isnumberbyte(char c) {
  return isdigitbyte(c) || c == '-' || c == '+' || c == '.' || c == 'e' || c == 'E';
}

// At least one digit from *i on; moves *i past them.
bool skipdigits(const char* s, size_t n, size_t* i) {
  size_t start = *i;
  while (*i < n && isdigitbyte(s[*i])) (*i)++;
  return *i > start;
}

// The whole run of number bytes must be one number: a stray sign, a second
// dot or a dot after the exponent spoils it rather than ending it early.
bool numbergrammar(const char* s, size_t n) {
  size_t i = 0;
  if (s[i] == '-') i++;
  if (!skipdigits(s, n, &i)) return false;
  if (i < n && s[i] == '.') {
    i++;
    if (!skipdigits(s, n, &i)) return false;
  }
  if (i < n && (s[i] == 'e' || s[i] == 'E')) {
    i++;
    if (i < n && (s[i] == '+' || s[i] == '-')) i++;
    if (!skipdigits(s, n, &i)) return false;
  }
  return i == n;
}

// strtod's own verdict counts: errno set (overflow, underflow, which glibc
// also reports for subnormal results) is a failure.
bool convertnumber(const char* s, size_t n, double* value) {
  char buf[NNUMTEXT];
  if (n >= NNUMTEXT) return false;
  memcpy(buf, s, n);
  buf[n] = 0;
  errno = 0;
  double v = strtod(buf, nullptr);
  if (errno || std::fabs(v) > DBL_MAX) return false;
  *value = v;
  return true;
}

// ---------------------------------------------------------------- parser

struct PARSER {
  const char* p;
  int depth;
};

void skipspace(PARSER* ps) {
  while (*ps->p == ' ' || *ps->p == '\t' || *ps->p == '\n' || *ps->p == '\r') ps->p++;
}

bool readhex4(const char* p, int* value) {
  int v = 0;
  for (int i = 0; i < 4; i++) {
    char c = p[i];
    int d = isdigitbyte(c) ? c - '0' : (c >= 'a' && c <= 'f') ? c - 'a' + 10 : (c >= 'A' && c <= 'F') ? c - 'A' + 10 : -1;
    if (d < 0) return false;
    v = v << 4 | d;
  }
  *value = v;
  return true;
}

// UTF-8 form of v in n bytes, NUL-terminated; a single zero byte therefore
// adds nothing when appended.
void utf8bytes(long v, int n, char* buf) {
  static const unsigned char lead[5] = {0, 0, 0xC0, 0xE0, 0xF0};
  if (n == 1) {
    buf[0] = static_cast<char>(v);
  } else {
    buf[0] = static_cast<char>(lead[n] | (v >> (6 * (n - 1))));
    for (int i = 1; i < n; i++) buf[i] = static_cast<char>(0x80 | ((v >> (6 * (n - 1 - i))) & 0x3f));
  }
  buf[n] = 0;
}

// Byte counts with the bounds this format has always used: 127 and 65535
// take the longer form.
int utf8single(long v) { return v < 127 ? 1 : v < 2047 ? 2 : v == 65535 ? 4 : 3; }
int utf8pair(long v) { return v < 65535 ? 3 : v <= 0x10fffe ? 4 : 0; }

// After "\u" and its four digits; a high surrogate also takes the "\u" that
// must follow. The second half is not checked for being a low surrogate.
bool parseunicode(PARSER* ps, std::string* out) {
  int v, lo;
  if (!readhex4(ps->p, &v)) return false;
  ps->p += 4;
  if ((v & 0xdc00) == 0xdc00) return false;
  long code = v;
  int n = utf8single(code);
  if ((v & 0xdc00) == 0xd800) {
    if (ps->p[0] != '\\' || ps->p[1] != 'u' || !readhex4(ps->p + 2, &lo)) return false;
    ps->p += 6;
    code = (static_cast<long>(v - 0xd800) << 10 | (lo - 0xdc00)) + 0x10000;
    n = utf8pair(code);
  }
  if (!n) return true;
  char buf[5];
  utf8bytes(code, n, buf);
  out->append(buf);
  return true;
}

bool parseescape(PARSER* ps, std::string* out) {
  char c = *ps->p;
  if (c) ps->p++;
  switch (c) {
    case '"': case '\\': case '/': out->push_back(c); return true;
    case 'b': out->push_back('\b'); return true;
    case 'f': out->push_back('\f'); return true;
    case 'n': out->push_back('\n'); return true;
    case 'r': out->push_back('\r'); return true;
    case 't': out->push_back('\t'); return true;
    case 'u': return parseunicode(ps, out);
    default: return false;
  }
}

// From the opening quote; bytes below 26, the terminator among them, fail.
bool parsestring(PARSER* ps, std::string* out) {
  ps->p++;
  for (;;) {
    unsigned char c = static_cast<unsigned char>(*ps->p);
    if (c < 26) return false;
    ps->p++;
    if (c == '"') return true;
    if (c != '\\') {
      out->push_back(static_cast<char>(c));
    } else if (!parseescape(ps, out)) {
      return false;
    }
  }
}

JOBJECT* parsevalue(PARSER* ps);

bool parsemember(PARSER* ps, JOBJECT* dict) {
  std::string key;
  skipspace(ps);
  if (*ps->p != '"' || !parsestring(ps, &key)) return false;
  skipspace(ps);
  if (*ps->p != ':') return false;
  ps->p++;
  JOBJECT* value = parsevalue(ps);
  if (!value) return false;
  addjdict(dict, key.c_str(), value);
  return true;
}

// After each member: true at the closing byte, with more == false, or at a
// comma, which promises a further member.
bool parseseparator(PARSER* ps, char close, bool* more) {
  skipspace(ps);
  char c = *ps->p;
  if (c != ',' && c != close) return false;
  ps->p++;
  *more = c == ',';
  return true;
}

JOBJECT* parseobject(PARSER* ps) {
  JOBJECT* dict = newjdict();
  ps->p++;
  skipspace(ps);
  if (*ps->p == '}') {
    ps->p++;
    return dict;
  }
  bool more = true;
  while (more)
    if (!parsemember(ps, dict) || !parseseparator(ps, '}', &more)) {
      releasejobject(dict);
      return nullptr;
    }
  return dict;
}

bool parseelement(PARSER* ps, JOBJECT* array) {
  JOBJECT* value = parsevalue(ps);
  if (value) addjarray(array, value);
  return value;
}

JOBJECT* parsearray(PARSER* ps) {
  JOBJECT* array = newjarray();
  ps->p++;
  skipspace(ps);
  if (*ps->p == ']') {
    ps->p++;
    return array;
  }
  bool more = true;
  while (more)
    if (!parseelement(ps, array) || !parseseparator(ps, ']', &more)) {
      releasejobject(array);
      return nullptr;
    }
  return array;
}

JOBJECT* parsestringvalue(PARSER* ps) {
  std::string s;
  return parsestring(ps, &s) ? newjstr(s.c_str()) : nullptr;
}

JOBJECT* parsenumbervalue(PARSER* ps) {
  double v;
  const char* end;
  if (!__parsenum(ps->p, &v, &end)) return nullptr;
  ps->p = end;
  return newjnum(v);
}

// The word alone decides; what follows it is the caller's to judge.
bool takeword(PARSER* ps, const char* word) {
  size_t n = strlen(word);
  if (strncmp(ps->p, word, n)) return false;
  ps->p += n;
  return true;
}

JOBJECT* parseword(PARSER* ps) {
  if (takeword(ps, "true")) return newjbool(true);
  if (takeword(ps, "false")) return newjbool(false);
  if (takeword(ps, "null")) return newjnull();
  return nullptr;
}

JOBJECT* parsecontainer(PARSER* ps) {
  if (++ps->depth > NJSONDEPTH) return nullptr;
  JOBJECT* obj = *ps->p == '{' ? parseobject(ps) : parsearray(ps);
  ps->depth--;
  return obj;
}

JOBJECT* parsevalue(PARSER* ps) {
  skipspace(ps);
  char c = *ps->p;
  if (c == '{' || c == '[') return parsecontainer(ps);
  if (c == '"') return parsestringvalue(ps);
  if (c == '-' || isdigitbyte(c)) return parsenumbervalue(ps);
  return parseword(ps);
}

}  // namespace

void appendjstr_escape(JOBJECT* str, const char* s) {
  char run[257];
  size_t n = 0;
  for (; s && *s; s++) {
    char buf[8];
    const char* esc = escapeof(static_cast<unsigned char>(*s), buf, sizeof buf);
    if (!esc) run[n++] = *s;
    if (esc || n == sizeof run - 1) {
      run[n] = 0;
      appendjstr(str, run);
      n = 0;
    }
    if (esc) appendjstr(str, esc);
  }
  run[n] = 0;
  appendjstr(str, run);
}

JSTR* getjsonfromobject(JOBJECT* obj) {
  JSTR* str = newjstr(nullptr);
  str->array.ngrow = JSON_NGROW;
  writevalue(str, obj, 0);
  return str;
}

JOBJECT* getobjectfromjson(const char* json) {
  if (!json) return nullptr;
  PARSER ps = {json, 0};
  JOBJECT* obj = parsevalue(&ps);
  if (!obj) return nullptr;
  skipspace(&ps);
  if (*ps.p) {
    releasejobject(obj);
    return nullptr;
  }
  return obj;
}

bool __parsenum(const char* s, double* value, const char** end) {
  if (!s || !(*s == '-' || isdigitbyte(*s))) return false;
  size_t n = 0;
  while (isnumberbyte(s[n])) n++;
  if (!numbergrammar(s, n) || !convertnumber(s, n, value)) return false;
  *end = s + n;
  return true;
}

void formatjnum(char* buf, double num) {
  if (std::isnormal(num))
    snprintf(buf, JNUMTEXTMAX, "%0.16g", num);
  else
    strcpy(buf, "0");
}
