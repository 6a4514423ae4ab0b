// Forward solver: pattern, element equations, pinned node, wavenumber rules,
// primary potentials and PARDISO adapter, against literal and dense references.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "data/measurement_set.h"
#include "support/mesh_builders.h"
#include "forward/forward_kernels.h"
#include "run/run_context.h"
#include "mesh/mesh_model.h"
#include "textio/textio.h"

namespace {

const double eps = 0x1p-52;  // machine epsilon of double
using Vec = std::vector<double>;

// A stop (status 0) inside a test would pass unseen: fail it. The registry is made first, to outlive this.
const int stop_guard = (testing::UnitTest::GetInstance(), std::atexit([] {
  if (testing::UnitTest::GetInstance()->current_test_info() && !testing::internal::InDeathTestChild())
    _exit(1);
}));

// Prefix of this process's scratch files; the child of a death test inherits it.
const std::string scratch = "/tmp/q5_fwd_" + std::to_string(getpid()) + "_";

// Text of a scratch file, which is then removed.
std::string take_file(const std::string& name) {
  std::string text{std::istreambuf_iterator<char>(std::ifstream(scratch + name).rdbuf()), {}};
  unlink((scratch + name).c_str());
  return text;
}

double max_abs(const Vec& v) {
  return std::fabs(std::ranges::max(v, {}, [](double x) { return std::fabs(x); }));
}

using builders::Survey;

// Dense N by N matrix (row-major) of sum over elements of f(e) times the element matrix at k; with `pinned`
// the pinned diagonals times 1e10.
template <class F>
Vec dense_matrix(const builders::Survey& s, double k, F f, bool pinned) {
  const int n = s.mesh.num_nodes;
  Vec a(static_cast<std::size_t>(n) * n, 0.0);
  double ae[25];
  for (int e = 0; e < s.mesh.num_elements; ++e) {
    const int* nd = &s.mesh.element_nodes[4 * e];
    element_matrix(ae, s.mesh.node_x.data(), s.mesh.node_y.data(), nd, s.npe, k);
    for (int i = 0; i < s.npe; ++i)
      for (int j = 0; j < s.npe; ++j) a[(nd[i] - 1) * n + nd[j] - 1] += f(e) * ae[i + 5 * j];
  }
  for (int i = 0; pinned && i < n; ++i) a[i * n + i] *= s.mesh.pin_flags[i] ? 1e10 : 1.0;
  return a;
}

// Potential of the unit source at node `source` from the dense system: the total field, or the secondary
// field of -(A(s) - A(sigma_0)) v_p plus the primary v_p.
Vec dense_potential(const builders::Survey& s, double k, int source, double sigma_0, const Vec* vp) {
  const int n = s.mesh.num_nodes;
  const Vec a = dense_matrix(s, k, [&](int e) { return std::exp(s.lc[e]); }, true);
  const Vec d = dense_matrix(s, k, [&](int e) { return std::exp(s.lc[e]) - sigma_0; }, false);
  Vec rhs(n, 0.0);
  rhs[source - 1] = vp ? 0.0 : 1.0;
  for (int i = 0; vp && i < n; ++i)
    for (int j = 0; j < n; ++j) rhs[i] -= d[i * n + j] * (*vp)[j];
  Vec x = builders::dense_solve(a, rhs, n);
  for (int i = 0; vp && i < n; ++i) x[i] += (*vp)[i];
  return x;
}

// The pattern against its definition: each node scans all elements for its higher neighbours.
void expect_literal_pattern(const MeshModel& mesh, int p) {
  std::vector<int> row_start, columns;
  for (int i = 1; i <= mesh.num_nodes; ++i) {
    std::set<int> higher;
    for (int e = 0; e < mesh.num_elements; ++e) {
      const int* en = &mesh.element_nodes[4 * e];
      for (int s = 0; s < p && std::find(en, en + p, i) != en + p; ++s)
        if (en[s] > i) higher.insert(en[s]);
    }
    row_start.push_back(static_cast<int>(columns.size()) + 1);
    columns.push_back(i);
    columns.insert(columns.end(), higher.begin(), higher.end());
  }
  row_start.push_back(static_cast<int>(columns.size()) + 1);
  MatrixPattern pattern;
  ForwardWork work;
  testing::internal::CaptureStdout();  // the passes' progress lines
  build_matrix_pattern(mesh, p, &pattern, &work);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(pattern.num_entries, row_start.back() - 1);
  EXPECT_EQ(pattern.matrix_row_start, row_start);
  EXPECT_EQ(pattern.matrix_columns, columns);
  EXPECT_EQ(work.matrix_values.size(), columns.size());
}

}  // namespace

