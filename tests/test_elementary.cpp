// The project's atan2 and log against long double over their whole ranges,
// the C library's values at the edges, and the same bits from every vector
// level as from the scalar functions.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "numeric/double_simd.h"
#include "numeric/elementary.h"

namespace {

// |got - ref| in units of the last place of the double nearest to ref (the
// smallest subnormal for 0); NaN against NaN and exact equality count 0.
double ulps(double got, long double ref) {
  const double r = (double)ref;
  if ((std::isnan(got) && std::isnan(r)) || got == r) return 0.0;
  if (std::isinf(r) || std::isnan(r) || std::isnan(got)) return INFINITY;
  const double ulp = r == 0.0 ? 0x1p-1074 : std::nextafter(std::fabs(r), INFINITY) - std::fabs(r);
  return (double)(fabsl((long double)got - ref) / ulp);
}

std::mt19937_64 &rng() {
  static std::mt19937_64 g(20261125);
  return g;
}

// A finite double with random bits: every exponent equally likely.
double any_finite() {
  for (;;) {
    const double d = std::bit_cast<double>(rng()());
    if (std::isfinite(d)) return d;
  }
}

// A random significand times 2^e.
double scaled(int e) { return std::ldexp(1.0 + (double)(rng()() >> 11) * 0x1p-53, e); }

const double EDGES[] = {0.0, -0.0, 0x1p-1074, -0x1p-1074, 0x1p-1022, 1.0, -1.0, 0x1.fffffffffffffp1023,
                        -0x1.fffffffffffffp1023, INFINITY, -INFINITY, NAN};

// Arguments of atan2: runs of angles near the positive x axis (the short
// path of whole vectors, up to its limits), random bits, random angles at
// one random magnitude, independent magnitudes (tiny and huge ratios),
// ratios at the octant boundaries of the reduction, and every pair of edge
// values.
std::vector<std::pair<double, double>> atan2_arguments() {
  std::vector<std::pair<double, double>> a;
  std::uniform_real_distribution<double> slope(-0.4142135623730951, 0.4142135623730951);
  for (int k = 0; k < 4000; k++) {
    const double x = scaled((int)(rng()() % 1600) - 600);
    a.push_back({k % 500 == 7 ? std::ldexp(x, -400) : slope(rng()) * x, x});
  }
  std::uniform_real_distribution<double> angle(-M_PI, M_PI);
  std::uniform_int_distribution<int> expo(-1074, 1023);
  for (int k = 0; k < 60000; k++) {
    a.push_back({any_finite(), any_finite()});
    const double t = angle(rng()), m = std::ldexp(1.0, expo(rng()) / 2);
    a.push_back({m * std::sin(t), m * std::cos(t)});
    a.push_back({std::copysign(scaled(expo(rng())), angle(rng())), std::copysign(scaled(expo(rng())), angle(rng()))});
  }
  for (double ratio : {0.41421356237309503, 1.0, 2.414213562373095})
    for (int step = -4; step <= 4; step++)
      for (int e : {-1060, -300, 0, 300, 1020}) {
        double y = ratio;
        for (int s = 0; s < std::abs(step); s++) y = std::nextafter(y, step < 0 ? 0.0 : 4.0);
        for (double sx : {1.0, -1.0}) a.push_back({std::ldexp(y, e), std::ldexp(sx, e)});
      }
  for (double y : EDGES)
    for (double x : EDGES) a.push_back({y, x});
  return a;
}

// Arguments of log: random bits, subnormals, the neighbourhood of 1, and
// the edge values.
std::vector<double> log_arguments() {
  std::vector<double> a;
  for (int k = 0; k < 60000; k++) {
    a.push_back(std::fabs(any_finite()));
    a.push_back(std::bit_cast<double>(rng()() >> 12));  // subnormal
    a.push_back(1.0 + std::ldexp((double)(int64_t)(rng()() >> 40) - 8e6, -(int)(rng()() % 60) - 30));
  }
  for (double x : EDGES) a.push_back(x);
  return a;
}

}  // namespace

