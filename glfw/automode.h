// automode.h: auto mode, the explorer's show for a user who is away. After
// `startautomode` idle seconds of the virtual clock, in mode 0, a random
// fractal file of the auto folder is opened; when it has been shown as long
// and its view stands still (the navigator's flight over), the next follows
// 15 seconds later.
#pragma once

#include <string>
#include <vector>

// Opens a fractal file into the views as the file opener does; whether it
// could. The opener fills it; until then auto mode has nothing to show and
// never starts.
extern bool (*autoopenjson)(const char* path);

// The *.json files of `dir`, by name, as paths.
std::vector<std::string> autofilelist(const std::string& dir);

// Which of `count` files a draw `r` of 0...`randmax` takes: the draw scaled
// to the count, a result of count or more taking the last.
int autoindex(long long r, int count, long long randmax);

// A random file of the auto folder opened in auto mode, with the view
// locked while it opens; nothing without files or without an opener.
void autoopen();

// The frame's share: auto mode ended once its view stands still, and a file
// opened once the user is idle long enough in mode 0.
void automodestep();
