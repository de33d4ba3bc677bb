// orvanta-tile: computes one area through the engine and writes its channels
// as raw float tiles, with a line of JSON that places them exactly.
#include <cstdio>
#include <string>

#include "tileargs.h"
#include "tilejob.h"

int main(int argc, char** argv) {
  TILEARGS args;
  std::string error;
  if (!parsetileargs(argc, argv, &args, &error)) {
    fprintf(stderr, "orvanta-tile: %s; %s\n", error.c_str(), TILEUSAGE);
    return 2;
  }
  TILERESULT result;
  if (!computetile(args, &result, &error)) {
    fprintf(stderr, "orvanta-tile: %s\n", error.c_str());
    return 2;
  }
  if (!writetiles(args, result, &error)) {
    fprintf(stderr, "orvanta-tile: %s\n", error.c_str());
    return 1;
  }
  printf("%s\n", tilejson(args, result).c_str());
  return 0;
}
