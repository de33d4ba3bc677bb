#include "commandline.h"

#include <cstring>

COMMANDLINE readcommandline(int argc, char** argv, FILE* out) {
  const char* name = argc > 0 && argv[0] ? argv[0] : "orvanta";
  if (argc > 2) {
    fprintf(out, "Usage: %s ovt://?<query-string>\nor:    %s <json-file>\n\n", name, name);
    return COMMANDLINE{COMMAND_NONE, nullptr};
  }
  if (argc < 2 || !argv[1]) return COMMANDLINE{COMMAND_NONE, nullptr};
  if (strncmp(argv[1], "ovt://", 6) == 0) return COMMANDLINE{COMMAND_LINK, argv[1]};
  return COMMANDLINE{COMMAND_JSON, argv[1]};
}

COMMANDLINE withoutopeners(COMMANDLINE cmd, FILE* err) {
  if (cmd.kind == COMMAND_LINK)
    fprintf(err, "orvanta: opening links is not available in this build; starting on the default view.\n");
  else if (cmd.kind == COMMAND_JSON)
    fprintf(err, "orvanta: opening fractal files is not available in this build; starting on the default view.\n");
  else
    return cmd;
  return COMMANDLINE{COMMAND_NONE, nullptr};
}
