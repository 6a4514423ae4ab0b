// Tests of the primary potentials: Bessel approximations, the reference
// conductivity and the half-space potential at the nodes.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "forward/forward.h"
#include "mesh/mesh_model.h"

namespace {

const double eps = std::numeric_limits<double>::epsilon();

TEST(Bessel, AgreesWithLibraryWithinHandbookBounds) {
  // K0, x <= 2: absolute error of the series 1e-8 plus that of I0
  // (9.8.1, 1.6e-7 at most, far less for x <= 2) times |ln(x/2)|.
  for (double x = 1e-4; x <= 2.0; x *= 1.01) {
    const double ref = std::cyl_bessel_k(0.0, x);
    const double i0_err = std::fabs(bessel_i0(x) - std::cyl_bessel_i(0.0, x));
    EXPECT_LE(i0_err, 1.6e-7) << x;
    EXPECT_NEAR(bessel_k0(x), ref, 1e-8 + std::fabs(std::log(x / 2.0)) * i0_err + 4 * eps * ref) << x;
  }
  // K0, x > 2: sqrt(x) e^x K0 within 1.9e-7.
  for (double x = 2.0001; x < 600.0; x *= 1.013) {
    const double ref = std::cyl_bessel_k(0.0, x);
    EXPECT_LE(std::fabs((bessel_k0(x) - ref) / ref) * ref * std::sqrt(x) * std::exp(x), 1.9e-7) << x;
  }
  // I0: absolute 1.6e-7 below 3.75, sqrt(x) e^-x I0 within 1.9e-7 above.
  for (double x = 0.0; x < 3.75; x += 0.01) {
    EXPECT_NEAR(bessel_i0(x), std::cyl_bessel_i(0.0, x), 1.6e-7) << x;
    EXPECT_EQ(bessel_i0(-x), bessel_i0(x));
  }
  for (double x = 3.75; x < 600.0; x *= 1.013) {
    const double ref = std::cyl_bessel_i(0.0, x);
    EXPECT_LE(std::fabs(bessel_i0(x) / ref - 1.0) * ref * std::exp(-x) * std::sqrt(x), 1.9e-7) << x;
    EXPECT_EQ(bessel_i0(-x), bessel_i0(x));
  }
  // Tabulated values of the handbook, to the accuracy of the formulas; below
  // x = 2 the error of I0 (9.8.1, about 2.6e-8 at 0.5) enters times ln(2/x).
  EXPECT_NEAR(bessel_k0(0.5), 0.9244190712, 5e-8);
  EXPECT_NEAR(bessel_k0(1.0), 0.4210244382, 2e-8);
  EXPECT_NEAR(bessel_k0(2.0), 0.1138938727, 2e-8);
  EXPECT_NEAR(bessel_k0(5.0), 0.003691098334, 1e-9);
  EXPECT_NEAR(bessel_i0(1.0), 1.266065878, 2e-7);
  EXPECT_NEAR(bessel_i0(2.0), 2.279585302, 2e-7);
  EXPECT_NEAR(bessel_i0(5.0), 27.23987182, 27.24 * 2e-7);
}

// The two K0 formulas written out term by term, 9.8.5 and 9.8.6.
double k0_small(double x) {
  const double t = x * 0.25 * x;
  const double y = x / 3.75;
  const double u = y * y;
  const double i0 = 1.0 + 3.5156229 * u + 3.0899424 * u * u + 1.2067492 * std::pow(u, 3) +
                    0.2659732 * std::pow(u, 4) + 0.0360768 * std::pow(u, 5) +
                    0.0045813 * std::pow(u, 6);
  return -std::log(x * 0.5) * i0 - 0.57721566 + 0.42278420 * t + 0.23069756 * t * t +
         0.03488590 * std::pow(t, 3) + 0.00262698 * std::pow(t, 4) +
         0.00010750 * std::pow(t, 5) + 0.0000074 * std::pow(t, 6);
}

double k0_large(double x) {
  const double t = 2.0 / x;
  return std::exp(-x) / std::sqrt(x) *
         (1.25331414 - 0.07832358 * t + 0.02189568 * t * t - 0.01062446 * std::pow(t, 3) +
          0.00587872 * std::pow(t, 4) - 0.00251540 * std::pow(t, 5) +
          0.00053208 * std::pow(t, 6));
}

TEST(Bessel, BranchesAndCoefficients) {
  // Each branch equals the handbook formula up to the rounding of Horner's
  // scheme against the power form.
  for (double x = 0.01; x <= 2.0; x += 0.01)
    EXPECT_NEAR(bessel_k0(x), k0_small(x), 64 * eps * std::fabs(k0_small(x))) << x;
  for (double x = 2.01; x < 50.0; x += 0.37)
    EXPECT_NEAR(bessel_k0(x), k0_large(x), 16 * eps * k0_large(x)) << x;
  // x = 2.0 belongs to the small-argument branch.
  ASSERT_GT(std::fabs(k0_small(2.0) - k0_large(2.0)), 1000 * eps * k0_small(2.0));
  EXPECT_NEAR(bessel_k0(2.0), k0_small(2.0), 16 * eps * k0_small(2.0));
  // I0 at 3.75 belongs to the large-argument branch: its polynomial at t = 1.
  const double at_one = 0.39894228 + 0.01328592 + 0.00225319 - 0.00157565 + 0.00916281 -
                        0.02057706 + 0.02635537 - 0.01647633 + 0.00392377;
  EXPECT_NEAR(bessel_i0(3.75), std::exp(3.75) / std::sqrt(3.75) * at_one, 16 * eps * 9.12);
}

// A mesh of `n` nodes with the given coordinates.
MeshModel make_mesh(const std::vector<double>& x, const std::vector<double>& y) {
  MeshModel mesh{};
  mesh.num_nodes = static_cast<int>(x.size());
  mesh.node_x = x;
  mesh.node_y = y;
  return mesh;
}

TEST(ReferenceConductivity, TrianglesGeometricMeanAndUniformity) {
  // Square of side 2 split into two triangles, both anticlockwise in (x, y).
  MeshModel mesh = make_mesh({0.0, 2.0, 2.0, 0.0}, {0.0, 0.0, 2.0, 2.0});
  mesh.num_elements = 2;
  mesh.element_nodes = {1, 2, 3, 7, 1, 3, 4, 7, 1};
  std::vector<double> lc = {std::log(0.01), std::log(0.01)};
  EXPECT_EQ(reference_conductivity(mesh, 3, lc.data()), std::exp(std::log(0.01)) * 0.949999988079071);

  // Two conductivities: the equal-area geometric mean, not uniform.
  lc = {std::log(0.01), std::log(0.04)};
  EXPECT_NEAR(reference_conductivity(mesh, 3, lc.data()), 0.02, 4 * eps * 0.02);

  // Unequal areas 1 : 3 (node 4 moved), weights follow the area.
  MeshModel skew = make_mesh({0.0, 2.0, 2.0, -4.0}, {0.0, 0.0, 2.0, 2.0});
  skew.num_elements = 2;
  skew.element_nodes = mesh.element_nodes;
  // Triangle 1 has area 2, triangle 2 area 6.
  EXPECT_NEAR(reference_conductivity(skew, 3, lc.data()),
              std::exp(0.25 * std::log(0.01) + 0.75 * std::log(0.04)), 8 * eps * 0.04);

  // Within 1e-6 S/m of the mean counts as uniform: high resistivities of
  // 1e7 and 2e7 ohm m pass, 1e5 and 2e5 do not.
  lc = {-std::log(1e7), -std::log(2e7)};
  const double mean_high = std::exp(0.5 * (lc[0] + lc[1]));
  EXPECT_NEAR(reference_conductivity(mesh, 3, lc.data()), mean_high * 0.949999988079071,
              8 * eps * mean_high);
  lc = {-std::log(1e5), -std::log(2e5)};
  const double mean_low = std::exp(0.5 * (lc[0] + lc[1]));
  EXPECT_NEAR(reference_conductivity(mesh, 3, lc.data()), mean_low, 8 * eps * mean_low);
}

// Literal transcription of the four-node weight: the triangles (1 2 5),
// (2 3 5), (3 4 5), (4 1 5) with 5 the entry behind the fourth slot.
double literal_reference(const MeshModel& m, const std::vector<double>& lc) {
  const int table[12] = {1, 2, 5, 2, 3, 5, 3, 4, 5, 4, 1, 5};
  double s = 0.0, l = 0.0;
  for (int e = 1; e <= m.num_elements; ++e) {
    int nd[5];
    for (int q = 0; q < 5; ++q) nd[q] = m.element_nodes[4 * (e - 1) + q];
    double a = 0.0;
    for (int t = 0; t < 4; ++t) {
      const int i = nd[table[3 * t] - 1], j = nd[table[3 * t + 1] - 1], k = nd[table[3 * t + 2] - 1];
      const double xi = m.node_x[i - 1], xj = m.node_x[j - 1], xk = m.node_x[k - 1];
      const double yi = m.node_y[i - 1], yj = m.node_y[j - 1], yk = m.node_y[k - 1];
      a += ((xj - xi) * (yk - yi) - (yi - yj) * (xi - xk)) * 2.0;
    }
    s += a;
    l += a * lc[e - 1];
  }
  return std::exp(l / s);
}

TEST(ReferenceConductivity, QuadrilateralsUseTheNextEntry) {
  // The four triangles about any fifth point add up to four times the
  // quadrilateral's area, so the extra entry shows only in the rounding.
  // Element 1 is a unit square near the origin, element 2 a square 1e10 m
  // away: each fan reaches to the other element (the second through the
  // entry behind the list, node 1), and the cancellation in the long
  // triangles leaves a visible trace of which point was used.
  const double fx = 1.2345678901e10, fy = 0.7654321e10;
  MeshModel mesh = make_mesh(
      {0.1, 1.13, 1.21, 0.07, fx, fx + 2.03, fx + 1.98, fx - 0.01},
      {0.3, 0.37, 1.29, 1.41, fy + 3.7, fy + 3.71, fy + 5.69, fy + 5.73});
  mesh.num_elements = 2;
  mesh.element_nodes = {1, 2, 3, 4, 5, 6, 7, 8, 1};
  std::vector<double> lc = {std::log(0.1), std::log(0.002)};
  const double ref = literal_reference(mesh, lc);
  EXPECT_NEAR(reference_conductivity(mesh, 4, lc.data()), ref, 4 * eps * ref);
  // Areas by the shoelace rule in coordinates local to each element.
  double area[2];
  for (int e = 0; e < 2; ++e) {
    double px[4], py[4];
    for (int q = 0; q < 4; ++q) {
      px[q] = mesh.node_x[4 * e + q] - mesh.node_x[4 * e];
      py[q] = mesh.node_y[4 * e + q] - mesh.node_y[4 * e];
    }
    area[e] = 0.0;
    for (int q = 0; q < 4; ++q) area[e] += px[q] * py[(q + 1) % 4] - px[(q + 1) % 4] * py[q];
  }
  const double area_mean = std::exp((area[0] * lc[0] + area[1] * lc[1]) / (area[0] + area[1]));
  EXPECT_NEAR(ref, area_mean, 1e-4 * area_mean);
  ASSERT_GT(std::fabs(ref - area_mean), 1e-9 * area_mean);

  // On an ordinary grid (3 x 3 nodes numbered down the columns, uneven
  // cells) the weights are the areas up to rounding.
  const double xs[3] = {0.0, 1.0, 3.5};
  const double ys[3] = {0.0, 2.0, 2.5};
  std::vector<double> x, y;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      x.push_back(xs[i]);
      y.push_back(ys[j]);
    }
  MeshModel grid = make_mesh(x, y);
  grid.num_elements = 4;
  grid.element_nodes = {1, 4, 5, 2, 2, 5, 6, 3, 4, 7, 8, 5, 5, 8, 9, 6, 1};
  lc = {std::log(0.1), std::log(0.02), std::log(0.5), std::log(0.003)};
  const double areas[4] = {2.0, 0.5, 5.0, 1.25};
  double s = 0.0, l = 0.0;
  for (int e = 0; e < 4; ++e) {
    s += areas[e];
    l += areas[e] * lc[e];
  }
  const double grid_ref = literal_reference(grid, lc);
  EXPECT_NEAR(reference_conductivity(grid, 4, lc.data()), grid_ref, 4 * eps * grid_ref);
  EXPECT_NEAR(grid_ref, std::exp(l / s), 64 * eps * grid_ref);
}

