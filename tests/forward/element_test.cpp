// Tests of the element equations: exact element matrices, the assembly
// against a dense assembly, the element store and the pinned node.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "core_test_util.h"
#include "forward/forward.h"
#include "mesh/mesh_model.h"

namespace {

using core_test::ScratchDir;
const double eps = std::numeric_limits<double>::epsilon();

// Element matrix of the nodes (x, y) listed, leading p by p block, ae(i, j)
// at [i * p + j].
std::vector<double> elem(const std::vector<double>& x, const std::vector<double>& y,
                         const std::vector<int>& nodes, double k) {
  const int p = static_cast<int>(nodes.size());
  double ae[25];
  element_matrix(ae, x.data(), y.data(), nodes.data(), p, k);
  std::vector<double> out(p * p);
  for (int i = 0; i < p; ++i)
    for (int j = 0; j < p; ++j) out[i * p + j] = ae[i + 5 * j];
  return out;
}

void expect_ulps(double value, double exact, double ulps, const char* what) {
  const double tol = ulps * eps * std::max(std::fabs(exact), 0.5);
  EXPECT_NEAR(value, exact, tol) << what;
}

TEST(ElementMatrix, ExactValues) {
  const std::vector<double> sx = {0.0, 1.0, 1.0, 0.0}, sy = {0.0, 0.0, 1.0, 1.0};
  const std::vector<int> square = {1, 2, 3, 4};
  std::vector<double> a = elem(sx, sy, square, 0.0);
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) expect_ulps(a[i * 4 + j], i == j ? 0.75 : -0.25, 4, "square k=0");
  a = elem(sx, sy, square, 1.0);
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) {
      const double exact = i == j ? 2071.0 / 2400 : ((i + j) % 2 == 1 ? -479.0 / 2400 : -529.0 / 2400);
      expect_ulps(a[i * 4 + j], exact, 4, "square k=1");
    }
  }

  const std::vector<double> tx = {0.0, 1.0, 0.0}, ty = {0.0, 0.0, 1.0};
  const std::vector<int> tri = {1, 2, 3};
  a = elem(tx, ty, tri, 0.0);
  const double plain[9] = {1.0, -0.5, -0.5, -0.5, 0.5, 0.0, -0.5, 0.0, 0.5};
  for (int t = 0; t < 9; ++t) expect_ulps(a[t], plain[t], 8, "triangle k=0");
  a = elem(tx, ty, tri, 1.0);
  expect_ulps(a[0], 8537.0 / 7884, 8, "triangle k=1 (1,1)");
  expect_ulps(a[1], -7235.0 / 15768, 8, "triangle k=1 (1,2)");
  expect_ulps(a[2], -7235.0 / 15768, 8, "triangle k=1 (1,3)");
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) EXPECT_EQ(a[i * 3 + j], a[j * 3 + i]);

  // Node numbers select coordinates: the same square from nodes 7, 3, 5, 1.
  std::vector<double> bx(7, 9.0), by(7, -4.0);
  bx[6] = 0.0; by[6] = 0.0; bx[2] = 1.0; by[2] = 0.0;
  bx[4] = 1.0; by[4] = 1.0; bx[0] = 0.0; by[0] = 1.0;
  EXPECT_EQ(elem(bx, by, {7, 3, 5, 1}, 1.0), elem(sx, sy, square, 1.0));
}

TEST(ElementMatrix, RowSumsAndOrientation) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int round = 0; round < 200; ++round) {
    // A random convex quadrilateral: a jittered square, scaled and moved.
    const double scale = std::pow(10.0, 3.0 * u(rng));
    const double cx = 3.0 * scale * u(rng), cy = 3.0 * scale * u(rng);
    std::vector<double> x(4), y(4);
    const double bx[4] = {0, 1, 1, 0}, by[4] = {0, 0, 1, 1};
    for (int t = 0; t < 4; ++t) {
      x[t] = cx + scale * (bx[t] + 0.2 * u(rng));
      y[t] = cy + scale * (by[t] + 0.2 * u(rng));
    }
    const double k = std::fabs(u(rng)) / scale;
    for (int p = 3; p <= 4; ++p) {
      std::vector<int> fwd(p), rev(p);
      for (int t = 0; t < p; ++t) {
        fwd[t] = t + 1;
        rev[t] = p - t;  // the same element listed clockwise
      }
      const std::vector<double> a0 = elem(x, y, fwd, 0.0);
      double big = 0.0;
      for (double v : a0) big = std::max(big, std::fabs(v));
      for (int i = 0; i < p; ++i) {
        double sum = 0.0;
        for (int j = 0; j < p; ++j) sum += a0[i * p + j];
        EXPECT_NEAR(sum, 0.0, 64 * eps * big) << "row sum, p " << p;
        EXPECT_GT(a0[i * p + i], 0.0);
      }
      for (double kk : {0.0, k}) {
        const std::vector<double> a = elem(x, y, fwd, kk), b = elem(x, y, rev, kk);
        double top = 0.0;
        for (double v : a) top = std::max(top, std::fabs(v));
        for (int i = 0; i < p; ++i) {
          for (int j = 0; j < p; ++j) {
            // local i of fwd is local p - 1 - i of rev
            EXPECT_NEAR(b[(p - 1 - i) * p + (p - 1 - j)], -a[i * p + j], 64 * eps * top);
            EXPECT_EQ(a[i * p + j], a[j * p + i]);
          }
        }
      }
    }
  }
}

