// PARDISO adapter and forward loop: potentials against a dense solve, the
// error words and a real failing call, the element store's bit identity.
#include "core_test_util.h"

TEST(PardisoAdapter, PotentialsMatchDenseSolve) {
  ScratchDir dir;
  tio_open(CH_LOG, "Q5.out");
  std::mt19937 rng(4242);
  const double sigma_0 = 0.07;
  for (int p = 3; p <= 4; ++p) {
    ConductanceMatrix cm;
    std::vector<double> lc, rhs(8 * 6), vp(8 * 6), result(8 * 6);
    const MeshModel mesh = problem(rng, p, 8, 6, &cm, &lc);
    const int n = mesh.num_nodes, sources[3] = {n / 2, 3, n};
    for (double k : {0.0, 0.45}) {
      const std::vector<double> a = dense_matrix(mesh, p, lc, k, true), a_free = dense_matrix(mesh, p, lc, k, false);
      const std::vector<double> a0 = dense_matrix(mesh, p, std::vector<double>(lc.size(), std::log(sigma_0)), k, 0);
      for (int singular = 0; singular <= 1; ++singular) {
        for (int c = 0; c < 3; ++c) {
          const int s = sources[c];
          for (int i = 0; i < n; ++i)  // a smooth stand-in for the primary potential
            vp[i] = i == s - 1 ? 0 : 1 / std::hypot(mesh.node_x[i] - mesh.node_x[s - 1],
                                                    mesh.node_y[i] - mesh.node_y[s - 1], 0.5);
          std::vector<double> b(n, 0.0);  // e_s, or -(A(s) - A(sigma_0)) v_p
          b[s - 1] = 1.0 - singular;
          for (int t = 0; t < n * n && singular; ++t) b[t / n] -= (a_free[t] - a0[t]) * vp[t % n];
          std::vector<double> ref = dense_solve(a, b);
          for (int i = 0; i < n; ++i) ref[i] += singular * vp[i];
          std::fill(rhs.begin(), rhs.end(), 1e30);  // cleared by every call, on reuse too
          int error = 99;
          solve_wavenumber(mesh, p, lc.data(), &cm, rhs.data(), vp.data(), result.data(), s, k, sigma_0,
                           singular == 1, c > 0, c == 2, &error);
          ASSERT_EQ(error, 0);
          // Backward-stable solves agree to eps times the scaled condition, nodes times contrast.
          const double tol = 64 * eps * n * 20 * std::max(max_abs(ref), max_abs(vp));
          for (int i = 0; i < n; ++i) EXPECT_NEAR(result[i], ref[i], tol) << p << " " << k << " " << singular;
        }
      }
    }
  }
  tio_close(CH_LOG);
  EXPECT_EQ(read_file("Q5.out"), "");  // no stage record on success
}

TEST(PardisoAdapter, ErrorWordsAndAFailingReordering) {
  ScratchDir dir;
  tio_open(CH_LOG, "Q5.out");
  const std::string head = " Error in Pardiso call:  error flag = ", mail = "q5-maintainers@q5-resistivity.org\n";
  const std::pair<int, std::string> words[] = {
      {-2, "        -2\n Not enough memory for Pardiso call\n"},
      {-9, "        -9\n Not enough out of core memory for Pardiso call - Increase out of core memory available by "
           "typing SET MKL_PARDISO_OOC_MAX_CORE_SIZE = N\n  at the command line, where N is memory available in Mb "
           "(default is 2000Mb)\n"},
      {-10, "       -10\n Problems opening Pardiso out of core memory files - check disk space\n"},
      {-11, "       -11\n Read/write problems with Pardiso out of core memory files - check disk area for "
            "conflicts\n"}};
  std::string log;
  for (const auto& [code, text] : words) {
    testing::internal::CaptureStdout();
    pardiso_report(code);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), head + text);
    log += head + text;
  }
  // No nodes: refused at the reordering (-1, any other code); stage record and
  // code on the log only, the report on both; the loop stops, its sums at 0.
  ConductanceMatrix cm{0, {1}, {0}, {0.0}, {0}, {}, {}, NAN};
  ForwardWork work{{0.0}, {0.0}, {0.0, 0.0}};
  double ks[2] = {0.1, 0.2}, tr = 5.0;
  int failed = 0;
  testing::internal::CaptureStdout();
  forward_solve(make_mesh({}, {}, {}), 3, &cm, ElectrodeTable{2, {1, 1}, {1, 2}},
                MeasurementSet{1, 1, {}, {1}, {2}, {1}, {2}, {}, {}, {}}, nullptr, ks, ks, 2, 3.0, false, &work, &tr,
                &failed);
  const std::string report = head + "        -1\n Error in Pardiso call -report error flag to " + mail;
  EXPECT_EQ(testing::internal::GetCapturedStdout(), report);
  EXPECT_EQ(failed, -1);
  EXPECT_EQ(tr, 0.0);
  tio_close(CH_LOG);
  EXPECT_EQ(read_file("Q5.out"),
            log + " Reordering completed\n The following error was detected         -1\n" + report);
}