TEST(MatrixPattern, LiteralScanAndTheLimitOfAHundredHigherNeighbours) {
  for (int p : {3, 4}) {
    builders::Survey s;
    builders::make_survey(&s, p, 5u);
    expect_literal_pattern(s.mesh, p);
  }
  expect_literal_pattern(builders::fan(101, true), 3);  // the limit counts higher neighbours only
  // Both passes in a child whose console goes to the stderr the death test compares; exits 3 if they return.
  GTEST_FLAG_SET(death_test_style, "fast");
  auto passes = [](int rim) {
    fflush(stdout);
    dup2(2, 1);
    tio_open(CH_LOG, (scratch + "Q5.out").c_str());
    MatrixPattern pattern;
    ForwardWork work;
    build_matrix_pattern(builders::fan(rim, false), 3, &pattern, &work);
    std::exit(3);
  };
  const std::string count = " >> Determining storage needed for finite element conductance matrix\n";
  EXPECT_EXIT(passes(100), testing::ExitedWithCode(3),
              testing::Eq(count + " >> Generating index array for finite element conductance matrix\n"));
  EXPECT_EQ(take_file("Q5.out"), "");
  // The message on the log only, the stop word on the console.
  EXPECT_EXIT(passes(101), testing::ExitedWithCode(0), testing::Eq(count + "FATAL error\n"));
  EXPECT_EQ(take_file("Q5.out"), " FATAL:  Too many connected nodes -  reduce size of mesh or contact "
                                 "q5-maintainers@q5-resistivity.org\n");
}

TEST(ElementEquations, ExactValuesAndOrientation) {
  auto elem = [](Vec x, Vec y, double k) {  // corners in this order
    const int nodes[4] = {1, 2, 3, 4};
    double ae[25];
    element_matrix(ae, x.data(), y.data(), nodes, static_cast<int>(x.size()), k);
    return Vec(ae, ae + 25);
  };
  // Unit square in 2400ths (diagonal, along an edge, opposite corners); right triangle, first row at k = 1.
  const double square[2][3] = {{1800, -600, -600}, {2071, -479, -529}};
  const double triangle[2][9] = {{1, -0.5, -0.5, -0.5, 0.5, 0, -0.5, 0, 0.5},
                                 {8537.0 / 7884, -7235.0 / 15768, -7235.0 / 15768}};
  for (int k = 0; k <= 1; ++k) {
    const Vec a = elem({0, 1, 1, 0}, {0, 0, 1, 1}, k), b = elem({0, 1, 0}, {0, 0, 1}, k);
    for (int t = 0; t < 16; ++t)  // t % 5 == 0 on the diagonal
      EXPECT_NEAR(a[t / 4 + 5 * (t % 4)], square[k][t % 5 ? 2 - (t / 4 + t % 4) % 2 : 0] / 2400, 4 * eps);
    for (int t = 0; t < (k == 0 ? 9 : 3); ++t) EXPECT_NEAR(b[t / 3 + 5 * (t % 3)], triangle[k][t], 8 * eps);
  }
  // A skewed quadrilateral far from the origin listed clockwise: the negative matrix, mass term included.
  const Vec x = {1e3, 1e3 + 2.1, 1e3 + 1.7, 1e3 - 0.2}, y = {-40, -39.7, -38.1, -38.9};
  for (double k : {0.0, 0.7}) {
    const Vec a = elem(x, y, k), b = elem({x.rbegin(), x.rend()}, {y.rbegin(), y.rend()}, k);
    const double tol = 64 * eps * 1e3 * max_abs(a);  // coordinates of 1e3 m, cells of 1 m
    for (int t = 0; t < 16; ++t)
      EXPECT_NEAR(b[3 - t / 4 + 5 * (3 - t % 4)], -a[t / 4 + 5 * (t % 4)], tol) << k << " " << t;
  }
}

