// The output job's place in the frame loop (filejob.h).
#include "filejob.h"

#include <unistd.h>

#include <cstdio>

#include "app.h"

namespace {

// The explorer has no dialogs yet: the question is put on standard error
// and counts as answered yes, as a question that could not be shown would.
bool noquestion(const char* caption, const char* text) {
  fprintf(stderr, "%s: %s (no dialog: yes)\n", caption, text);
  return true;
}

}  // namespace

FILEJOB* fr = nullptr;
bool (*askyesno)(const char* caption, const char* text) = noquestion;

bool closerequested() {
  if (!glfwWindowShouldClose(window)) return false;
  if (!fr) return true;
  if (fr->stop) return false;
  if (askyesno("Orvanta", "Fractal saving/rendering is still in progress. Exit anyway?"))
    fr->stop = true;
  else
    glfwSetWindowShouldClose(window, 0);
  return false;
}

void stepjob() {
  if (!fr || fr->step(fr)) return;
  FILEJOB* job = fr;
  fr = nullptr;
  bool stopped = job->stop;
  std::vector<std::string> outputs = job->outputs;
  if (job->finish) job->finish(job);
  if (!stopped) return;
  for (const std::string& path : outputs) unlink(path.c_str());
}
