// Auto mode (automode.h).
#include "automode.h"

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "app.h"

bool (*autoopenjson)(const char* path) = nullptr;

std::vector<std::string> autofilelist(const std::string& dir) {
  std::vector<std::string> files;
  DIR* d = opendir(dir.c_str());
  if (!d) return files;
  while (dirent* e = readdir(d)) {
    size_t n = strlen(e->d_name);
    if (n > 5 && strcmp(e->d_name + n - 5, ".json") == 0) files.push_back(dir + "/" + e->d_name);
  }
  closedir(d);
  // A directory lists in no particular order; by name the draw means the
  // same file on every file system.
  std::sort(files.begin(), files.end());
  return files;
}

int autoindex(long long r, int count, long long randmax) {
  if (count <= 0 || randmax <= 0) return 0;
  long long i = r * count / randmax;
  return static_cast<int>(std::clamp<long long>(i, 0, count - 1));
}

void autoopen() {
  if (!autoopenjson) return;
  std::vector<std::string> files = autofilelist(paths.autofiles);
  if (files.empty()) return;
  const std::string& file = files[autoindex(rand(), static_cast<int>(files.size()), RAND_MAX)];
  automode = true;
  lastaction = _curtime;
  // The view is locked while the file replaces it, and the show's start
  // is marked once it has.
  lock = true;
  automodestart = false;
  autoopenjson(file.c_str());
  lock = false;
  automodestart = true;
}

void automodestep() {
  double wait = settings.startautomode;
  bool moving = vp && atomicload(&vp->nav_moving);
  if (_curtime - lastaction > wait && automode && !moving) {
    automode = false;
    lastaction = _curtime + 15 - wait;  // the next file in 15 seconds
  }
  if (_curtime - lastaction > wait && !automode && mode == 0) autoopen();
}