using core_test::dense_matrix;

TEST(Assembly, AgreesWithDenseAssembly) {
  ScratchDir dir;
  std::mt19937 rng(31);
  std::uniform_real_distribution<double> logc(-6.0, 2.0);
  testing::internal::CaptureStdout();
  for (int round = 0; round < 8; ++round) {
    const int p = round % 2 == 0 ? 3 : 4;
    MeshModel mesh = core_test::make_random_mesh(rng, 4 + round, 3 + round % 3, round % 3, p == 4, true);
    mesh.pin_flags.assign(mesh.num_nodes, 0);
    mesh.pin_flags[(round * 7) % mesh.num_nodes] = 1;
    ConductanceMatrix cm;
    core_test::build_pattern(mesh, p, &cm);
    std::vector<double> lc(mesh.num_elements);
    for (double& v : lc) v = logc(rng);
    for (double k : {0.0, 0.37, 2.5}) {
      // Stale values must not survive.
      cm.matrix_values.assign(cm.num_entries, 123.0);
      assemble_matrix(mesh, p, lc.data(), k, &cm);
      const int n = mesh.num_nodes;
      const std::vector<double> dense = dense_matrix(mesh, p, lc, k, true);
      double stored_sum = 0.0, dense_upper = 0.0;
      for (int i = 1; i <= n; ++i) {
        double row_scale = 0.0;
        for (int j = 1; j <= n; ++j) row_scale = std::max(row_scale, std::fabs(dense[(i - 1) * n + j - 1]));
        EXPECT_EQ(cm.matrix_columns[cm.matrix_row_start[i - 1] - 1], i);
        for (int r = cm.matrix_row_start[i - 1]; r < cm.matrix_row_start[i]; ++r) {
          const int j = cm.matrix_columns[r - 1];
          EXPECT_NEAR(cm.matrix_values[r - 1], dense[(i - 1) * n + j - 1], 4 * eps * row_scale)
              << "row " << i << " column " << j << " k " << k;
          stored_sum += std::fabs(cm.matrix_values[r - 1]);
        }
        for (int j = i; j <= n; ++j) {
          dense_upper += std::fabs(dense[(i - 1) * n + j - 1]);
          EXPECT_NEAR(dense[(i - 1) * n + j - 1], dense[(j - 1) * n + i - 1], 4 * eps * row_scale);
        }
      }
      // No non-zero of the upper triangle falls outside the pattern.
      EXPECT_NEAR(stored_sum, dense_upper, 1e-12 * dense_upper);
      EXPECT_EQ(cm.element_matrices_k, k);

      // The column search (no position map) and the element matrices
      // recomputed per element (no store) give the same bits.
      ConductanceMatrix plain = cm;
      plain.element_positions.clear();
      plain.element_matrices.clear();
      plain.matrix_values.assign(cm.num_entries, -1.0);
      assemble_matrix(mesh, p, lc.data(), k, &plain);
      EXPECT_EQ(plain.matrix_values, cm.matrix_values);
    }
  }
  testing::internal::GetCapturedStdout();
}

TEST(Assembly, ElementStoreFollowsTheWavenumber) {
  ScratchDir dir;
  std::mt19937 rng(8);
  testing::internal::CaptureStdout();
  const MeshModel mesh = core_test::make_random_mesh(rng, 5, 5, 0, false, false);
  ConductanceMatrix cm;
  core_test::build_pattern(mesh, 3, &cm);
  testing::internal::GetCapturedStdout();
  for (double k : {0.5, 0.5, 0.0, -0.0, 1.5}) {
    const double* store = element_matrices(mesh, 3, k, &cm);
    ASSERT_EQ(store, cm.element_matrices.data());
    for (int e = 0; e < mesh.num_elements; ++e) {
      double ae[25];
      element_matrix(ae, mesh.node_x.data(), mesh.node_y.data(), &mesh.element_nodes[4 * e], 3, k);
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) ASSERT_EQ(store[e * 9 + i * 3 + j], ae[i + 5 * j]);
    }
  }
  cm.element_matrices.clear();
  EXPECT_EQ(element_matrices(mesh, 3, 0.5, &cm), nullptr);
}

// The pinned-node sum written out: a node number outside 1..N fetches 0.0.
int literal_pinned(const MeshModel& mesh, const std::vector<int>& electrodes) {
  const int n = mesh.num_nodes;
  auto fetch = [&](const std::vector<double>& c, double v) {
    const double t = std::trunc(v);
    if (!(t >= 1.0 && t <= n)) return 0.0;
    return c[static_cast<long long>(t) - 1];
  };
  double best = 0.0;
  int pinned = 0;
  for (int i = 1; i <= n; ++i) {
    double sum = 0.0;
    for (int en : electrodes) {
      const double xp = fetch(mesh.node_x, en - mesh.node_x[i - 1]);
      const double yq = fetch(mesh.node_y, en - mesh.node_y[i - 1]);
      sum = sum + std::sqrt(xp * xp + yq * yq);
    }
    if (sum > best) {
      best = sum;
      pinned = i;
    }
  }
  return pinned == 0 ? 1 : pinned;
}