TEST(PrimaryPotential, HalfSpaceFormulas) {
  MeshModel mesh = make_mesh({0.0, 1.0, 2.0, -3.0, 0.5, 0.0},
                             {0.0, 0.0, 1.5, 4.0, -0.25, 2.0});
  const double sigma = 0.037;
  std::vector<double> v(6, -1.0);
  for (int source : {1, 3, 6}) {
    const double xs = mesh.node_x[source - 1], ys = mesh.node_y[source - 1];
    fill_primary_potential(mesh, source, 0.0, sigma, v.data());
    for (int i = 1; i <= 6; ++i) {
      if (i == source) {
        EXPECT_EQ(v[i - 1], 0.0);
        continue;
      }
      const double dx = mesh.node_x[i - 1] - xs;
      const double r = std::hypot(dx, mesh.node_y[i - 1] - ys);
      const double ri = std::hypot(dx, mesh.node_y[i - 1] + ys);
      const double direct = (1.0 / r + 1.0 / ri) / (4.0 * M_PI * sigma);
      // 4 pi in single precision is 2.8e-8 relative above the true value.
      EXPECT_NEAR(v[i - 1], direct * (4.0 * M_PI / 12.566370964050293), 8 * eps * direct) << i;
      EXPECT_NEAR(v[i - 1], direct, 4e-8 * direct);
    }
    for (double k : {1e-4, 0.3, 2.0, 45.0}) {
      fill_primary_potential(mesh, source, k, sigma, v.data());
      for (int i = 1; i <= 6; ++i) {
        if (i == source) {
          EXPECT_EQ(v[i - 1], 0.0);
          continue;
        }
        const double dx = mesh.node_x[i - 1] - xs;
        const double r = std::hypot(dx, mesh.node_y[i - 1] - ys);
        const double ri = std::hypot(dx, mesh.node_y[i - 1] + ys);
        const double exact = (std::cyl_bessel_k(0.0, k * r) + std::cyl_bessel_k(0.0, k * ri)) /
                             (2.0 * M_PI * sigma);
        const double formula = (bessel_k0(k * r) + bessel_k0(k * ri)) / (sigma * 6.2831854820251465);
        EXPECT_NEAR(v[i - 1], formula, 8 * eps * formula) << i << " " << k;
        EXPECT_NEAR(v[i - 1], exact, 2e-7 * exact + 1e-30) << i << " " << k;
      }
    }
  }
}

}  // namespace