// The element store and position map against the literal rule written here:
// element_matrix for every element and a search of row gi for column gj, the
// same additions in the same order, so the same bits.
TEST(ForwardLoop, ElementStoreIsBitIdenticalAndSumsAreTheBrackets) {
  std::mt19937 rng(123);
  const ElectrodeTable table{5, {1, 14, 27, 40, 53}, {1, 2, 3, 4, 5}};
  const MeasurementSet ms{4, 4, {}, {3, 1, 4, 1}, {4, 2, 1, 2}, {1, 3, 2, 1}, {2, 4, 5, 5}, {}, {}, {}};
  const double nan = NAN;
  for (int p = 3; p <= 4; ++p) {
    ConductanceMatrix cm;
    std::vector<double> lc, t1(4);
    MeshModel mesh = problem(rng, p, 12, 7, &cm, &lc);
    const int n = mesh.num_nodes;
    mesh.pin_flags[n / 2] = 1;
    const int* rs = cm.matrix_row_start.data();
    for (double k : {0.8, 0.05, 0.8}) {  // the store follows k, then is reused
      std::vector<double> values(cm.num_entries, 0.0), rhs(n, 0.0), vp(n), x(n);
      double ae[25];
      for (int i = 0; i < n; ++i) vp[i] = std::sin(0.37 * i);
      for (int e = 0; e < mesh.num_elements; ++e) {
        const int* nd = &mesh.element_nodes[4 * e];
        const double s = std::exp(lc[e]);
        element_matrix(ae, mesh.node_x.data(), mesh.node_y.data(), nd, p, k);
        for (int i = 0; i < p; ++i) {
          double sum = 0.0;
          for (int j = 0; j < p; ++j) {
            sum += ae[i + 5 * j] * (s - 0.02) * vp[nd[j] - 1];
            if (i == j) values[rs[nd[i] - 1] - 1] += s * ae[i + 5 * j];
            for (int r = rs[nd[i] - 1] + 1; nd[i] < nd[j] && r < rs[nd[i]]; ++r)
              if (cm.matrix_columns[r - 1] == nd[j]) values[r - 1] += s * ae[i + 5 * j];
          }
          rhs[nd[i] - 1] -= sum;
        }
      }
      for (int i = 0; i < n; ++i)
        if (mesh.pin_flags[i] == 1) values[rs[i] - 1] *= 10000000000.0;
      ForwardWork w{std::vector<double>(n), vp, {}};
      int error = 1;
      solve_wavenumber(mesh, p, lc.data(), &cm, w.right_hand_side.data(), vp.data(), x.data(), 1, k,
                       0.02, true, false, true, &error);
      ASSERT_EQ(error, 0);
      EXPECT_EQ(cm.matrix_values, values) << "p " << p << " k " << k;
      EXPECT_EQ(w.right_hand_side, rhs) << "p " << p << " k " << k;
    }
    ForwardWork w1{std::vector<double>(n), std::vector<double>(n), std::vector<double>(5 * n)};
    int f1 = 1;
    // Flux 2.0: k = 0 and w = 1 whatever the table holds; each sum is the bracket of the columns, in its order.
    forward_solve(mesh, p, &cm, table, ms, lc.data(), &nan, &nan, 1, 2.0, false, &w1, t1.data(), &f1);
    for (int i = 0; i < 4; ++i) {
      const double *va = &w1.potentials[(ms.elec_a[i] - 1) * n], *vb = &w1.potentials[(ms.elec_b[i] - 1) * n];
      const int pm = table.electrode_nodes[ms.elec_m[i] - 1] - 1, pn = table.electrode_nodes[ms.elec_n[i] - 1] - 1;
      EXPECT_EQ(t1[i], ((va[pm] - vb[pm]) - va[pn]) + vb[pn]) << i;
    }
  }
}
