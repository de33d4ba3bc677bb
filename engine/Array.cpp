// Chains and growable arrays.
#include "Array.h"

#include <cstdlib>
#include <cstring>

void chaininsend(CHAIN* chain, CHAIN* element) {
  element->prev = chain;
  element->next = chain->next;
  chain->next->prev = element;
  chain->next = element;
}

void chaininsbegin(CHAIN* chain, CHAIN* element) {
  element->next = chain;
  element->prev = chain->prev;
  chain->prev->next = element;
  chain->prev = element;
}

void chainrem(CHAIN* element) {
  element->prev->next = element->next;
  element->next->prev = element->prev;
}

void initarray(ARRAY* array, size_t size, int nmax, int ngrow) {
  array->n = 0;
  array->size = size;
  array->nmax = nmax;
  array->ngrow = ngrow;
  array->data = malloc(static_cast<size_t>(nmax) * size);
}

static void growarray(ARRAY* array, int nmax) {
  array->nmax = nmax;
  array->data = realloc(array->data, static_cast<size_t>(nmax) * array->size);
}

int addarray(ARRAY* array) {
  int i = array->n++;
  if (array->n > array->nmax) growarray(array, array->nmax + array->ngrow);
  return i;
}

// Unlike addarray, a growth here is measured from the new count, not from the
// old capacity.
int appendarray(ARRAY* array, int i) {
  int first = array->n;
  array->n += i;
  if (array->n > array->nmax) growarray(array, array->n + array->ngrow);
  return first;
}

void removearray(ARRAY* array, int i) {
  char* base = static_cast<char*>(array->data);
  size_t behind = static_cast<size_t>(array->n - i - 1) * array->size;
  if (behind) memmove(base + static_cast<size_t>(i) * array->size,
                      base + static_cast<size_t>(i + 1) * array->size, behind);
  array->n--;
}

void freearray(ARRAY* array) { free(array->data); }
