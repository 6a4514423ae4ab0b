// Tests of the wavenumber quadrature: Legendre and Laguerre rules, the log
// gamma function, the electrode spacings and the table of wavenumbers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <limits>
#include <vector>

#include "data/measurement_set.h"
#include "forward/forward.h"
#include "mesh/mesh_model.h"

namespace {

const double eps = std::numeric_limits<double>::epsilon();

// |a - b| within `ulps` units of the last place of b.
bool near_ulps(double a, double b, double ulps) {
  return std::fabs(a - b) <= ulps * eps * std::fabs(b);
}

TEST(Laguerre, FourPointRuleMatchesExactValues) {
  const double x_exact[4] = {0.3225476896193923, 1.7457611011583465,
                             4.536620296921128, 9.395070912301133};
  const double w_exact[4] = {0.6031541043416339, 0.3574186924378018,
                             0.0388879085150054, 0.0005392947055613273};
  double x[4], w[4];
  laguerre_nodes(x, w, 4, 0.0);
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(near_ulps(x[i], x_exact[i], 4)) << i << " " << x[i];
    EXPECT_TRUE(near_ulps(w[i], w_exact[i], 8)) << i << " " << w[i];
  }
}

TEST(Laguerre, IntegratesPolynomialsExactly) {
  // sum w x^p = Gamma(p + alpha + 1) for p <= 2n - 1.
  const double alphas[3] = {0.0, 0.5, 1.5};
  for (double alpha : alphas) {
    for (int n = 1; n <= 8; ++n) {
      std::vector<double> x(n), w(n);
      laguerre_nodes(x.data(), w.data(), n, alpha);
      for (int i = 1; i < n; ++i) EXPECT_LT(x[i - 1], x[i]);
      for (int p = 0; p <= 2 * n - 1; ++p) {
        double sum = 0.0;
        for (int i = 0; i < n; ++i) sum += w[i] * std::pow(x[i], p);
        const double exact = std::tgamma(p + alpha + 1.0);
        EXPECT_NEAR(sum / exact, 1.0, 1e-9 * (p + 1)) << n << " " << p << " " << alpha;
      }
    }
  }
}

