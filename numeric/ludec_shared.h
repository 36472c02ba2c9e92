// What the factorisation (numeric/ludec.cpp) and the many-right-hand-side
// solves (numeric/lusolve_many.cpp) share: the panel width their replays
// use, the thread count, aligned work space and a way to run jobs on threads.
#pragma once

#include <cstddef>
#include <new>
#include <thread>
#include <vector>

// At -O2 GCC only vectorises loops whose length is a known multiple of the
// vector width; let the row loops below carry a scalar remainder.
#if defined(__GNUC__) && !defined(__clang__)
#define ROW_LOOP __attribute__((optimize("vect-cost-model=dynamic")))
#else
#define ROW_LOOP
#endif

// Columns factorised together before the rest of the matrix is brought up
// to date; wider panels read the trailing matrix fewer times.
inline constexpr int PANEL = 256;

// Threads for ludec and solvelu_many (set_lu_threads), at least 1.
int lu_threads();

// A float buffer aligned for the widest vectors; empty when the memory could
// not be had.
struct Buffer {
  float *p = nullptr;
  explicit Buffer(size_t count) { p = new (std::align_val_t(64), std::nothrow) float[count ? count : 1]; }
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;
  ~Buffer() { ::operator delete[](p, std::align_val_t(64), std::nothrow); }
};

// Run job(0) .. job(count-1), job(0) on this thread and the others on
// threads of their own; if a thread cannot be started its job runs here.
template <class Job>
void run_parallel(int count, const Job &job) {
  std::vector<std::thread> pool;
  std::vector<int> inline_jobs;
  for (int t = 1; t < count; t++) {
    try {
      pool.emplace_back(job, t);
    } catch (...) {
      inline_jobs.push_back(t);
    }
  }
  job(0);
  for (int t : inline_jobs) job(t);
  for (auto &th : pool) th.join();
}