// Where the C library's values are exact, ours are the same bits.
TEST(Elementary, ZerosInfinitiesAndNaNAsTheCLibraryDefinesThem) {
  const double pi = M_PI, pio2 = M_PI_2, pio4 = M_PI_4, pi3o4 = 2.356194490192345;
  const struct {
    double y, x, want;
  } atan2_cases[] = {
      {0.0, 0.0, 0.0},        {-0.0, 0.0, -0.0},         {0.0, -0.0, pi},         {-0.0, -0.0, -pi},
      {0.0, -3.0, pi},        {-0.0, -3.0, -pi},         {0.0, 3.0, 0.0},         {-0.0, 3.0, -0.0},
      {2.0, 0.0, pio2},       {-2.0, -0.0, -pio2},       {1e-300, 1e300, 0.0},    {1e300, -1e-300, pio2},
      {INFINITY, 5.0, pio2},  {-INFINITY, -5.0, -pio2},  {5.0, INFINITY, 0.0},    {-5.0, -INFINITY, -pi},
      {INFINITY, INFINITY, pio4}, {-INFINITY, -INFINITY, -pi3o4},
      {NAN, 1.0, NAN},        {1.0, NAN, NAN},           {NAN, INFINITY, NAN},    {INFINITY, NAN, NAN},
  };
  // NaN in any form against NaN, otherwise the same bits.
  auto same = [](double got, double want) {
    return std::isnan(want) ? std::isnan(got) : std::bit_cast<uint64_t>(got) == std::bit_cast<uint64_t>(want);
  };
  for (const auto &c : atan2_cases)
    EXPECT_TRUE(same(elem_atan2(c.y, c.x), c.want)) << c.y << " " << c.x << " " << elem_atan2(c.y, c.x);
  const struct {
    double x, want;
  } log_cases[] = {{1.0, 0.0},  {0.0, -INFINITY},  {-0.0, -INFINITY}, {-1.0, NAN}, {-INFINITY, NAN},
                   {INFINITY, INFINITY}, {NAN, NAN}, {2.0, M_LN2}, {0x1p-1074, -744.4400719213812}};
  for (const auto &c : log_cases) EXPECT_TRUE(same(elem_log(c.x), c.want)) << c.x << " " << elem_log(c.x);
}

// Worst cases seen: 0.76 ulp (atan2), 0.72 ulp (log).  Vectors mixing
// ordinary and special lanes take the slow path for the whole vector; either
// way every lane is the scalar function's.
TEST(Elementary, WithinOneUlpOfLongDoubleAndTheScalarBitsFromEveryVectorLevel) {
  const auto args = atan2_arguments();
  const std::vector<double> largs = log_arguments();
  std::vector<double> y, x, want, lwant;
  double worst = 0.0;
  for (const auto &[ya, xa] : args) {
    y.push_back(ya), x.push_back(xa), want.push_back(elem_atan2(ya, xa));
    const double e = ulps(want.back(), atan2l(ya, xa));
    ASSERT_LT(e, 1.0) << std::hexfloat << "atan2(" << ya << ", " << xa << ")";
    worst = std::max(worst, e);
  }
  EXPECT_GT(worst, 0.5);  // the sample does reach the hard cases
  worst = 0.0;
  for (double a : largs) {
    lwant.push_back(elem_log(a));
    const double e = ulps(lwant.back(), logl(a));
    ASSERT_LT(e, 1.0) << std::hexfloat << "log(" << a << ")";
    worst = std::max(worst, e);
  }
  EXPECT_GT(worst, 0.5);
  for (int level = 0; level <= double_simd_best(); level++) {
    SCOPED_TRACE(level);
    ASSERT_EQ(double_simd_set_level(level), level);
    std::vector<double> got(args.size()), lgot(largs.size());
    elem_atan2_many(y.data(), x.data(), got.data(), (int)args.size());
    elem_log_many(largs.data(), lgot.data(), (int)largs.size());
    EXPECT_EQ(0, memcmp(got.data(), want.data(), sizeof(double) * got.size()));
    EXPECT_EQ(0, memcmp(lgot.data(), lwant.data(), sizeof(double) * lgot.size()));
  }
  double_simd_set_level(-1);
}

// The short road for small angles: where it applies, the bits of atan2;
// it applies to every ordinary small angle (all those of far triangles) and
// declines zero or negative x, tiny or huge numbers, NaN and wider angles.
TEST(Elementary, SmallAnglesByTheShortRoadAsByTheFullOne) {
  auto args = atan2_arguments();
  std::uniform_real_distribution<double> small(-0.0509, 0.0509);
  for (int k = 0; k < 20000; k++) {
    const double x = std::ldexp(1.0 + (rng()() % 1000) / 1000.0, (int)(rng()() % 1200) - 590);
    args.push_back({small(rng()) * x, x});
  }
  int taken = 0;
  for (const auto &[y, x] : args) {
    double angle;
    const bool ok = elem_atan2_small(y, x, &angle);
    const bool ordinary = x >= 0x1p-600 && x <= 0x1p1000 && (y == 0.0 || std::fabs(y) >= 0x1p-900);
    // Far triangles' angles (|y| / x below tan(0.05)) always take it.
    if (ordinary && std::fabs(y) <= 0.0501 * x) {
      EXPECT_TRUE(ok) << std::hexfloat << y << ", " << x;
    }
    if (!ordinary) {
      EXPECT_FALSE(ok) << std::hexfloat << y << ", " << x;
    }
    if (ok) {
      taken++;
      const double want = elem_atan2(y, x);
      ASSERT_EQ(0, memcmp(&angle, &want, sizeof angle)) << std::hexfloat << "atan2(" << y << ", " << x << ")";
    }
  }
  EXPECT_GT(taken, 20000);
}
