// The explorer's file locations on Linux.
#include "paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

std::string executabledirectory() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return ".";
  buf[n] = 0;
  std::string path(buf);
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string userconfigdirectory(const char* xdgconfighome, const char* home) {
  if (xdgconfighome && *xdgconfighome) return std::string(xdgconfighome) + "/orvanta";
  if (home && *home) return std::string(home) + "/.config/orvanta";
  return "./.config/orvanta";
}

std::string temporarydirectory(const char* tmpdir) {
  std::string dir = tmpdir && *tmpdir ? tmpdir : "/tmp";
  if (dir.back() != '/') dir += '/';
  return dir;
}

namespace {

bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

std::string parent(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool copyfile(const std::string& from, const std::string& to) {
  FILE* in = fopen(from.c_str(), "rb");
  if (!in) return false;
  FILE* out = fopen(to.c_str(), "wb");
  if (!out) {
    fclose(in);
    return false;
  }
  char buf[4096];
  size_t n;
  bool ok = true;
  while ((n = fread(buf, 1, sizeof(buf), in)) > 0) ok = ok && fwrite(buf, 1, n, out) == n;
  fclose(in);
  return fclose(out) == 0 && ok;
}

}  // namespace

// A file installed without any write bit is a default not meant to be
// edited, even for a user (root) whom the system would let write it.
bool writablefile(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  return (st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) && access(path.c_str(), W_OK) == 0;
}

bool writablepath(const std::string& path) {
  if (exists(path)) return writablefile(path);
  return access(parent(path).c_str(), W_OK) == 0;
}

bool makedirectories(const std::string& dir) {
  if (dir.empty() || exists(dir)) return !dir.empty();
  std::string up = parent(dir);
  if (up != dir && !exists(up)) makedirectories(up);
  return mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST;
}

PATHS makepaths(const std::string& curdir, const char* xdgconfighome, const char* home,
                const char* tmpdir) {
  PATHS p;
  p.curdir = curdir;
  p.configdir = userconfigdirectory(xdgconfighome, home);
  p.texturefile = curdir + "/appdata/texturesgl.jpg";
  p.autofiles = curdir + "/auto";
  p.tmpdir = temporarydirectory(tmpdir);

  std::string installed = curdir + "/appdata/orvanta.json";
  if (writablefile(installed)) {
    p.settingsfile = installed;
  } else {
    p.settingsfile = p.configdir + "/orvanta.json";
    // The user starts from the installed defaults, in a copy that is theirs
    // to edit.
    if (!exists(p.settingsfile) && exists(installed) && makedirectories(p.configdir))
      copyfile(installed, p.settingsfile);
  }

  std::string schemes = curdir + "/colorschemes.json";
  if (writablepath(schemes)) {
    p.colorschemefile = schemes;
  } else {
    makedirectories(p.configdir);
    p.colorschemefile = p.configdir + "/colorschemes.json";
  }
  return p;
}