// The pinned node of a triangle mesh against the rule written out: node number of an electrode less a
// coordinate, truncated, used as a node number (coordinate 0 outside 1..N); the first largest sum wins.
TEST(PinnedNode, DistanceLikeSumAndItsEdges) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> c(-8.0, 14.0);
  const int n = 12;
  for (int round = 0; round < 20; ++round) {
    MeshModel m{n, 0, {}, {}, {1}, {}, {}};
    for (int i = 0; i < 2 * n; ++i)  // every fifth round all zero: no sum above 0
      (i < n ? m.node_x : m.node_y).push_back(round % 5 ? c(rng) : 0.0);
    const ElectrodeTable t{3, {2 + round % 9, 5, 11}, {1, 2, 3}};
    Vec sum(n + 1, 0.0);  // sum[0]: the start value 0, which stands for node 1
    for (int i = 1; i <= n; ++i)
      for (int e : t.electrode_nodes) {
        const int p = std::trunc(e - m.node_x[i - 1]), q = std::trunc(e - m.node_y[i - 1]);
        const double x = p >= 1 && p <= n ? m.node_x[p - 1] : 0.0;
        const double y = q >= 1 && q <= n ? m.node_y[q - 1] : 0.0;
        sum[i] = sum[i] + std::sqrt(x * x + y * y);
      }
    const int want = std::max(1, static_cast<int>(std::ranges::max_element(sum) - sum.begin()));
    choose_pinned_node(3, t, &m);
    for (int i = 1; i <= n; ++i) EXPECT_EQ(m.pin_flags[i - 1], i == want ? 1 : 0) << round;
    choose_pinned_node(4, t, &m);  // a grid pins node 1
    EXPECT_EQ(m.pin_flags[0], 1);
  }
}

TEST(Quadrature, RulesCountAndPointSourceTransform) {
  const double lag[8] = {0.3225476896193923, 1.7457611011583465, 4.536620296921128, 9.395070912301133,
                         0.6031541043416339, 0.3574186924378018, 0.0388879085150054, 0.0005392947055613273};
  double x[20], w[20];
  laguerre_nodes(x, x + 4, 4, 0.0);  // abscissae, then weights
  for (int i = 0; i < 8; ++i) EXPECT_NEAR(x[i], lag[i], 8 * eps * lag[i]) << i;
  // Legendre rules of every size in use integrate x^p, p < 2n, on (0, 1) to a few times Newton's 3e-14.
  for (int n = 1; n <= 16; ++n) {
    legendre_nodes(0.0, 1.0, x, w, n);
    for (int p = 0; p < 2 * n; ++p) {
      double sum = 0.0;
      for (int i = 0; i < n; ++i) sum += w[i] * std::pow(x[i], p);
      EXPECT_NEAR(sum * (p + 1), 1.0, 1e-13) << "n " << n << " power " << p;
    }
  }
  auto rule = [&](double lo, double hi) {  // W; the table goes to wavenumbers x and weights w
    int count = 0;
    wavenumber_rule(20, lo, hi, x, w, &count);
    return count;
  };
  EXPECT_EQ(rule(1.0, 1.0), 6);
  EXPECT_EQ(rule(2.5, 25.0), 10);
  EXPECT_NEAR(x[6], 0.5 / 2.5 * (1 + lag[0]), 4 * eps);  // the first Laguerre point, k0 (1 + y)
  EXPECT_EQ(rule(1.0, 1e6), 20);
  EXPECT_EQ(rule(1.0, std::pow(10.0, (6.0 - 1e-8) / 6.0)), 10);  // g = 6 - 1e-8: 6 through single precision
  EXPECT_EQ(rule(1.0, std::pow(10.0, (6.0 - 2e-6) / 6.0)), 9);   // g = 6 - 2e-6: 5
  // (1/pi) integral_0^inf K0(k r) dk = 1/(2 r), within 0.5 percent over the spacings.
  for (const auto& [lo, hi] : {std::pair{1.0, 5.0}, {0.5, 48.0}, {1.0, 1000.0}, {0.1, 1e5}}) {
    for (int s = 0, n = rule(lo, hi); s <= 40; ++s) {
      const double r = lo * std::pow(std::min(hi / lo, 1000.0), s / 40.0);
      double sum = 0.0;
      for (int j = 0; j < n; ++j) sum += w[j] * std::cyl_bessel_k(0.0, x[j] * r);
      EXPECT_NEAR(sum * 2.0 * r, 1.0, 0.005) << lo << " " << hi << " r " << r;
    }
  }
}

