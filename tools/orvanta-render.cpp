// orvanta-render: one view of the explorer to an image file, without a
// window: the same engine, tiles, draw list and colour scheme, drawn in an
// off-screen framebuffer. Prints one JSON line of timings on success.
#include <cstdio>
#include <string>

#include "renderargs.h"
#include "renderrun.h"

int main(int argc, char** argv) {
  RENDERARGS args;
  std::string error;
  if (!parserenderargs(argc, argv, &args, &error)) {
    fprintf(stderr, "orvanta-render: %s; %s\n", error.c_str(), RENDERUSAGE);
    return RENDER_BADARGS;
  }
  if (args.help) {
    printf("%s\n", RENDERUSAGE);
    return RENDER_OK;
  }
  RENDERTIMES times;
  int code = renderview(args, &times);
  if (code == RENDER_OK)
    printf("{\"reference\": %.3f, \"tiles\": %.3f, \"total\": %.3f}\n", times.reference,
           times.tiles, times.total);
  return code;
}
