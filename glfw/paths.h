// paths.h: where the explorer finds its files. The read-only defaults are
// installed beside the executable (appdata/); a file the user may change
// lives beside the executable only when it can be written there, otherwise
// under $XDG_CONFIG_HOME/orvanta/ (by default ~/.config/orvanta/).
#pragma once

#include <string>

struct PATHS {
  std::string curdir;           // directory of the executable, no trailing '/'
  std::string configdir;        // the user's directory, no trailing '/'
  std::string settingsfile;     // orvanta.json
  std::string colorschemefile;  // colorschemes.json
  std::string texturefile;      // appdata/texturesgl.jpg
  std::string autofiles;        // directory of the auto mode's *.json
  std::string tmpdir;           // temporary directory, with a trailing '/'
};

// The directory of the running executable from /proc/self/exe; "." if it
// can't be read.
std::string executabledirectory();

// The user's configuration directory from the two variables (either may be
// NULL or empty): $XDG_CONFIG_HOME/orvanta, else $HOME/.config/orvanta, else
// "./.config/orvanta".
std::string userconfigdirectory(const char* xdgconfighome, const char* home);

// $TMPDIR when set and not empty, else /tmp; with a trailing '/'.
std::string temporarydirectory(const char* tmpdir);

// Can `path` be written: an existing file that is writable, or a missing one
// in a writable directory.
bool writablepath(const std::string& path);

// Every path from the executable's directory and the environment. The
// settings file beside the executable is used when it is writable; otherwise
// the user's copy, which is made from the installed defaults when it doesn't
// exist yet. The colour scheme file likewise, without a copy (the program
// writes it itself).
PATHS makepaths(const std::string& curdir, const char* xdgconfighome, const char* home,
                const char* tmpdir);

// mkdir -p; true when the directory exists afterwards.
bool makedirectories(const std::string& dir);
