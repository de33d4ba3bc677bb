// commandline.h: the explorer's arguments. None, one ovt:// link, or the path
// of one JSON file; more than one prints the usage and counts as none.
#pragma once

#include <cstdio>

enum COMMANDKIND {
  COMMAND_NONE = 0,  // the start view
  COMMAND_LINK = 1,  // argument begins with "ovt://"
  COMMAND_JSON = 2,  // argument is a JSON file's path
};

struct COMMANDLINE {
  COMMANDKIND kind;
  const char* argument;  // argv's own text, or NULL
};

COMMANDLINE readcommandline(int argc, char** argv, FILE* out);

// Links and JSON files can't be opened by this build yet: one line to `err`
// saying so, and the kind becomes COMMAND_NONE, so the start view follows.
COMMANDLINE withoutopeners(COMMANDLINE cmd, FILE* err);