// Smallest and largest current-to-potential distance: P+ 3, P- 4, C+ 1, C- 2
// give a-m 3, a-n sqrt(65), b-m 2.5, b-n sqrt(58.25); a-b and m-n do not count.
TEST(Quadrature, MeasurementSpacingTakesOnlyCurrentToPotentialPairs) {
  const MeshModel mesh{5, 0, {0, 0.5, 3, 7, 20}, {0, 0, 0, 4, 0}, {1}, {}, {}};
  const MeasurementSet ms{2, 1, {}, {3}, {4}, {1}, {2}, {}, {}, {}};
  double lo = 0, hi = 0;
  measurement_spacing(mesh, ElectrodeTable{5, {1, 2, 3, 4, 5}, {1, 2, 3, 4, 5}}, ms, &lo, &hi);
  EXPECT_EQ(lo, 2.5);
  EXPECT_EQ(hi, std::sqrt(65.0));
}

TEST(PrimaryPotential, BesselReferenceConductivityAndHalfSpace) {
  // Bounds of the handbook's 9.8.1, 9.8.2, 9.8.5 (plus I0's error times ln(x / 2)), 9.8.6; I0 takes |x|.
  for (double x = 1e-4; x < 600.0; x *= 1.01) {
    const double k0 = std::cyl_bessel_k(0.0, x), i0 = std::cyl_bessel_i(0.0, x);
    const double k0_err = std::fabs(bessel_k0(x) - k0), i0_err = std::fabs(bessel_i0(-x) - i0);
    if (x <= 2.0) EXPECT_LE(k0_err, 1e-8 + std::fabs(std::log(x / 2)) * i0_err + 4 * eps * k0) << x;
    else EXPECT_LE(k0_err * std::exp(x) * std::sqrt(x), 1.9e-7) << x;
    EXPECT_LE(i0_err * (x < 3.75 ? 1.0 : std::exp(-x) * std::sqrt(x)), x < 3.75 ? 1.6e-7 : 1.9e-7) << x;
  }
  // x = 2.0 takes the small-argument branch: no step from just below it (the other side is 7e-8 off).
  EXPECT_NEAR(bessel_k0(2.0), bessel_k0(std::nextafter(2.0, 0.0)), 4 * eps * bessel_k0(2.0));
  // Source and image in y = 0 for k = 0 and k > 0; 4 pi and 2 pi in single precision, 2.8e-8 high.
  const MeshModel mesh{6, 0, {0.0, 1.0, 2.0, -3.0, 0.5, 0.0}, {0.0, 0.0, 1.5, 4.0, -0.25, 2.0}, {1}, {}, {}};
  Vec v(6);
  for (int s : {0, 2, 5})
    for (double k : {0.0, 1e-4, 0.3, 2.0, 45.0}) {
      fill_primary_potential(mesh, s + 1, k, 0.037, v.data());
      for (int i = 0; i < 6; ++i) {
        const double dx = mesh.node_x[i] - mesh.node_x[s], dy = mesh.node_y[i] - mesh.node_y[s];
        const double r = std::hypot(dx, dy), ri = std::hypot(dx, mesh.node_y[i] + mesh.node_y[s]);
        const double exact = k == 0.0 ? (1 / r + 1 / ri) / (12.566370964050293 * 0.037)
                                      : (std::cyl_bessel_k(0.0, k * r) + std::cyl_bessel_k(0.0, k * ri)) /
                                            (6.2831854820251465 * 0.037);
        EXPECT_NEAR(v[i], i == s ? 0.0 : exact, i == s ? 0.0 : (k == 0.0 ? 8 * eps : 2e-7) * exact) << i << k;
      }
    }
  // Reference conductivity, areas 2 and 6: equal, or within 1e-6 S/m of the mean, take 0.95 as a float.
  const MeshModel tri{4, 2, {0, 2, 2, -4}, {0, 0, 2, 2}, {1, 2, 3, 7, 1, 3, 4, 7, 1}, {}, {}};
  const double cases[3][2] = {{0.01, 0.01}, {1e-7, 5e-8}, {0.01, 0.04}};
  for (int c = 0; c < 3; ++c) {
    const double lc[2] = {std::log(cases[c][0]), std::log(cases[c][1])};
    const double m = std::exp(0.25 * lc[0] + 0.75 * lc[1]);
    EXPECT_NEAR(reference_conductivity(tri, 3, lc), m * (c < 2 ? 0.949999988079071 : 1.0), 8 * eps * m) << c;
  }
  // Two quadrilaterals 1e10 m apart: each weight is T over (1 2 5), (2 3 5), (3 4 5), (4 1 5), 5 the entry
  // behind its fourth slot (node 1 behind the list); cancellation sets these off the areas by 1e-6.
  const double fx = 1.2345678901e10, fy = 0.7654321e10, lc[2] = {std::log(0.1), std::log(0.002)};
  const Vec x = {0, 0.1, 1.13, 1.21, 0.07, fx, fx + 2.03, fx + 1.98, fx - 0.01};  // 1-based
  const Vec y = {0, 0.3, 0.37, 1.29, 1.41, fy + 3.7, fy + 3.71, fy + 5.69, fy + 5.73};
  const MeshModel quad{8, 2, {x.begin() + 1, x.end()}, {y.begin() + 1, y.end()}, {1, 2, 3, 4, 5, 6, 7, 8, 1},
                       {}, {}};
  auto T = [&](int i, int j, int k) {
    return ((x[j] - x[i]) * (y[k] - y[i]) - (y[i] - y[j]) * (x[i] - x[k])) * 2.0;
  };
  const double w[2] = {T(1, 2, 5) + T(2, 3, 5) + T(3, 4, 5) + T(4, 1, 5),
                       T(5, 6, 1) + T(6, 7, 1) + T(7, 8, 1) + T(8, 5, 1)};
  const double mean = std::exp((w[0] * lc[0] + w[1] * lc[1]) / (w[0] + w[1]));
  EXPECT_NEAR(reference_conductivity(quad, 4, lc), mean, 4 * eps * mean);
}

