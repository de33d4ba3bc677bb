// orvanta-view: runs one view of the general realm without a display and
// prints its status lines and finishing events until it is complete.
#include <cstdio>
#include <string>

#include "viewargs.h"
#include "viewrun.h"

int main(int argc, char** argv) {
  VIEWARGS args;
  std::string error;
  if (!parseviewargs(argc, argv, &args, &error)) {
    fprintf(stderr, "orvanta-view: %s; %s\n", error.c_str(), VIEWUSAGE);
    return 2;
  }
  int code = runview(args, [](const std::string& line) {
    fputs(line.c_str(), stdout);
    fputc('\n', stdout);
    fflush(stdout);
  }, &error);
  if (code == 3) fprintf(stderr, "orvanta-view: timeout after %g s\n", args.timeout);
  if (code == 1) fprintf(stderr, "orvanta-view: %s\n", error.c_str());
  return code;
}
