// The explorer's whole life: paths, command line, settings, one borderless
// full-screen window, the engine, the frame loop, and the shutdown in the
// order that lets every thread finish before its data goes.
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "app.h"
#include "commandline.h"

namespace {

void* tileblock = nullptr;
std::string tmpdirectory;  // this process's own, with a trailing '/'

[[noreturn]] void nodisplay(const char* why) {
  fprintf(stderr,
          "orvanta: %s; the explorer needs a display. To render a view to an image file without a "
          "window, use orvanta-render.\n",
          why);
  exit(1);
}

// A directory of this process's own under the temporary directory, so that
// several explorers (or tests) never share the Julia cache's spill file.
std::string maketmpdirectory(const std::string& base) {
  std::string pattern = base + "orvanta-XXXXXX";
  std::string dir = pattern;
  if (!mkdtemp(dir.data())) return base;
  return dir + "/";
}

void removetmpdirectory(const std::string& dir, const std::string& base) {
  if (dir == base) return;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")) unlink((dir + e->d_name).c_str());
    closedir(d);
  }
  rmdir(dir.c_str());
}

// The scheme shown at start: "Iteration" when the file has it, else the
// first.
Colorscheme* startscheme(JDICT* dict) {
  JOBJECT* cs = getjdict(dict, "Iteration");
  char* key = nullptr;
  if (!cs && countjdict(dict) > 0) cs = getjdictenum(dict, 0, &key);
  return static_cast<Colorscheme*>(cs);
}


void opengl() {
  glfwSetErrorCallback(error_callback);
  if (!glfwInit()) nodisplay("the window system could not be started");
  glfwWindowHint(GLFW_CONTEXT_VERSION_MAJOR, settings.glmajor);
  glfwWindowHint(GLFW_CONTEXT_VERSION_MINOR, settings.glminor);
  glfwWindowHint(GLFW_VISIBLE, 1);
  glfwWindowHint(GLFW_DECORATED, 0);
  glfwWindowHint(GLFW_ALPHA_BITS, 8);
  glfwWindowHint(GLFW_RESIZABLE, 1);
  GLFWmonitor* monitor = glfwGetPrimaryMonitor();
  const GLFWvidmode* video = monitor ? glfwGetVideoMode(monitor) : nullptr;
  if (!video) {
    glfwTerminate();
    nodisplay("no monitor was found");
  }
  // A window the size of the monitor, a little short of it so the window
  // system doesn't take it for an exclusive full-screen one.
  window = glfwCreateWindow(video->width, video->height - settings.yreduce, "", nullptr, nullptr);
  if (!window) {
    glfwTerminate();
    nodisplay("no window with a suitable GL context could be opened");
  }
  int mx = 0, my = 0;
  glfwGetMonitorPos(monitor, &mx, &my);
  glfwSetWindowPos(window, mx, my);
  glfwSetWindowRefreshCallback(window, refresh_callback);
  glfwMakeContextCurrent(window);
  int version = gladLoadGL(glfwGetProcAddress);
  if (GLAD_VERSION_MAJOR(version) * 10 + GLAD_VERSION_MINOR(version) < 21) {
    glfwDestroyWindow(window);
    glfwTerminate();
    nodisplay("the GL driver offers less than GL 2.1");
  }
  glfwSwapInterval(1);
  setfixedglstate();
  glfwGetFramebufferSize(window, &width, &height);
}

void maketiles() {
  int n = settings.ngltexture;
  info.texture = static_cast<GLuint*>(calloc(n > 0 ? n : 1, sizeof(GLuint)));
  info.generation = static_cast<uint32_t*>(calloc(n > 0 ? n : 1, sizeof(uint32_t)));
  // Names only: a tile's storage is made by its first upload. Making a
  // thousand tiles' storage here held the first frame back by a quarter of
  // a second on a software renderer.
  glGenTextures(n, info.texture);
  tileblock = malloc(static_cast<size_t>(n > 0 ? n : 1) * TEXTUREBYTES);
  if (!tileblock) perror("malloc failed");
}

void startengine() {
  context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
  if (!context) {
    perror("malloc failed");
    exit(1);
  }
  tmpdirectory = maketmpdirectory(paths.tmpdir);
  initcontext(context, settings.totalmemory << 20, settings.nthread, settings.cachesize,
              settings.ngltexture, tileblock, initcallback, donecallback, textureuploadcallback,
              stringscallback, &info, tmpdirectory.c_str(), OVCONTEXT_NO_GLTHREAD);
}

void loadschemes() {
  COLORSCHEMEGL gl = loadercolorschemegl();
  setcolorschemegl(&gl);
  installschemehooks();
  initParams(&params);
  csarray = readColorschemes(context, paths.colorschemefile.c_str(), paths.texturefile.c_str());
  currentcs = attachjobject(startscheme(csarray));
  activateColorscheme(currentcs, readimagefct);
}

void shutdown() {
  freepictures();
  glfwDestroyWindow(window);
  window = nullptr;
  // No GL context from here on: schemes are freed without GL calls.
  setcolorschemegl(nullptr);
  freeviews();
  detachrealm(context, generalrealm);
  freecontext(context);
  if (currentcs) {
    deactivateColorscheme(currentcs);
    releasejobject(currentcs);
  }
  releasejobject(csarray);
  freesettings(&settings);
  free(tileblock);
  free(info.texture);
  free(info.generation);
  free(context);
  glfwTerminate();
  removetmpdirectory(tmpdirectory, paths.tmpdir);
}

}  // namespace

int main(int argc, char** argv) {
  // Before anything else speaks or is written: without a display the one
  // line says what to use instead.
  if (!getenv("DISPLAY") && !getenv("WAYLAND_DISPLAY"))
    nodisplay("no display (DISPLAY and WAYLAND_DISPLAY are unset)");
  paths = makepaths(executabledirectory(), getenv("XDG_CONFIG_HOME"), getenv("HOME"), getenv("TMPDIR"));
  COMMANDLINE cmd = withoutopeners(readcommandline(argc, argv, stdout), stderr);
  (void)cmd;  // every start is the start view until the file openers exist
  mode = 1;   // before the settings: presentationmode does not change it
  defaultsettings(&settings, machineprocessors(), machinememory());
  readsettings(&settings, paths.settingsfile.c_str(), stderr);
  highres = settings.highres;
  NTRACE = settings.ntrace;
  pointsize = settings.pointsize;

  opengl();
  derivesettings(&settings, width, height);
  UPLOADPERFRAME = settings.uploadperframe;
  printsettings(&settings, stderr);
  maketiles();
  startengine();
  loadschemes();
  setupfixedprograms();
  initpictures();
  generalrealm = addrealm(context, GENERAL);
  reset();
  displaylist[0] = glGenLists(1);
  displaylist[1] = glGenLists(1);
  _curtime = glfwGetTime();
  lastaction = _curtime;
  automode = false;
  glfwSwapInterval(1);
  srand(static_cast<unsigned int>(_curtime));

  frameloop();
  shutdown();
  return 0;
}
