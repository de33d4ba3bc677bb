// JOBJECT test helpers shared by the JSON and query tests: an owning pointer and the JSON text of a value.
#pragma once

#include <memory>
#include <string>

#include "Array.h"

namespace jsontest {

struct RELEASE {
  void operator()(JOBJECT* obj) const { releasejobject(obj); }
};
using OBJ = std::unique_ptr<JOBJECT, RELEASE>;

inline std::string json(JOBJECT* obj) {
  JSTR* s = getjsonfromobject(obj);
  std::string text = getjstr(s);
  releasejobject(s);
  return text;
}

}  // namespace jsontest
