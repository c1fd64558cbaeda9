// The library's message path with a supervisor; see bench_confsvc.cpp.
#define BENCH_SUPERVISED
#include "bench_confsvc.cpp"
