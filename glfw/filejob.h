// filejob.h: the frame loop's one output job, `fr`: a fractal being saved,
// or a photo or video being rendered, stepped once per frame on the first
// thread while the user goes on exploring. The loop owns the job's life
// around it: the step, the question when the window is closed during the
// job, and the removal of an abandoned job's files. What a step does is
// the file renderer's, which fills `step` and `finish`.
#pragma once

#include <string>
#include <vector>

struct FILEJOB {
  // The user chose to exit during the job: it is asked no more and its
  // files go when it ends. Set on the first thread, read by the job.
  volatile bool stop = false;
  // One stage per frame; false when the job is over.
  bool (*step)(FILEJOB* job) = nullptr;
  // After the last step: the video closed and the job's memory freed. The
  // slot is empty afterwards; `finish` may delete the object itself.
  void (*finish)(FILEJOB* job) = nullptr;
  // The files the job writes, removed when it ends stopped.
  std::vector<std::string> outputs;
  void* pdata = nullptr;  // the file renderer's own record
};

// The running job, NULL if none.
extern FILEJOB* fr;

// The yes/no question to the user: true means yes. A question that cannot
// be shown counts as yes, as a dismissed one does.
extern bool (*askyesno)(const char* caption, const char* text);

// The window's close request, at the top of a frame: whether the loop ends.
// With a job running the user is asked, once per job, whether to exit
// anyway; no takes the request back, yes stops the job and the loop goes on
// until the job has ended.
bool closerequested();

// The job's stage for this frame; at its end the job is finished, the files
// of a stopped one removed, and the slot emptied.
void stepjob();
