// Fuzzes the JSON parser and checks the writer against it.
//
// What must hold for any text the parser accepts: the written text parses
// again exactly when every number's written form passes the number grammar
// (DBL_MAX prints as 1.797693134862316e+308, which overflows, and values just
// above DBL_MIN print below it, which reads as subnormal), the value read back
// has the same shape, keys and bytes, and writing it once more gives the same
// text.
#include <cstdint>
#include <cstring>

#include "Array.h"
#include "fuzzcheck.h"

namespace {

using fuzzcheck::writtennumber;

bool numberswritable(JOBJECT* obj) {
  double back;
  switch (obj->type) {
    case JOBJECT_NUM: return writtennumber(getjnum(obj), &back);
    case JOBJECT_ARRAY:
      for (int i = 0; i < countjarray(obj); i++)
        if (!numberswritable(getjarray(obj, i))) return false;
      return true;
    case JOBJECT_DICT:
      for (int i = 0; i < countjdict(obj); i++)
        if (!numberswritable(getjdictenum(obj, i, nullptr))) return false;
      return true;
    default: return true;
  }
}

void checksame(JOBJECT* a, JOBJECT* b);

void checksamedict(JOBJECT* a, JOBJECT* b) {
  CHECK(countjdict(a) == countjdict(b));
  for (int i = 0; i < countjdict(a); i++) {
    char *ka, *kb;
    JOBJECT* va = getjdictenum(a, i, &ka);
    JOBJECT* vb = getjdictenum(b, i, &kb);
    CHECK(!strcmp(ka, kb));
    checksame(va, vb);
  }
}

void checksame(JOBJECT* a, JOBJECT* b) {
  CHECK(a->type == b->type);
  double back = 0;
  switch (a->type) {
    case JOBJECT_ARRAY:
      CHECK(countjarray(a) == countjarray(b));
      for (int i = 0; i < countjarray(a); i++) checksame(getjarray(a, i), getjarray(b, i));
      break;
    case JOBJECT_DICT: checksamedict(a, b); break;
    case JOBJECT_STR: CHECK(!strcmp(getjstr(a), getjstr(b))); break;
    case JOBJECT_NUM:
      CHECK(writtennumber(getjnum(a), &back));
      CHECK(getjnum(b) == back);
      break;
    case JOBJECT_BOOL: CHECK(getjbool(a) == getjbool(b)); break;
    default: break;
  }
}

void checkwriteback(JOBJECT* obj) {
  JSTR* text = getjsonfromobject(obj);
  JOBJECT* again = getobjectfromjson(getjstr(text));
  CHECK(!again == !numberswritable(obj));
  if (again) {
    checksame(obj, again);
    JSTR* text2 = getjsonfromobject(again);
    CHECK(!strcmp(getjstr(text), getjstr(text2)));
    releasejobject(text2);
  }
  releasejobject(again);
  releasejobject(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzcheck::readandcheck(data, size, getobjectfromjson, checkwriteback);
  return 0;
}
