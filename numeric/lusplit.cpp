// The estimate's passes on two threads (numeric/lusplit.h).
#include "numeric/lusplit.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "numeric/ludec.h"
#include "numeric/lusteps.h"

namespace {

// Rows handed from the first stage to the second: the count of rows done.
class Handoff {
 public:
  void publish(int count) { done_.store(count, std::memory_order_release); }
  // The stages run on cores of their own, and a row takes microseconds:
  // spin, and give the core up only after a long wait (a busy machine).
  void wait_for(int count) const {
    for (int spins = 0; done_.load(std::memory_order_acquire) < count; spins++) {
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
      if (spins > 100000) std::this_thread::yield();
    }
  }

 private:
  std::atomic<int> done_{0};
};

// first() on a thread of its own while second() runs here; both here, one
// after the other, when no thread can be had.
template <class First, class Second>
void two_stages(const First &first, const Second &second) {
  std::thread helper;
  try {
    helper = std::thread(first);
  } catch (...) {
    first();
    second();
    return;
  }
  second();
  helper.join();
}

// The cut: about share * n, clamped to 1 .. n-1 (n >= 2).  The shares below
// balance the two stages' work (each about 0.28 n^2 of the 0.5 n^2).
int cut(int n, double share) { return std::clamp((int)(share * n), 1, n - 1); }

}  // namespace

// The sums of columns up to K take rows 1 .. K only: the first stage's;
// the second adds those rows to the columns beyond K as their entries come,
// then goes on alone.
void estimate_start_split(float **a, int n, float *y, double *sum) {
  // K a multiple of the row groups, so that none straddles it.
  const int K = cut(n, 0.68) / STEP_GROUP * STEP_GROUP;
  if (K < STEP_GROUP || K >= n) return estimate_start(a, n, y, sum);
  for (int k = 1; k <= n; k++) sum[k] = 0.0;
  Handoff rows;
  two_stages(
      [&] {
        for (int j = 1; j <= K; j += STEP_GROUP) {
          estimate_rows(a, j, STEP_GROUP, y, sum);
          add_scaled_rows(sum, a, j, STEP_GROUP, y, j + STEP_GROUP, K);
          rows.publish(j + STEP_GROUP - 1);
        }
      },
      [&] {
        for (int j = 1; j <= K; j += STEP_GROUP) {
          rows.wait_for(j + STEP_GROUP - 1);
          add_scaled_rows(sum, a, j, STEP_GROUP, y, K + 1, n);
        }
        for (int j = K + 1; j <= n;) {
          const int g = j + STEP_GROUP - 1 <= n ? STEP_GROUP : 1;
          estimate_rows(a, j, g, y, sum);
          add_scaled_rows(sum, a, j, g, y, j + g, n);
          j += g;
        }
      });
}

// The groups of rows as tsolvel forms them, from the bottom; rows n ..
// K+1 first take their steps on the entries beyond K (first stage), then
// those up to K (second stage), which also has rows K .. 2.  n - K is a
// multiple of the group size, so no group straddles K.
void tsolvel_split(float **a, int n, float *y) {
  const int K = n - (n - cut(n, 0.32)) / STEP_GROUP * STEP_GROUP;
  if (n < 2 || K < 1 || K >= n) return tsolvel(a, n, y);
  std::vector<float> mid(n + 1);
  Handoff rows;
  two_stages(
      [&] {
        for (int i = n; i > K; i -= STEP_GROUP) {
          transposed_rows(a, i, STEP_GROUP, y, K + 1, mid.data());
          rows.publish(n - (i - STEP_GROUP + 1) + 1);
        }
      },
      [&] {
        for (int i = n; i >= 2;) {
          const int g = i - STEP_GROUP + 1 >= 2 ? STEP_GROUP : 1;
          if (i > K) {
            // (Beyond K, y may still be changing in the first stage.)
            rows.wait_for(n - (i - g + 1) + 1);
            float yi[STEP_GROUP];
            for (int q = 0; q < g; q++) yi[q] = mid[i - q];
            transposed_steps_rows(a, i, g, yi, y, K, 1);
            for (int q = 0; q < g; q++) y[i - q] = yi[q];
          } else {
            transposed_rows(a, i, g, y, 1, y);
          }
          i -= g;
        }
      });
}

// The groups of rows as solvel forms them; those beyond K meet pivots 1 ..
// K in the first stage and the rest in the second.  K is a multiple of the
// group size, so no group straddles it.
void solvel_split(float **a, int n, float *b) {
  const int K = cut(n, 0.32) / STEP_GROUP * STEP_GROUP;
  if (K < STEP_GROUP) return solvel(a, n, b);
  std::vector<float> mid(n + 1);
  auto group = [n](int i) { return i + STEP_GROUP - 1 <= n ? STEP_GROUP : 1; };
  Handoff rows;
  two_stages(
      [&] {
        for (int i = 1; i <= n;) {
          const int g = group(i);
          float x[STEP_GROUP];
          for (int q = 0; q < g; q++) x[q] = b[i + q];
          forward_steps(a, i, g, 1, std::min(i - 1, K), b, x);
          if (i <= K) {
            forward_steps_within(a, i, g, x);
            for (int q = 0; q < g; q++) b[i + q] = x[q];
          } else {
            for (int q = 0; q < g; q++) mid[i + q] = x[q];
            rows.publish(i + g - 1);
          }
          i += g;
        }
      },
      [&] {
        for (int i = K + 1; i <= n;) {
          const int g = group(i);
          rows.wait_for(i + g - 1);
          float x[STEP_GROUP];
          for (int q = 0; q < g; q++) x[q] = mid[i + q];
          forward_steps(a, i, g, K + 1, i - 1, b, x);
          forward_steps_within(a, i, g, x);
          for (int q = 0; q < g; q++) b[i + q] = x[q];
          i += g;
        }
      });
}

// The groups as solveu forms them, from the bottom; rows up to K take the
// terms of the unknowns beyond K in the first stage, once it has solved
// those, and the rest in the second.  K lies between two groups.
void solveu_split(float **a, int n, float *b) {
  const int top = cut(n, 0.32) / STEP_GROUP * STEP_GROUP;  // rows beyond K
  if (top < STEP_GROUP || n - top < 1) return solveu(a, n, b);
  const int K = n - top;
  std::vector<float> mid(n + 1);
  auto group = [](int i) { return i - STEP_GROUP + 1 >= 1 ? STEP_GROUP : 1; };
  Handoff rows;
  two_stages(
      [&] {
        for (int i = n; i >= 1;) {
          const int g = group(i);
          float s[STEP_GROUP];
          for (int q = 0; q < g; q++) s[q] = b[i - q];
          back_terms(a, i, g, n, std::max(i + 1, K + 1), b, s);
          if (i > K) {
            back_within(a, i, g, b, s);
          } else {
            for (int q = 0; q < g; q++) mid[i - q] = s[q];
            rows.publish(n - (i - g + 1) + 1);
          }
          i -= g;
        }
      },
      [&] {
        for (int i = K; i >= 1;) {
          const int g = group(i);
          rows.wait_for(n - (i - g + 1) + 1);
          float s[STEP_GROUP];
          for (int q = 0; q < g; q++) s[q] = mid[i - q];
          back_terms(a, i, g, K, i + 1, b, s);
          back_within(a, i, g, b, s);
          i -= g;
        }
      });
}
