// The explorer's state (app.h) and its start values.
#include "app.h"

PATHS paths;
SETTINGS settings;
GLFWwindow* window = nullptr;
int width = 0, height = 0;
CALLBACKINFO info{nullptr, nullptr};
OVCONTEXT* context = nullptr;
int UPLOADPERFRAME = 1;

volatile double _curtime = 0;
double lastaction = 0;
bool automode = false, automodestart = false, lock = false;
int mode = 1;
bool guion = true;
volatile bool stringschanged = false;
bool smooth = true;
bool hardframe = false;
bool framehadtiles = false;
uint64_t tileuploads = 0;
bool changeuniform = true;
bool highres = false;

Params params;
Colorscheme* currentcs = nullptr;
JDICT* csarray = nullptr;
REALM* generalrealm = nullptr;
VIEWPORT* vp = nullptr;
VIEWPORT* vpex = nullptr;

GLuint displaylist[2] = {0, 0};
int oldlist[2] = {-1, -1};
bool tracemode = false;
std::complex<double> tracez[2], tracec[2];
double tracetime = 0;
int NTRACE = 1000;
int pointsize = 5;
bool displayjuliapoint = false;
int juliamode = 0;
GLuint progcolor = 0, progtex = 0, progpointsmooth = 0;
std::atomic<bool> viewfinished{false};
bool redrawall = true;