TEST(PardisoAdapter, ErrorWordsAndAFailingReordering) {
  tio_open(CH_LOG, (scratch + "Q5.out").c_str());
  const std::string head = " Error in Pardiso call:  error flag = ";
  const std::string words =
      head + "        -2\n Not enough memory for Pardiso call\n" + head +
      "        -9\n Not enough out of core memory for Pardiso call - Increase out of core memory available "
      "by typing SET MKL_PARDISO_OOC_MAX_CORE_SIZE = N\n  at the command line, where N is memory available "
      "in Mb (default is 2000Mb)\n" + head +
      "       -10\n Problems opening Pardiso out of core memory files - check disk space\n" + head +
      "       -11\n Read/write problems with Pardiso out of core memory files - check disk area for "
      "conflicts\n";
  // No nodes: refused at reordering (-1); stage record and code on the log only; the loop stops, sums 0.
  const std::string report =
      head + "        -1\n Error in Pardiso call -report error flag to q5-maintainers@q5-resistivity.org\n";
  const MeshModel mesh{0, 0, {}, {}, {1}, {}, {}};
  const MatrixPattern pattern{0, {1}, {0}, {}};
  const ElectrodeTable table{2, {1, 1}, {1, 2}};
  ForwardTeam team{std::vector<ForwardWork>(1)};
  team.work[0].matrix_values = {0.0};
  team.work[0].matrix_permutation = {0};
  allocate_forward_vectors(1, 2, &team.work[0]);
  const double ks[2] = {0.1, 0.2};
  double tr = 5.0;
  testing::internal::CaptureStdout();
  for (int code : {-2, -9, -10, -11}) pardiso_report(code);
  const int failed = forward_solve({&mesh, 3, &pattern, &table}, MeasurementSet{1, 1, {}, {1}, {2}, {1}, {2}, {}, {}, {}},
                                   nullptr, {ks, ks, 2, 3.0, false, 0.0}, &team, &tr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), words + report);
  EXPECT_EQ(failed, -1);
  EXPECT_EQ(tr, 0.0);
  tio_close(CH_LOG);
  EXPECT_EQ(take_file("Q5.out"),
            words + " Reordering completed\n The following error was detected         -1\n" + report);
}

