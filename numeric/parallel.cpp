// Worker threads for independent loop iterations.
#include "numeric/parallel.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

namespace {

int requested = 0;  // 0: one thread per hardware thread
bool reference = false;

}  // namespace

// n: thread count to use from now on; n <= 0 restores the default.
void set_assembly_threads(int n) { requested = n > 0 ? n : 0; }

// Returns the thread count of the parallel loops, at least 1.
int assembly_threads() {
  if (requested > 0) return requested;
  const unsigned hw = std::thread::hardware_concurrency();
  return hw > 0 ? (int)hw : 1;
}

// count: number of items; chunk: items per hand-out (at least 1);
// threads: upper bound on the threads used, the caller included.
// body(begin, end) is called once for every range; ranges never overlap.
void parallel_for(int count, int chunk, int threads, const std::function<void(int begin, int end)> &body) {
  if (count <= 0) return;
  if (chunk < 1) chunk = 1;
  const int nchunks = (count + chunk - 1) / chunk;
  const int nthreads = std::min(threads, nchunks);
  if (nthreads <= 1) {
    body(0, count);
    return;
  }
  std::atomic<int> next{0};
  auto work = [&]() {
    for (;;) {
      const int c = next.fetch_add(1, std::memory_order_relaxed);
      if (c >= nchunks) return;
      const int begin = c * chunk;
      body(begin, std::min(count, begin + chunk));
    }
  };
  std::vector<std::thread> pool;
  pool.reserve(nthreads - 1);
  // A thread the system refuses only means fewer helpers.
  try {
    for (int t = 1; t < nthreads; t++) pool.emplace_back(work);
  } catch (const std::system_error &) {
  }
  work();
  for (auto &th : pool) th.join();
}

// on: use the plain sequential assembly from now on.
void set_assembly_reference(bool on) { reference = on; }

bool assembly_reference() { return reference; }
