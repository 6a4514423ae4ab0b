// Unit tests of the geometric factor and the electrode look-up.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "data/measurement_set.h"
#include "mesh/mesh_model.h"

namespace {

// Nodes 1..n along the surface at x = spacing * (k - 1), y = depth.
MeshModel line_mesh(int n, double spacing, double depth) {
  MeshModel m{};
  m.num_nodes = n;
  m.num_elements = 0;
  for (int k = 0; k < n; ++k) {
    m.node_x.push_back(spacing * k);
    m.node_y.push_back(depth);
  }
  m.element_nodes.assign(1, 1);
  return m;
}

ElectrodeTable table_on_nodes(int n) {
  ElectrodeTable t{};
  t.num_electrodes = n;
  for (int k = 1; k <= n; ++k) {
    t.electrode_nodes.push_back(k);
    t.electrode_ids.push_back(10 * k);
  }
  return t;
}

}  // namespace

TEST(GeometricFactor, WennerOnFlatSurfaceIsTwoPiA) {
  const double eps = std::numeric_limits<double>::epsilon();
  for (double a : {0.5, 1.0, 5.0, 37.5}) {
    MeshModel m = line_mesh(4, a, 0.0);
    ElectrodeTable t = table_on_nodes(4);
    // P+ at a, P- at 2a, C+ at 0, C- at 3a.
    double k = geometric_factor(m, t, 2, 3, 1, 4, 3.0);
    // The constant 12.566370616 is 4 pi to ten digits (1.3e-10 relative).
    EXPECT_NEAR(k, 2.0 * M_PI * a, 2.0 * M_PI * a * 2e-10);
    EXPECT_NEAR(k, 12.566370616 * a / 2.0, 12.566370616 * a * 8 * eps);
    // Swapping the potential pair changes the sign.
    EXPECT_NEAR(geometric_factor(m, t, 3, 2, 1, 4, 3.0), -k, k * 8 * eps);
  }
  // Two-dimensional flow: K is 1 whatever the geometry.
  MeshModel m = line_mesh(4, 1.0, 0.0);
  EXPECT_EQ(geometric_factor(m, table_on_nodes(4), 2, 3, 1, 4, 2.0), 1.0);
}

TEST(GeometricFactor, BuriedElectrodesUseTheImageInYZero) {
  // Electrodes 3 m below y = 0, 2 m apart: the image terms use y_A + y_B.
  MeshModel m = line_mesh(4, 2.0, 3.0);
  ElectrodeTable t = table_on_nodes(4);
  auto r = [](double dx, double dy) { return std::sqrt(dx * dx + dy * dy); };
  double g = 1 / r(2, 0) + 1 / r(2, 6) - 1 / r(4, 0) - 1 / r(4, 6) -
             1 / r(4, 0) - 1 / r(4, 6) + 1 / r(2, 0) + 1 / r(2, 6);
  double k = geometric_factor(m, t, 2, 3, 1, 4, 3.0);
  EXPECT_NEAR(k, 12.566370616 / g, 12.566370616 / g * 1e-14);
}

TEST(FindElectrode, LastRowWithTheNumberWinsAndMissingIsZero) {
  ElectrodeTable t{};
  t.num_electrodes = 5;
  t.electrode_ids = {7, 3, 7, 11, 2};
  t.electrode_nodes = {1, 2, 3, 4, 5};
  EXPECT_EQ(find_electrode(t, 7), 3);
  EXPECT_EQ(find_electrode(t, 3), 2);
  EXPECT_EQ(find_electrode(t, 2), 5);
  EXPECT_EQ(find_electrode(t, 4), 0);
  t.num_electrodes = 0;
  EXPECT_EQ(find_electrode(t, 7), 0);
}
