// Array.h: the engine's small containers and dynamic values.
//
// CHAIN is an intrusive doubly linked list link, ARRAY a growable block of
// fixed-size records. JOBJECT is the reference-counted header of seven kinds of
// dynamic value (arrays, dictionaries, strings, numbers, booleans, null and
// custom records), with a JSON writer and parser and the query notation that
// folds a dictionary into a link.
//
// Nothing here is thread-safe: a list, an array or a value belongs to one
// thread at a time (or to whoever holds the lock its owner names). Memory
// exhaustion is not handled. None of this allocates on its own behalf except
// when asked to grow.
#pragma once

#include <cstddef>
#include <gmp.h>

// ---------------------------------------------------------------- CHAIN

struct CHAIN {
  CHAIN* prev;
  CHAIN* next;
};

// An empty list is a head whose two links point at itself.
inline void initchain(CHAIN* chain) { chain->prev = chain->next = chain; }
inline bool chainempty(const CHAIN* chain) { return chain->next == chain; }

void chaininsend(CHAIN* chain, CHAIN* element);    // becomes chain->next
void chaininsbegin(CHAIN* chain, CHAIN* element);  // becomes chain->prev
void chainrem(CHAIN* element);

// The record that embeds `link` as its member `member`.
#define CHAINRECORD(link, type, member) \
  (reinterpret_cast<type*>(reinterpret_cast<char*>(link) - offsetof(type, member)))

// ---------------------------------------------------------------- ARRAY

struct ARRAY {
  int n;        // used records
  size_t size;  // bytes per record
  int nmax;     // capacity in records
  int ngrow;    // spare records added at each growth
  void* data;
};

void initarray(ARRAY* array, size_t size, int nmax, int ngrow);
int addarray(ARRAY* array);
int appendarray(ARRAY* array, int i);
void removearray(ARRAY* array, int i);
void freearray(ARRAY* array);

// Address of record i, typed.
template <typename T>
inline T* arrayat(const ARRAY* array, int i) {
  return static_cast<T*>(array->data) + i;
}

// ---------------------------------------------------------------- JOBJECT

enum JOBJECTTYPE {
  JOBJECT_CUSTOM = 0,
  JOBJECT_ARRAY = 1,
  JOBJECT_DICT = 2,
  JOBJECT_STR = 3,
  JOBJECT_NUM = 4,
  JOBJECT_BOOL = 5,
  JOBJECT_NULL = 6,
};

struct JOBJECT {
  JOBJECTTYPE type;
  void (*freefct)(JOBJECT* obj);  // called when count reaches 0
  int count;                      // plain: a value belongs to one thread at a time
};

struct JARRAY : JOBJECT {
  ARRAY array;  // JOBJECT* elements
};

// One entry of a dictionary: the key is owned by the dictionary.
struct JDICTENTRY {
  char* key;
  JOBJECT* value;
};

struct JDICT : JOBJECT {
  ARRAY array;  // JDICTENTRY elements, insertion order kept
};

struct JSTR : JOBJECT {
  ARRAY array;  // bytes with terminator; an empty string has n == 1
};

struct JNUM : JOBJECT {
  double num;
};

struct JBOOL : JOBJECT {
  bool num;
};

struct JNULL : JOBJECT {};

// Reference counts. A container owns one reference to each value it holds;
// getters return borrowed pointers.
template <typename T>
inline T* attachjobject(T* obj) {
  if (obj) obj->count++;
  return obj;
}
void releasejobject(JOBJECT* obj);

JARRAY* newjarray();
JDICT* newjdict();
JNUM* newjnum(double num);
JBOOL* newjbool(bool value);
JNULL* newjnull();
JSTR* newjstr(const char* str);
JSTR* newjstrwithcr(const char* str);
JSTR* newjstrwithoutcr(const char* str);
JSTR* newjstrfrommpf(mpf_srcptr op);
JSTR* removepercentjstr(const char* s);

// Strings. The accessors take the common header; the caller knows the kind.
void clearjstr(JOBJECT* str);
void appendjstr(JOBJECT* str, const char* s);
void appendjstr_escape(JOBJECT* str, const char* s);
void appendjstr_query(JOBJECT* str, const char* s);
char* getjstr(JOBJECT* a);
double getjnum(JOBJECT* a);
bool getjbool(JOBJECT* a);

// Containers.
void addjdict(JOBJECT* a, const char* key, JOBJECT* value);
void addjarray(JOBJECT* a, JOBJECT* value);
int countjarray(JOBJECT* d);
int countjdict(JOBJECT* d);
void removejdict(JOBJECT* dict, JOBJECT* obj);
JOBJECT* getjdict(JOBJECT* a, const char* key);
JOBJECT* getjarray(JOBJECT* a, int i);
JOBJECT* getjdictenum(JOBJECT* a, int i, char** key);
JOBJECT* getlastjarray(JOBJECT* a);
void removerangejarray(JOBJECT* a, int i, int count);

// JSON text.
JSTR* getjsonfromobject(JOBJECT* obj);
// A number as JSON text and links write it: "%0.16g" for a normal value, "0"
// for zero, subnormals, infinities and NaN, which could not be read back.
// `buf` holds at least JNUMTEXTMAX bytes.
constexpr int JNUMTEXTMAX = 32;
void formatjnum(char* buf, double num);
JOBJECT* getobjectfromjson(const char* json);

// The number grammar shared by the JSON parser and the query reader: reads a
// number at s, gives its value and the first byte after it, or false when the
// text there is not a number by the grammar's rules.
bool __parsenum(const char* s, double* value, const char** end);

// Query notation of links.
JSTR* getqueryfromobject(JOBJECT* obj);
JOBJECT* getobjectfromquery(const char* query);
