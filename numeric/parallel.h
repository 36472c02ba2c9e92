// Worker threads for loops whose iterations are independent: the rows of the
// system-matrix assembly and the products with stored matrices.
//
// Results never depend on the number of threads: every item is computed
// whole by one thread, with the same arithmetic in the same order as a single
// thread would use, so any thread count gives the same bits.
#pragma once

#include <functional>

// n > 0: use n threads from now on (1: everything on the calling thread);
// n <= 0: one per hardware thread, the default.  Governs the matrix assembly
// and the products with stored matrices.
void set_assembly_threads(int n);

// Number of threads the parallel loops use (at least 1).
int assembly_threads();

// Call body(begin, end) for consecutive ranges [begin, end) covering
// 0 .. count-1 on up to `threads` threads (the caller is one of them):
// ranges of `chunk` items handed out in increasing order, or one call for
// everything when a single thread does the work.  Returns when all are done.
// body must not print, go through the fatal paths, or exit.
void parallel_for(int count, int chunk, int threads, const std::function<void(int begin, int end)> &body);

// on: the matrix assembly runs through its plain sequential code, the
// reference that the threaded code matches bit for bit; off (the default):
// the threaded code with assembly_threads() threads.
void set_assembly_reference(bool on);
bool assembly_reference();