TEST(Laguerre, SlowConvergenceIsReportedAndTheRunGoesOn) {
  // With n = 10 and alpha = 100 one root needs more than ten Newton steps.
  // The pause takes end of input as its answer.
  ASSERT_NE(std::freopen("/dev/null", "r", stdin), nullptr);
  double x[10], w[10];
  testing::internal::CaptureStdout();
  laguerre_nodes(x, w, 10, 100.0);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, " too many iterations in gaulag\n");
  // The roots reached are still ordered and the rule still nearly exact for
  // low powers: sum w = Gamma(101), sum w x = Gamma(102).
  for (int i = 1; i < 10; ++i) EXPECT_LT(x[i - 1], x[i]);
  double s0 = 0.0, s1 = 0.0;
  for (int i = 0; i < 10; ++i) {
    s0 += w[i];
    s1 += w[i] * x[i];
  }
  EXPECT_NEAR(s0 / std::tgamma(101.0), 1.0, 1e-6);
  EXPECT_NEAR(s1 / std::tgamma(102.0), 1.0, 1e-6);
  // The rule used by the system converges silently.
  testing::internal::CaptureStdout();
  laguerre_nodes(x, w, 4, 0.0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(Legendre, ClosedFormsAndExactness) {
  double x[16], w[16];
  legendre_nodes(-1.0, 1.0, x, w, 2);
  EXPECT_NEAR(x[0], -1.0 / std::sqrt(3.0), 4 * eps);
  EXPECT_NEAR(x[1], 1.0 / std::sqrt(3.0), 4 * eps);
  EXPECT_NEAR(w[0], 1.0, 8 * eps);
  EXPECT_NEAR(w[1], 1.0, 8 * eps);

  legendre_nodes(-1.0, 1.0, x, w, 3);
  EXPECT_NEAR(x[0], -std::sqrt(0.6), 4 * eps);
  EXPECT_NEAR(x[1], 0.0, 4 * eps);
  EXPECT_NEAR(x[2], std::sqrt(0.6), 4 * eps);
  // The weights take pp from the step before the last, whose abscissa is
  // off by up to the 3e-14 of the stopping test.
  EXPECT_NEAR(w[0], 5.0 / 9.0, 1e-13);
  EXPECT_NEAR(w[1], 8.0 / 9.0, 1e-13);
  EXPECT_NEAR(w[2], 5.0 / 9.0, 1e-13);

  // Every size the wavenumber rule can ask for, and beyond, terminates and
  // integrates x^p, p <= 2n - 1, exactly on (0, 1) and on (2, 5).
  for (int n = 1; n <= 16; ++n) {
    legendre_nodes(0.0, 1.0, x, w, n);
    for (int i = 1; i < n; ++i) EXPECT_LT(x[i - 1], x[i]) << n;
    EXPECT_GT(x[0], 0.0);
    EXPECT_LT(x[n - 1], 1.0);
    for (int p = 0; p <= 2 * n - 1; ++p) {
      double sum = 0.0;
      for (int i = 0; i < n; ++i) sum += w[i] * std::pow(x[i], p);
      EXPECT_NEAR(sum, 1.0 / (p + 1), 1e-13 * n) << n << " " << p;
    }
    legendre_nodes(2.0, 5.0, x, w, n);
    for (int p = 0; p <= 2 * n - 1; ++p) {
      double sum = 0.0;
      for (int i = 0; i < n; ++i) sum += w[i] * std::pow(x[i], p);
      const double exact = (std::pow(5.0, p + 1) - std::pow(2.0, p + 1)) / (p + 1);
      EXPECT_NEAR(sum / exact, 1.0, 1e-13 * n) << n << " " << p;
    }
  }
  std::vector<double> xl(40), wl(40);
  legendre_nodes(0.0, 1.0, xl.data(), wl.data(), 40);
  double sum = 0.0;
  for (int i = 0; i < 40; ++i) sum += wl[i];
  EXPECT_NEAR(sum, 1.0, 1e-12);
}

TEST(LogGamma, AgreesWithLibrary) {
  for (double x = 0.05; x < 200.0; x *= 1.17) {
    const double ref = std::lgamma(x);
    EXPECT_NEAR(log_gamma(x), ref, 1e-9 * std::max(1.0, std::fabs(ref))) << x;
  }
  EXPECT_NEAR(log_gamma(4.0), std::log(6.0), 1e-12);
  EXPECT_NEAR(log_gamma(1.0), 0.0, 1e-12);
}

// A wavenumber table for spacing range (lo, hi), with W returned.
int rule_count(double lo, double hi) {
  double k[20], w[20];
  int count = -1;
  wavenumber_rule(20, 0, lo, hi, k, w, &count);
  return count;
}

TEST(WavenumberRule, CountFollowsSpacingRatio) {
  EXPECT_EQ(rule_count(1.0, 1.0), 6);
  EXPECT_EQ(rule_count(2.5, 25.0), 10);
  EXPECT_EQ(rule_count(1.0, 1e6), 20);
  EXPECT_EQ(rule_count(0.01, 1e9), 20);
  EXPECT_EQ(rule_count(1.0, 1.5), 6);  // g = 1.06: raised to 2
  EXPECT_EQ(rule_count(1.0, 100.0), 16);
  EXPECT_EQ(rule_count(1.0, 60.0), 14);  // g = 10.67

  // g just below 6 in double precision: single precision rounds it up to 6
  // and decides the count; a little further below it stays at 5.
  const double just_below = std::pow(10.0, (6.0 - 1e-8) / 6.0);
  const double g1 = 6.0 * std::log10(just_below / 1.0);
  ASSERT_LT(g1, 6.0);
  ASSERT_EQ(static_cast<float>(g1), 6.0f);
  EXPECT_EQ(rule_count(1.0, just_below), 10);
  const double further_below = std::pow(10.0, (6.0 - 2e-6) / 6.0);
  ASSERT_LT(static_cast<float>(6.0 * std::log10(further_below)), 6.0f);
  EXPECT_EQ(rule_count(1.0, further_below), 9);
  const double just_above = std::pow(10.0, (6.0 + 2e-6) / 6.0);
  ASSERT_GT(6.0 * std::log10(just_above), 6.0);
  EXPECT_EQ(rule_count(1.0, just_above), 10);

  // A zero smallest spacing: g is +infinity, the count its largest; both
  // spacings zero: g is NaN, the count its smallest.
  EXPECT_EQ(rule_count(0.0, 3.0), 20);
  EXPECT_EQ(rule_count(0.0, 0.0), 6);
  // A smaller table caps the Legendre part at table_size - 4.
  double k[12], w[12];
  int count = 0;
  wavenumber_rule(12, 0, 1.0, 1e6, k, w, &count);
  EXPECT_EQ(count, 12);
}

TEST(WavenumberRule, TableShapeAndSubstitution) {
  const double lo = 0.7, hi = 93.0;
  double k[20], w[20];
  int count = 0;
  wavenumber_rule(20, 0, lo, hi, k, w, &count);
  const int n = count - 4;
  const double k0 = 0.5 / lo;
  ASSERT_EQ(n, static_cast<int>(static_cast<float>(6.0 * std::log10(hi / lo))));
  for (int j = 0; j < count; ++j) {
    EXPECT_GT(k[j], 0.0) << j;
    EXPECT_GT(w[j], 0.0) << j;
    if (j > 0) {
      EXPECT_GT(k[j], k[j - 1]) << j;
    }
  }
  EXPECT_LT(k[n - 1], k0);
  EXPECT_GT(k[n], k0);

  // The Legendre part is k = k0 x^2 with weight g 2 k0 x / pi; the Laguerre
  // part k = k0 (1 + y) with weight e^y k0 h / pi.
  double x[16], g[16];
  legendre_nodes(0.0, 1.0, x, g, n);
  for (int j = 0; j < n; ++j) {
    EXPECT_DOUBLE_EQ(k[j], k0 * x[j] * x[j]);
    EXPECT_DOUBLE_EQ(w[j], g[j] * 2.0 * k0 * x[j] / 3.141592654);
  }
  double y[4], h[4];
  laguerre_nodes(y, h, 4, 0.0);
  for (int i = 0; i < 4; ++i) {
    EXPECT_DOUBLE_EQ(k[n + i], k0 * (1.0 + y[i]));
    EXPECT_DOUBLE_EQ(w[n + i], std::exp(y[i]) * k0 * h[i] / 3.141592654);
  }
}

// (1/pi) * integral_0^inf K0(k r) dk = 1/(2 r): the transform of the point
// source. The table reproduces it over the range of spacings it was made for.
double transform_error(const double* k, const double* w, int count, double r) {
  double sum = 0.0;
  for (int j = 0; j < count; ++j) sum += w[j] * std::cyl_bessel_k(0.0, k[j] * r);
  return sum * 2.0 * r - 1.0;
}

TEST(WavenumberRule, ReproducesPointSourceTransform) {
  // From a ratio of 5 on (8 terms and more) the error stays within 0.5
  // percent over the whole range of spacings.
  const double ranges[6][2] = {{1.0, 5.0}, {1.0, 10.0}, {0.5, 48.0}, {2.0, 200.0},
                               {1.0, 1000.0}, {0.1, 1e5}};
  for (const auto& range : ranges) {
    double k[20], w[20];
    int count = 0;
    wavenumber_rule(20, 0, range[0], range[1], k, w, &count);
    const double top = std::min(range[1], 1000.0 * range[0]);
    const double steps = 40.0;
    double worst = 0.0;
    for (int s = 0; s <= steps; ++s) {
      const double r = range[0] * std::pow(top / range[0], s / steps);
      worst = std::max(worst, std::fabs(transform_error(k, w, count, r)));
    }
    EXPECT_LT(worst, 0.005) << range[0] << " " << range[1];
  }
  // Six terms (ratio below 10^(1/2)) are coarser, 1 to 3 percent, but a
  // Wenner reading, 2 V(a) - V(2 a), keeps its error far smaller.
  double k[20], w[20];
  int count = 0;
  wavenumber_rule(20, 0, 1.5, 3.0, k, w, &count);
  ASSERT_EQ(count, 6);
  const double e1 = transform_error(k, w, count, 1.5);
  const double e2 = transform_error(k, w, count, 3.0);
  EXPECT_LT(std::fabs(e1), 0.015);
  EXPECT_LT(std::fabs(e2), 0.025);
  EXPECT_LT(std::fabs(2.0 * e1 - e2), 0.001);
}

TEST(WavenumberRule, FixedTableAndOtherModes) {
  double k[20], w[20];
  for (int j = 0; j < 20; ++j) k[j] = w[j] = -7.0;
  int count = 3;
  wavenumber_rule(20, 2, 1.0, 10.0, k, w, &count);
  EXPECT_EQ(count, 3);
  for (int j = 0; j < 20; ++j) {
    EXPECT_EQ(k[j], -7.0);
    EXPECT_EQ(w[j], -7.0);
  }
  wavenumber_rule(20, -1, 1.0, 10.0, k, w, &count);
  EXPECT_EQ(count, 3);

  wavenumber_rule(20, 1, 1.0, 4.0, k, w, &count);
  EXPECT_EQ(count, 10);
  EXPECT_NEAR(k[0] * 4.0, 0.001140091627989572, 1e-17);
  EXPECT_NEAR(k[9] * 4.0, 10.395070912301, 1e-12);
  EXPECT_NEAR(w[0] * 4.0 * 3.141592654, 0.005784813099631867, 1e-17);
  EXPECT_NEAR(w[6] * 4.0 * 3.141592654, 0.832739123838, 1e-12);
  EXPECT_NEAR(w[9] * 4.0 * 3.141592654, 6.48714508441, 1e-12);
  EXPECT_EQ(k[10], -7.0);
  // Its Laguerre rows are those of the rule with k0 = 1 / max_spacing (the
  // weight of row 9 only to seven digits, as the table stands).
  double y[4], h[4];
  laguerre_nodes(y, h, 4, 0.0);
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(k[6 + i] * 4.0, 1.0 + y[i], 1e-11);
    const double e = std::exp(y[i]) * h[i];
    EXPECT_NEAR(w[6 + i] * 4.0 * 3.141592654, e, 1e-7 * e);
  }
}

