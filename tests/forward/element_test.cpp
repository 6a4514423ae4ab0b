// Element equations: exact element matrices, orientation, and the sparse
// assembly against a dense one.
#include "core_test_util.h"

// Element matrix of one element as a dense matrix over all nodes of x, y.
static std::vector<double> elem(std::vector<double> x, std::vector<double> y, std::vector<int> nodes, double k) {
  return dense_matrix(make_mesh(x, y, {nodes}), static_cast<int>(nodes.size()), {0.0}, k, false);
}

TEST(ElementEquations, ExactValuesOrientationAndAssemblyAgainstDense) {
  const double square[2][3] = {{1800, -600, -600}, {2071, -479, -529}};  // diagonal, edge, opposite corners
  for (int k = 0; k <= 1; ++k) {
    const std::vector<double> a = elem({0, 1, 1, 0}, {0, 0, 1, 1}, {1, 2, 3, 4}, k);
    for (int t = 0; t < 16; ++t)
      EXPECT_NEAR(a[t], square[k][t % 5 == 0 ? 0 : (t / 4 + t % 4) % 2 ? 1 : 2] / 2400, 4 * eps) << k << " " << t;
  }
  const double plain[9] = {1, -0.5, -0.5, -0.5, 0.5, 0, -0.5, 0, 0.5}, first_row[2] = {8537.0 / 7884, -7235.0 / 15768};
  const std::vector<double> t0 = elem({0, 1, 0}, {0, 0, 1}, {1, 2, 3}, 0);
  const std::vector<double> t1 = elem({0, 1, 0}, {0, 0, 1}, {1, 2, 3}, 1);
  for (int t = 0; t < 9; ++t) EXPECT_NEAR(t0[t], plain[t], 8 * eps) << t;
  for (int t = 0; t < 3; ++t) EXPECT_NEAR(t1[t], first_row[(t + 1) / 2], 8 * eps) << t;

  // A skewed quadrilateral far from the origin, and the triangle of its first
  // three nodes: rows at k = 0 sum to zero; listed clockwise, the element
  // gives the negative matrix, mass term included.
  const std::vector<double> x = {1e3, 1e3 + 2.1, 1e3 + 1.7, 1e3 - 0.2}, y = {-40, -39.7, -38.1, -38.9};
  for (const std::vector<int>& fwd : {std::vector<int>{1, 2, 3}, std::vector<int>{1, 2, 3, 4}}) {
    for (double k : {0.0, 0.7}) {
      const std::vector<double> a = elem(x, y, fwd, k), b = elem(x, y, {fwd.rbegin(), fwd.rend()}, k);
      const double tol = 64 * eps * 1e3 * max_abs(a);  // coordinates of 1e3 m, cells of 1 m
      for (int t = 0; t < 16; ++t) {
        EXPECT_EQ(a[t], a[t % 4 * 4 + t / 4]);
        EXPECT_NEAR(b[t], -a[t], tol) << fwd.size() << " " << k << " " << t;
        EXPECT_NEAR(k == 0.0 && t % 4 == 3 ? a[t - 3] + a[t - 2] + a[t - 1] + a[t] : 0.0, 0.0, tol) << "row sum";
      }
    }
  }

  // Random meshes, a pin anywhere: each stored entry as in a dense assembly.
  std::mt19937 rng(31);
  for (int round = 0; round < 6; ++round) {
    const int p = 3 + round % 2;
    ConductanceMatrix cm;
    std::vector<double> lc;
    MeshModel mesh = problem(rng, p, 4 + round, 3 + round % 3, &cm, &lc);
    const int n = mesh.num_nodes;
    std::swap(mesh.pin_flags[0], mesh.pin_flags[(round * 7) % n]);
    for (double k : {0.0, 0.37}) {
      cm.matrix_values.assign(cm.num_entries, 123.0);  // stale values must go
      assemble_matrix(mesh, p, lc.data(), k, &cm);
      const std::vector<double> d = dense_matrix(mesh, p, lc, k, true);
      double stored = 0.0, upper = 0.0;
      for (int i = 0; i < n; ++i) {
        const double scale = max_abs({&d[i * n], &d[i * n] + n});
        for (int r = cm.matrix_row_start[i]; r < cm.matrix_row_start[i + 1]; ++r) {
          const int j = cm.matrix_columns[r - 1] - 1;
          EXPECT_NEAR(cm.matrix_values[r - 1], d[i * n + j], 4 * eps * scale) << i + 1 << " " << j + 1 << " " << k;
          stored += std::fabs(cm.matrix_values[r - 1]);
        }
        for (int j = i; j < n; ++j) upper += std::fabs(d[i * n + j]);
      }
      EXPECT_NEAR(stored, upper, 64 * eps * n * upper);  // nothing outside the pattern
    }
  }
}

// The pinned node of a triangle mesh, against the rule written out: node
// number of an electrode less a coordinate, truncated, used as a node number
// (a coordinate of 0 outside 1..N); the first node with the largest sum.
TEST(PinnedNode, DistanceLikeSumAndItsEdges) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> c(-8.0, 14.0);
  for (int round = 0; round < 20; ++round) {
    const int n = 12;
    MeshModel mesh{n, 0, {}, {}, {1}, {}, {}};
    for (int i = 0; i < 2 * n; ++i)  // every fifth round all zero: no sum above 0
      (i < n ? mesh.node_x : mesh.node_y).push_back(round % 5 ? c(rng) : 0.0);
    const ElectrodeTable t{3, {2 + round % 9, 5, 11}, {1, 2, 3}};
    auto coord = [&](const std::vector<double>& v, double q) {
      const double m = std::trunc(q);
      return m >= 1 && m <= n ? v[(int)m - 1] : 0.0;
    };
    int want = 1;
    double best = 0.0;
    for (int i = 1; i <= n; ++i) {
      double sum = 0.0;
      for (int e : t.electrode_nodes) {
        const double x = coord(mesh.node_x, e - mesh.node_x[i - 1]);
        const double y = coord(mesh.node_y, e - mesh.node_y[i - 1]);
        sum = sum + std::sqrt(x * x + y * y);
      }
      if (sum > best) best = sum, want = i;
    }
    choose_pinned_node(3, t, &mesh);
    for (int i = 1; i <= n; ++i) EXPECT_EQ(mesh.pin_flags[i - 1], i == want ? 1 : 0) << round;
    choose_pinned_node(4, t, &mesh);  // a grid pins node 1
    EXPECT_EQ(mesh.pin_flags[0], 1);
  }
}