// Transfer resistances of two-dimensional flow and of a two-term sum, without and with singularity removal:
// the dense potentials of the current pair by superposition, weighted and summed over the terms. The
// element store follows k from term to term and run to run, each right-hand side is cleared before it is
// built, and the factors of the first electrode serve the others.
TEST(ForwardLoop, TransferResistancesMatchTheDenseSuperposition) {
  tio_open(CH_LOG, (scratch + "Q5.out").c_str());
  const double ks[2] = {0.3, 1.1}, ws[2] = {0.7, 0.2};
  for (int p = 3; p <= 4; ++p) {
    builders::Survey s;
    builders::make_survey(&s, p, 40 + p);
    s.mesh.pin_flags[s.mesh.num_nodes / 2] = 1;  // a second pinned node
    const MeasurementSet& ms = s.ms;
    const int n = s.mesh.num_nodes;
    for (int mode = 0; mode < 3; ++mode) {
      const Quadrature q{ks, ws, mode == 0 ? 1 : 2, mode == 0 ? 2.0 : 3.0, mode == 2, -1.0};
      Vec tr(8, -1.0), ref(8, 0.0);
      ASSERT_EQ(forward_solve(s.fm(), ms, s.lc.data(), q, &s.team, tr.data()), 0);
      const double sigma_0 = mode == 2 ? reference_conductivity(s.mesh, p, s.lc.data()) : 0.0;
      double size = 0.0;
      for (int j = 0; j < q.num_wavenumbers; ++j) {
        const double k = mode == 0 ? 0.0 : ks[j], w = mode == 0 ? 1.0 : ws[j];
        std::vector<Vec> v;
        for (int e : s.table.electrode_nodes) {
          Vec vp(n);
          fill_primary_potential(s.mesh, e, k, sigma_0, vp.data());
          v.push_back(dense_potential(s, k, e, sigma_0, mode == 2 ? &vp : nullptr));
          size = std::max(size, w * max_abs(v.back()));
        }
        for (int i = 0; i < 8; ++i) {
          const Vec &a = v[ms.elec_a[i] - 1], &b = v[ms.elec_b[i] - 1];
          const int m = s.table.electrode_nodes[ms.elec_m[i] - 1] - 1, o = s.table.electrode_nodes[ms.elec_n[i] - 1] - 1;
          ref[i] += w * ((a[m] - b[m]) - (a[o] - b[o]));
        }
      }
      for (int i = 0; i < 8; ++i) EXPECT_NEAR(tr[i], ref[i], 1e-10 * size) << "p " << p << " mode " << mode;
    }
  }
  tio_close(CH_LOG);
  EXPECT_EQ(take_file("Q5.out"), "");  // no stage record on success
}

// The terms shared out among 2 to 5 threads (more threads than terms too)
// and added in wavenumber order: every transfer resistance is the double of
// one thread, for two-dimensional flow, a point-source rule of many terms
// and the singularity removal.
TEST(ForwardLoop, SameDoublesOnAnyNumberOfThreads) {
  double ks[MAX_WAVENUMBERS], ws[MAX_WAVENUMBERS];
  int W = 0;
  wavenumber_rule(MAX_WAVENUMBERS, 1.0, 5.0, ks, ws, &W);
  ASSERT_GE(W, 6);
  for (int p = 3; p <= 4; ++p) {
    builders::Survey s;
    builders::make_survey(&s, p, 50 + p);
    for (int mode = 0; mode < 3; ++mode) {
      const Quadrature q{ks, ws, mode == 0 ? 1 : W, mode == 0 ? 2.0 : 3.0, mode == 2, -1.0};
      builders::use_threads(&s, 1);
      Vec one(8, -1.0);
      ASSERT_EQ(forward_solve(s.fm(), s.ms, s.lc.data(), q, &s.team, one.data()), 0);
      ASSERT_NE(one[0], 0.0);
      for (int T : {2, 3, 5}) {
        builders::use_threads(&s, T);
        Vec many(8, -2.0);
        ASSERT_EQ(forward_solve(s.fm(), s.ms, s.lc.data(), q, &s.team, many.data()), 0);
        for (int i = 0; i < 8; ++i)
          EXPECT_EQ(std::bit_cast<std::uint64_t>(many[i]), std::bit_cast<std::uint64_t>(one[i]))
              << "p " << p << " mode " << mode << " T " << T << " reading " << i;
      }
    }
  }
  set_thread_count(1);
}
