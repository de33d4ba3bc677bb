// The Julia cache's swap file: MB/s of tiles written out and read back by
// the engine's own positioned writes and reads, against `dd` moving the same
// bytes in blocks of one tile to a file in the same directory.
//
// ORVANTA_BENCH_SWAPDIR chooses the directory (default $TMPDIR or /tmp). Both
// sides go through the page cache, as the swap file does: the figures say
// what a spill costs the engine, not what the disk sustains under sync.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Mandelbrot.h"
#include "juliacache.h"

namespace {

constexpr int NTILES = 64;  // 96 MB a pass

std::string swapdir() {
  const char* d = getenv("ORVANTA_BENCH_SWAPDIR");
  if (!d) d = getenv("TMPDIR");
  std::string s = d && *d ? d : "/tmp";
  if (s.back() != '/') s += '/';
  return s;
}

struct SWAP {
  OVCONTEXT* context;
  std::vector<char> tile;
  JULIACACHE jc[NTILES] = {};
  SWAP() : tile(JULIACACHETILEBYTES) {
    context = static_cast<OVCONTEXT*>(calloc(1, sizeof(OVCONTEXT)));
    snprintf(context->juliacachetmpfilename, sizeof context->juliacachetmpfilename,
             "%sorvanta-bench-juliacache.data", swapdir().c_str());
    context->juliacachetmpfile = -1;
    for (size_t k = 0; k < tile.size(); k++) tile[k] = static_cast<char>(k * 2654435761u >> 24);
    for (int i = 0; i < NTILES; i++) jc[i].ijuliacache = i;
  }
  ~SWAP() {
    juliaswapclose(context);
    unlink(context->juliacachetmpfilename);
    free(context);
  }
};

void BM_SwapWrite(benchmark::State& state) {
  SWAP s;
  for (auto _ : state)
    for (int i = 0; i < NTILES; i++)
      if (!juliaswapwrite(s.context, &s.jc[i], s.tile.data())) state.SkipWithError("write failed");
  state.SetBytesProcessed(state.iterations() * NTILES * JULIACACHETILEBYTES);
}

void BM_SwapRead(benchmark::State& state) {
  SWAP s;
  for (int i = 0; i < NTILES; i++) juliaswapwrite(s.context, &s.jc[i], s.tile.data());
  for (auto _ : state)
    for (int i = 0; i < NTILES; i++)
      if (!juliaswapread(s.context, &s.jc[i], s.tile.data())) state.SkipWithError("read failed");
  state.SetBytesProcessed(state.iterations() * NTILES * JULIACACHETILEBYTES);
}

// `dd` of the same amount in blocks of one tile; its own figure of bytes per
// second is what counts, read from its last line.
double ddrate(const std::string& args) {
  std::string cmd = "dd " + args + " bs=" + std::to_string(JULIACACHETILEBYTES) +
                    " count=" + std::to_string(NTILES) + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return 0;
  char line[512];
  double seconds = 0;
  long long bytes = 0;
  while (fgets(line, sizeof line, p)) {
    long long b;
    double s;
    const char* comma = strstr(line, "copied, ");
    if (sscanf(line, "%lld bytes", &b) == 1 && comma && sscanf(comma + 8, "%lf s", &s) == 1) {
      bytes = b;
      seconds = s;
    }
  }
  pclose(p);
  return seconds > 0 ? bytes / seconds : 0;
}

void BM_DdWrite(benchmark::State& state) {
  std::string file = swapdir() + "orvanta-bench-dd.data";
  // Written once first and then over in place, as the swap file's slots are.
  ddrate("if=/dev/zero of=" + file);
  double rate = 0;
  int n = 0;
  for (auto _ : state) {
    rate += ddrate("if=/dev/zero of=" + file + " conv=notrunc");
    n++;
  }
  unlink(file.c_str());
  state.counters["dd_bytes_per_second"] = rate / n;
}

void BM_DdRead(benchmark::State& state) {
  std::string file = swapdir() + "orvanta-bench-dd.data";
  ddrate("if=/dev/zero of=" + file);
  double rate = 0;
  int n = 0;
  for (auto _ : state) {
    rate += ddrate("if=" + file + " of=/dev/null");
    n++;
  }
  unlink(file.c_str());
  state.counters["dd_bytes_per_second"] = rate / n;
}

}  // namespace

BENCHMARK(BM_SwapWrite)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SwapRead)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DdWrite)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_DdRead)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(5);