TEST(MeasurementSpacing, CurrentToPotentialDistancesOnly) {
  MeshModel mesh{};
  mesh.num_nodes = 6;
  mesh.node_x = {0.0, 0.5, 3.0, 7.0, 20.0, 20.2};
  mesh.node_y = {0.0, 0.0, 0.0, 4.0, 0.0, 0.0};
  ElectrodeTable table{};
  table.num_electrodes = 6;
  table.electrode_nodes = {1, 2, 3, 4, 5, 6};
  table.electrode_ids = {11, 12, 13, 14, 15, 16};
  MeasurementSet ms{};
  ms.num_measurements = 2;
  // a, b = 1, 2 (0.5 apart, not counted); m, n = 3, 4.
  // a, b = 5, 6 (0.2 apart, not counted); m, n = 3, 1 (3 apart, not counted).
  ms.elec_a = {1, 5};
  ms.elec_b = {2, 6};
  ms.elec_m = {3, 3};
  ms.elec_n = {4, 1};
  double lo = 0.0, hi = 0.0;
  measurement_spacing(mesh, table, ms, &lo, &hi);
  EXPECT_DOUBLE_EQ(lo, 2.5);        // b (0.5) to m (3)
  EXPECT_DOUBLE_EQ(hi, 20.2);       // b (20.2) to n (0)
  ms.num_measurements = 1;
  measurement_spacing(mesh, table, ms, &lo, &hi);
  EXPECT_DOUBLE_EQ(lo, 2.5);
  EXPECT_DOUBLE_EQ(hi, std::sqrt(49.0 + 16.0));  // a to n
  ms.num_measurements = 0;
  measurement_spacing(mesh, table, ms, &lo, &hi);
  EXPECT_DOUBLE_EQ(lo, std::sqrt(1e11));
  EXPECT_TRUE(std::isnan(hi));
}

}  // namespace
