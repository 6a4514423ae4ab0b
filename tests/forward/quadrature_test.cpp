// Wavenumber quadrature: the Laguerre and Legendre rules, the count W from
// the spacing ratio and the transform the table stands for.
#include "core_test_util.h"

TEST(Quadrature, RulesCountAndPointSourceTransform) {
  const double xs[4] = {0.3225476896193923, 1.7457611011583465, 4.536620296921128, 9.395070912301133};
  const double ws[4] = {0.6031541043416339, 0.3574186924378018, 0.0388879085150054, 0.0005392947055613273};
  double x[20], w[20];
  laguerre_nodes(x, w, 4, 0.0);
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(x[i], xs[i], 4 * eps * xs[i]) << i;
    EXPECT_NEAR(w[i], ws[i], 8 * eps * ws[i]) << i;
  }
  // Every size the rule can ask for integrates x^p, p < 2n, on (0, 1); the
  // weights carry a few times the 3e-14 step at which Newton stops.
  for (int n = 1; n <= 16; ++n) {
    legendre_nodes(0.0, 1.0, x, w, n);
    for (int p = 0; p < 2 * n; ++p) {
      double sum = 0.0;
      for (int i = 0; i < n; ++i) sum += w[i] * std::pow(x[i], p);
      EXPECT_NEAR(sum * (p + 1), 1.0, 1e-13) << "n " << n << " power " << p;
    }
  }

  int count = 0;  // W; the table goes to wavenumbers x and weights w
  auto rule = [&](double lo, double hi) { return wavenumber_rule(20, 0, lo, hi, x, w, &count), count; };
  EXPECT_EQ(rule(1.0, 1.0), 6);
  EXPECT_EQ(rule(2.5, 25.0), 10);
  EXPECT_NEAR(x[6], 0.5 / 2.5 * (1 + xs[0]), 4 * eps);  // the first Laguerre point, above k0
  EXPECT_EQ(rule(1.0, 1e6), 20);
  // g just below 6: single precision rounds it to 6, which decides the count.
  const double near6 = std::pow(10.0, (6.0 - 1e-8) / 6.0);
  ASSERT_LT(6.0 * std::log10(near6), 6.0);
  ASSERT_EQ(static_cast<float>(6.0 * std::log10(near6)), 6.0f);
  EXPECT_EQ(rule(1.0, near6), 10);
  EXPECT_EQ(rule(1.0, std::pow(10.0, (6.0 - 2e-6) / 6.0)), 9);
  // (1/pi) integral_0^inf K0(k r) dk = 1/(2 r): the table must give it over
  // its range of spacings, within 0.5 percent once the ratio reaches 5.
  for (const auto& [lo, hi] : {std::pair{1.0, 5.0}, {0.5, 48.0}, {1.0, 1000.0}, {0.1, 1e5}}) {
    for (int s = 0, n = rule(lo, hi); s <= 40; ++s) {
      const double r = lo * std::pow(std::min(hi / lo, 1000.0), s / 40.0);
      double sum = 0.0;
      for (int j = 0; j < n; ++j) sum += w[j] * std::cyl_bessel_k(0.0, x[j] * r);
      EXPECT_NEAR(sum * 2.0 * r, 1.0, 0.005) << lo << " " << hi << " r " << r;
    }
  }
}

// Smallest and largest current-to-potential distance; the pairs a-b and m-n
// do not count, and the start values cap the smallest at sqrt(1e11).
TEST(Quadrature, MeasurementSpacingTakesOnlyCurrentToPotentialPairs) {
  MeshModel mesh{5, 0, {0, 0.5, 3, 7, 20}, {0, 0, 0, 4, 0}, {1}, {}, {}};
  const ElectrodeTable t{5, {1, 2, 3, 4, 5}, {1, 2, 3, 4, 5}};
  // P+ 3, P- 4, C+ 1, C- 2: a-m 3, a-n sqrt(65), b-m 2.5, b-n sqrt(58.25);
  // a-b (0.5) and m-n (5.66) are left out.
  MeasurementSet ms{2, 1, {}, {3}, {4}, {1}, {2}, {}, {}, {}};
  double lo = 0, hi = 0;
  measurement_spacing(mesh, t, ms, &lo, &hi);
  EXPECT_EQ(lo, 2.5);
  EXPECT_EQ(hi, std::sqrt(65.0));
  ms.num_measurements = 0;
  measurement_spacing(mesh, t, ms, &lo, &hi);
  EXPECT_EQ(lo, std::sqrt(1e11));
  EXPECT_TRUE(std::isnan(hi));
}
