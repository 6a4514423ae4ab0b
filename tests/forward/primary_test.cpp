// Primary potentials: the Bessel approximations, the reference conductivity
// and the half-space potential of a point source at the nodes.
#include "core_test_util.h"

// Error bounds of the handbook's formulas 9.8.1, 9.8.2, 9.8.5 and 9.8.6.
TEST(Bessel, WithinTheHandbookBoundsOfTheLibrary) {
  for (double x = 1e-4; x <= 2.0; x *= 1.01) {
    const double i0_err = std::fabs(bessel_i0(x) - std::cyl_bessel_i(0.0, x)), ref = std::cyl_bessel_k(0.0, x);
    EXPECT_NEAR(bessel_k0(x), ref, 1e-8 + std::fabs(std::log(x / 2)) * i0_err + 4 * eps * ref) << x;
  }
  for (double x = 2.0001; x < 600.0; x *= 1.013)
    EXPECT_LE(std::fabs(bessel_k0(x) - std::cyl_bessel_k(0.0, x)) * std::sqrt(x) * std::exp(x), 1.9e-7) << x;
  for (double x = 0.0; x < 3.75; x += 0.01) EXPECT_NEAR(bessel_i0(x), std::cyl_bessel_i(0.0, x), 1.6e-7) << x;
  for (double x = 3.75; x < 600.0; x *= 1.013)  // through -x: the branch and the formula take |x|
    EXPECT_LE(std::fabs(bessel_i0(-x) - std::cyl_bessel_i(0.0, x)) * std::exp(-x) * std::sqrt(x), 1.9e-7) << x;
  // x = 2.0 takes the small-argument branch: no step from just below it,
  // where the two formulas differ by far more than rounding.
  const double below = bessel_k0(std::nextafter(2.0, 0.0)), above = bessel_k0(std::nextafter(2.0, 3.0));
  ASSERT_GT(std::fabs(above - below), 1e6 * eps * below);
  EXPECT_NEAR(bessel_k0(2.0), below, 4 * eps * below);
}

TEST(ReferenceConductivity, GeometricMeanUniformFactorAndNextEntry) {
  // Triangles of areas 2 and 6: equal conductivities, or within 1e-6 S/m of
  // the mean, take the factor 0.95 in single precision; others do not.
  const MeshModel tri = make_mesh({0, 2, 2, -4}, {0, 0, 2, 2}, {{1, 2, 3, 7}, {1, 3, 4, 7}});
  const double cases[3][2] = {{0.01, 0.01}, {1e-7, 5e-8}, {0.01, 0.04}};
  for (int c = 0; c < 3; ++c) {
    const double lc[2] = {std::log(cases[c][0]), std::log(cases[c][1])}, m = std::exp(0.25 * lc[0] + 0.75 * lc[1]);
    EXPECT_NEAR(reference_conductivity(tri, 3, lc), m * (c < 2 ? 0.949999988079071 : 1.0), 8 * eps * m) << c;
  }
  // Two quadrilaterals 1e10 m apart: the weight of each is T over (1 2 5),
  // (2 3 5), (3 4 5), (4 1 5), 5 the entry behind its fourth slot, a node of
  // the other element (node 1 behind the list); the cancellation in those
  // long triangles makes the weights differ visibly from the areas.
  const double fx = 1.2345678901e10, fy = 0.7654321e10, lc[2] = {std::log(0.1), std::log(0.002)};
  const std::vector<double> x = {0, 0.1, 1.13, 1.21, 0.07, fx, fx + 2.03, fx + 1.98, fx - 0.01},  // 1-based
                            y = {0, 0.3, 0.37, 1.29, 1.41, fy + 3.7, fy + 3.71, fy + 5.69, fy + 5.73};
  const MeshModel quad = make_mesh({x.begin() + 1, x.end()}, {y.begin() + 1, y.end()}, {{1, 2, 3, 4}, {5, 6, 7, 8}});
  auto T = [&](int i, int j, int k) { return ((x[j] - x[i]) * (y[k] - y[i]) - (y[i] - y[j]) * (x[i] - x[k])) * 2.0; };
  const double w[2] = {T(1, 2, 5) + T(2, 3, 5) + T(3, 4, 5) + T(4, 1, 5),
                       T(5, 6, 1) + T(6, 7, 1) + T(7, 8, 1) + T(8, 5, 1)};
  const double area[2] = {T(1, 2, 3) + T(1, 3, 4), T(5, 6, 7) + T(5, 7, 8)};
  auto mean = [&](const double* a) { return std::exp((a[0] * lc[0] + a[1] * lc[1]) / (a[0] + a[1])); };
  ASSERT_GT(std::fabs(mean(w) - mean(area)), 1e-9 * mean(area));
  EXPECT_NEAR(reference_conductivity(quad, 4, lc), mean(w), 4 * eps * mean(w));
}

TEST(PrimaryPotential, HalfSpaceFormulasWithSinglePrecisionPi) {
  const MeshModel mesh = make_mesh({0.0, 1.0, 2.0, -3.0, 0.5, 0.0}, {0.0, 0.0, 1.5, 4.0, -0.25, 2.0}, {});
  const double sigma = 0.037;
  std::vector<double> v(6);
  for (int s : {0, 2, 5}) {
    for (double k : {0.0, 1e-4, 0.3, 2.0, 45.0}) {
      fill_primary_potential(mesh, s + 1, k, sigma, v.data());
      for (int i = 0; i < 6; ++i) {
        const double dx = mesh.node_x[i] - mesh.node_x[s], r = std::hypot(dx, mesh.node_y[i] - mesh.node_y[s]),
                     ri = std::hypot(dx, mesh.node_y[i] + mesh.node_y[s]);
        // 4 pi and 2 pi in single precision, 2.8e-8 above the true values.
        const double exact = k == 0.0 ? (1 / r + 1 / ri) / (12.566370964050293 * sigma)
                                      : (std::cyl_bessel_k(0.0, k * r) + std::cyl_bessel_k(0.0, k * ri)) /
                                            (6.2831854820251465 * sigma);
        if (i == s) EXPECT_EQ(v[i], 0.0);
        else EXPECT_NEAR(v[i], exact, (k == 0.0 ? 8 * eps : 2e-7) * exact) << i << " " << k;
      }
    }
  }
}
