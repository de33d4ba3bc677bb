// Fuzzes the link reader and checks the writer against it.
//
// What must hold for any text the reader accepts: it is a dictionary; its
// written form reads again; and what comes back is what the notation can
// carry of it. Strings come back unchanged, empty strings and empty keys
// vanish with their pair or element, an empty dictionary returns as an empty
// array, numbers come back as their written text reads.
#include <cstdint>
#include <cstring>

#include "Array.h"
#include "fuzzcheck.h"

namespace {

bool isemptystring(JOBJECT* obj) { return obj->type == JOBJECT_STR && !getjstr(obj)[0]; }

void checkcarried(JOBJECT* a, JOBJECT* b);

void checkcarriedarray(JOBJECT* a, JOBJECT* b) {
  int j = 0;
  for (int i = 0; i < countjarray(a); i++) {
    JOBJECT* va = getjarray(a, i);
    if (isemptystring(va)) continue;
    CHECK(j < countjarray(b));
    checkcarried(va, getjarray(b, j++));
  }
  CHECK(j == countjarray(b));
}

void checkcarrieddict(JOBJECT* a, JOBJECT* b) {
  int j = 0;
  for (int i = 0; i < countjdict(a); i++) {
    char *ka, *kb;
    JOBJECT* va = getjdictenum(a, i, &ka);
    if (!ka[0] || isemptystring(va)) continue;
    CHECK(j < countjdict(b));
    JOBJECT* vb = getjdictenum(b, j++, &kb);
    CHECK(!strcmp(ka, kb));
    checkcarried(va, vb);
  }
  CHECK(j == countjdict(b));
}

void checkcarriednumber(double a, double b) {
  double back;
  CHECK(fuzzcheck::writtennumber(a, &back));
  CHECK(b == back);
}

// b is what the notation carries of a.
void checkcarried(JOBJECT* a, JOBJECT* b) {
  if (a->type == JOBJECT_DICT && !countjdict(a)) {
    CHECK(b->type == JOBJECT_ARRAY && !countjarray(b));
    return;
  }
  CHECK(a->type == b->type);
  const char* s = a->type == JOBJECT_STR ? getjstr(a) : nullptr;
  switch (a->type) {
    case JOBJECT_ARRAY: checkcarriedarray(a, b); break;
    case JOBJECT_DICT: checkcarrieddict(a, b); break;
    case JOBJECT_STR: CHECK(!strcmp(s, getjstr(b))); break;
    case JOBJECT_NUM: checkcarriednumber(getjnum(a), getjnum(b)); break;
    case JOBJECT_BOOL: CHECK(getjbool(a) == getjbool(b)); break;
    default: break;
  }
}

void checkwriteback(JOBJECT* obj) {
  CHECK(obj->type == JOBJECT_DICT);
  JSTR* text = getqueryfromobject(obj);
  JOBJECT* again = getobjectfromquery(getjstr(text));
  CHECK(again);
  CHECK(again->type == JOBJECT_DICT);
  checkcarrieddict(obj, again);
  releasejobject(again);
  releasejobject(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzcheck::readandcheck(data, size, getobjectfromquery, checkwriteback);
  return 0;
}