int flagged(const MeshModel& mesh) {
  int count = 0, node = 0;
  for (int i = 0; i < mesh.num_nodes; ++i) {
    EXPECT_TRUE(mesh.pin_flags[i] == 0 || mesh.pin_flags[i] == 1);
    if (mesh.pin_flags[i] == 1) {
      ++count;
      node = i + 1;
    }
  }
  EXPECT_EQ(count, 1);
  return node;
}

TEST(PinnedNode, GridAndMeshRules) {
  // Grid: node 1, whatever the electrodes.
  MeshModel grid = core_test::make_grid(core_test::spaced(6, 2.0), core_test::spaced(4, 1.0));
  grid.pin_flags.assign(grid.num_nodes, 1);
  ElectrodeTable table;
  table.num_electrodes = 3;
  table.electrode_nodes = {5, 9, 13};
  table.electrode_ids = {1, 2, 3};
  choose_pinned_node(4, table, &grid);
  EXPECT_EQ(flagged(grid), 1);

  // mesh.dat: coordinates of mixed sign and size so that the fetched node
  // numbers fall inside and outside 1..N (also far outside: no overflow).
  std::mt19937 rng(99);
  std::uniform_real_distribution<double> coord(-30.0, 60.0);
  std::uniform_int_distribution<int> pick(1, 40);
  int inside = 0, outside = 0;
  for (int round = 0; round < 50; ++round) {
    MeshModel mesh;
    mesh.num_nodes = 40;
    mesh.node_x.resize(40);
    mesh.node_y.resize(40);
    for (int i = 0; i < 40; ++i) {
      mesh.node_x[i] = coord(rng);
      mesh.node_y[i] = coord(rng);
    }
    mesh.node_x[round % 40] = 1e300;
    mesh.node_y[(round * 3) % 40] = -1e300;
    mesh.node_x[(round * 7) % 40] = std::numeric_limits<double>::quiet_NaN();
    mesh.node_y[(round * 11) % 40] = 3e9;
    mesh.pin_flags.assign(40, 7);
    ElectrodeTable t;
    t.num_electrodes = 1 + round % 6;
    for (int e = 0; e < t.num_electrodes; ++e) {
      t.electrode_nodes.push_back(pick(rng));
      t.electrode_ids.push_back(e + 1);
    }
    for (int i = 0; i < 40; ++i)
      for (int en : t.electrode_nodes) {
        const double v = std::trunc(en - mesh.node_x[i]);
        (v >= 1.0 && v <= 40.0) ? ++inside : ++outside;
      }
    choose_pinned_node(3, t, &mesh);
    EXPECT_EQ(flagged(mesh), literal_pinned(mesh, t.electrode_nodes)) << "round " << round;
  }
  EXPECT_GT(inside, 100);
  EXPECT_GT(outside, 100);

  // A node with a larger sum later on wins; an equal sum does not replace.
  MeshModel small;
  small.num_nodes = 3;
  small.node_x = {2.0, 0.5, 0.5};
  small.node_y = {0.0, 0.0, 0.0};
  ElectrodeTable one;
  one.num_electrodes = 1;
  one.electrode_nodes = {3};
  one.electrode_ids = {1};
  // node 1: p = 1 -> x 2.0; node 2: p = trunc(2.5) = 2 -> 0.5; node 3 the same
  choose_pinned_node(3, one, &small);
  EXPECT_EQ(flagged(small), 1);
  small.node_x = {0.5, 2.0, 0.5};
  // node 1: p = 2 -> 2.0; node 2: p = 1 -> 0.5; node 3: p = 2 -> 2.0 (equal)
  choose_pinned_node(3, one, &small);
  EXPECT_EQ(flagged(small), 1);
  small.node_x = {1.5, 0.5, 2.0};
  // node 1: p = 1 -> 1.5; node 2: p = 2 -> 0.5; node 3: p = 1 -> 1.5 (equal)
  choose_pinned_node(3, one, &small);
  EXPECT_EQ(flagged(small), 1);
  small.node_x = {2.5, 0.5, 1.0};
  // node 1: p = 0 -> 0.0; node 2: p = 2 -> 0.5; node 3: p = 2 -> 0.5
  choose_pinned_node(3, one, &small);
  EXPECT_EQ(flagged(small), 2);

  // Every sum 0 (all fetched numbers out of range): node 1.
  small.node_x = {1e6, 1e6, 1e6};
  small.node_y = {-1e6, -1e6, -1e6};
  choose_pinned_node(3, one, &small);
  EXPECT_EQ(flagged(small), 1);
  // Every coordinate 0: all sums 0 again.
  small.node_x = {0.0, 0.0, 0.0};
  small.node_y = {0.0, 0.0, 0.0};
  choose_pinned_node(3, one, &small);
  EXPECT_EQ(flagged(small), 1);
}

}  // namespace
