// Tests of the inner solver, the sensitivity map and the resolution map:
// against dense solves of the same equations and plain column sums, at the
// edges of the step limit, and against the fingerprints of their results.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/mesh_builders.h"
#include "inversion/inversion.h"
#include "inversion/solver_kernels.h"
#include "run/threads.h"

namespace {

const double eps = 0x1p-52;
using Vec = std::vector<double>;

struct Problem {
  int n, P;
  Vec J, W, e, m, m0, c;  // J column-contiguous
  RegularisationMatrix C;
  double J_at(int i, int j) const { return J[static_cast<std::size_t>(j) * n + i]; }
  void zero_column(int j) { std::fill_n(J.begin() + static_cast<std::size_t>(j) * n, n, 0.0); }
  float& val(int i, int k) { return C.values[static_cast<std::size_t>(k - 1) * P + i]; }
  int& idx(int i, int k) { return C.index[static_cast<std::size_t>(k - 1) * P + i]; }
  NormalEquations equations(double alpha, double jw, int reg_mode) const {
    return {J.data(), W.data(), e.data(), m.data(), m0.data(), c.data(), &C, alpha, jw,
            reg_mode == 2, reg_mode == 1, n, P};
  }
};

// Random data of n measurements and P parameters; C of width L holds
// symmetric couplings (a graph Laplacian plus 0.5 on the diagonal) in random
// slots, with empty slots between filled ones.
Problem make_problem(int n, int P, int L, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const std::size_t PL = static_cast<std::size_t>(P) * L;
  Problem pb{n, P, Vec(static_cast<std::size_t>(n) * P), Vec(n), Vec(n), Vec(P), Vec(P), Vec(P, 1.0),
             {P, L, std::vector<float>(PL, 0.0f), std::vector<int>(PL, 0)}};
  for (double& x : pb.J) x = u(rng);
  for (int i = 0; i < n; ++i) pb.W[i] = 1.5 + u(rng), pb.e[i] = u(rng);
  for (int j = 0; j < P; ++j) pb.m[j] = u(rng), pb.m0[j] = u(rng), pb.val(j, 1) = 0.5f, pb.idx(j, 1) = j + 1;
  std::uniform_int_distribution<int> any(0, P - 1), slot(2, L);
  for (int pair = 0; pair < 2 * P; ++pair) {
    int a = any(rng), b = any(rng), ka = slot(rng), kb = slot(rng);
    bool taken = a == b || pb.idx(a, ka) != 0 || pb.idx(b, kb) != 0;
    for (int k = 2; k <= L; ++k) taken = taken || pb.idx(a, k) == b + 1;
    if (taken) continue;
    const float w = static_cast<float>(0.75 + 0.25 * u(rng));
    pb.val(a, 1) += w;
    pb.val(b, 1) += w;
    pb.val(a, ka) = pb.val(b, kb) = -w;
    pb.idx(a, ka) = b + 1;
    pb.idx(b, kb) = a + 1;
  }
  return pb;
}

// C = I, and W J made of rows 0..n-2 of the Sylvester Hadamard matrix, row a
// times a + 1, then a zero row. Every column has the same weighted norm, so
// D is uniform and the scaled operator has n well separated eigenvalues: the
// CG reaches rounding level in n steps and must agree with a dense solve to
// rounding.
Problem hadamard_problem(int n, int P, unsigned seed) {
  Problem pb = make_problem(n, P, 5, seed);
  std::fill(pb.C.values.begin(), pb.C.values.end(), 0.0f);
  std::fill(pb.C.index.begin() + P, pb.C.index.end(), 0);
  for (int j = 0; j < P; ++j) {
    pb.val(j, 1) = 1.0f;
    for (int a = 0; a < n; ++a) {
      const double h = std::popcount(static_cast<unsigned>(a & j)) % 2 ? -1.0 : 1.0;
      pb.J[static_cast<std::size_t>(j) * n + a] = a + 1 < n ? (a + 1) * h / pb.W[a] : 0.0;
    }
  }
  pb.e[n - 1] = 0.0;
  return pb;
}

// G = J^T W^2 J and R = alpha diag(c) C + jw I, row-major P by P.
void dense_parts(Problem& pb, double alpha, double jw, Vec* G, Vec* R) {
  const int P = pb.P;
  G->assign(static_cast<std::size_t>(P) * P, 0.0);
  R->assign(static_cast<std::size_t>(P) * P, 0.0);
  for (int a = 0; a < P; ++a) {
    for (int b = 0; b < P; ++b)
      for (int i = 0; i < pb.n; ++i) (*G)[a * P + b] += pb.J_at(i, a) * pb.W[i] * pb.W[i] * pb.J_at(i, b);
    for (int k = 1; k <= pb.C.width; ++k)
      if (pb.idx(a, k)) (*R)[a * P + pb.idx(a, k) - 1] += alpha * pb.c[a] * pb.val(a, k);
    (*R)[a * P + a] += jw;
  }
}

// Right-hand side of the dense normal equations: J^T W^2 e - R d, with d the
// model (reg_mode 0) or its change from m0.
Vec dense_rhs(Problem& pb, const Vec& R, bool from_m0) {
  Vec b(pb.P, 0.0);
  for (int a = 0; a < pb.P; ++a) {
    for (int i = 0; i < pb.n; ++i) b[a] += pb.J_at(i, a) * pb.W[i] * pb.W[i] * pb.e[i];
    for (int j = 0; j < pb.P; ++j) b[a] -= R[a * pb.P + j] * (from_m0 ? pb.m[j] - pb.m0[j] : pb.m[j]);
  }
  return b;
}

// dm (or the map), the result (or the worst ratio) and the flag (or the
// failures) of one inner solve (or resolution map), on fresh work.
struct Solved {
  Vec x;
  double result;
  int flag;
};

Solved run(const Problem& pb, double alpha, double jw, int reg_mode, bool resolution = false) {
  SolverWork w;
  allocate_solver_work(pb.P, pb.n, &w);
  Solved s{Vec(pb.P, -1.0), -1.0, -1};
  if (resolution)
    resolution_map(pb.equations(alpha, jw, reg_mode), &w, s.x.data(), &s.flag, &s.result);
  else
    inner_solve(pb.equations(alpha, jw, reg_mode), &w, s.x.data(), &s.result, &s.flag);
  return s;
}

// FNV-1a over the bits of v: a result fixed to the rounding has one fingerprint.
std::uint64_t fingerprint(const Vec& v) {
  std::uint64_t h = 14695981039346656037ull;
  for (double x : v) {
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(x);
    for (int b = 0; b < 64; b += 8) h = (h ^ ((bits >> b) & 0xff)) * 1099511628211ull;
  }
  return h;
}

}  // namespace

// In every regularisation mode, with a general C (gaps between its slots)
// and uneven parameter scales, the update satisfies the dense normal
// equations to the solver's tolerance in the Jacobi-scaled norm, which is
// the norm its residual is measured in.
TEST(InnerSolver, SolvesTheDenseNormalEquationsToItsTolerance) {
  const int n = 200, P = 40;
  for (int mode = 0; mode < 3; ++mode) {
    Problem pb = make_problem(n, P, 13, 7 + mode);
    for (int j = 0; j < P; ++j) pb.c[j] = 0.75 + 0.5 * (j % 3);
    const double jw = mode == 1 ? 0.3 : 0.0;
    const Solved s = run(pb, 0.8, jw, mode);
    ASSERT_EQ(s.flag, 0);
    Vec G, R;
    dense_parts(pb, 0.8, jw, &G, &R);
    const Vec b = dense_rhs(pb, R, mode != 0);
    double r2 = 0.0, b2 = 0.0;
    for (int a = 0; a < P; ++a) {
      double res = b[a];
      for (int j = 0; j < P; ++j) res -= (G[a * P + j] + R[a * P + j]) * s.x[j];
      const double diagonal = G[a * P + a] + R[a * P + a];  // the scaling is 1 / sqrt of it
      r2 += res * res / diagonal;
      b2 += b[a] * b[a] / diagonal;
    }
    EXPECT_LE(std::sqrt(r2), 0.0001 * std::sqrt(b2) * (1 + 1e3 * P * eps)) << "mode " << mode;
  }
}

// Results are fixed to the rounding: a converging joint solve on sizes that
// leave partial column blocks and row chunks, and a difference solve that
// runs into the step limit, keep their steps or ratio and their bits.
TEST(InnerSolver, FingerprintsOfBothExits) {
  struct Case { int n, P, L; double alpha; int mode, flag; double result; std::uint64_t print; };
  const Case cases[] = {{150, 53, 13, 1.5, 1, 0, 17, 14823375028760105535ull},
                        {70, 3, 5, 1.0, 2, 1, 0x1.ce99d5ab0c31bp-6, 16211175519564966145ull}};
  for (const Case& k : cases) {
    Problem pb = make_problem(k.n, k.P, k.L, 100 + k.mode);
    std::mt19937 rng(k.mode);
    for (double& x : pb.c) x = std::uniform_real_distribution<double>(0.5, 2.0)(rng);
    Solved s = run(pb, k.alpha, 0.25, k.mode);
    EXPECT_EQ(s.flag, k.flag) << k.P;
    EXPECT_EQ(s.result, k.result) << k.P;
    EXPECT_EQ(fingerprint(s.x), k.print) << k.P;
  }
}

// Below 2 parameters the limit is 0 steps: flag 1, ratio 0 / n0, dm 0; with
// none, n0 is 0 too and the ratio NaN. A zero right-hand side (no residual,
// joint mode at m = m0) is not guarded either: NaN, and the steps run out.
// The resolution map of one parameter: no step, one failure, entry 0.
TEST(InnerSolver, StepLimitBelowTwoParametersAndZeroRightHandSide) {
  Problem zero = make_problem(6, 8, 5, 5);
  zero.m0 = zero.m;
  std::fill(zero.e.begin(), zero.e.end(), 0.0);
  struct Case { Problem pb; int mode; double jw; bool resolution; int flag; double result; };  // NAN: NaN
  const Case cases[] = {{make_problem(4, 1, 5, 3), 0, 0.0, false, 1, 0.0}, {make_problem(4, 1, 5, 3), 0, 0.0, true, 1, 0.0},
                        {make_problem(4, 0, 5, 3), 0, 0.0, false, 1, NAN}, {make_problem(4, 0, 5, 3), 0, 0.0, true, 0, 0.0},
                        {zero, 1, 0.5, false, 1, NAN}};
  for (const Case& c : cases) {
    const Solved s = run(c.pb, 1.0, c.jw, c.mode, c.resolution);
    EXPECT_EQ(s.flag, c.flag) << c.pb.P;
    EXPECT_TRUE(std::isnan(c.result) ? std::isnan(s.result) : s.result == c.result) << c.pb.P << " " << s.result;
    if (c.pb.P == 1) {
      EXPECT_EQ(s.x[0], 0.0);
    }
  }
}

// The raw weighted sums of squares, whatever the blocking of the columns; a
// zero column gives 0.
TEST(Sensitivity, EqualsDirectSumsOfWeightedSquares) {
  Problem pb = make_problem(150, 37, 5, 9);
  pb.zero_column(4);
  Vec map(pb.P, -1.0);
  sensitivity_map(pb.equations(1.0, 0.0, 0), map.data());
  for (int j = 0; j < pb.P; ++j) {
    double S = 0.0;
    for (int i = 0; i < pb.n; ++i) S = S + pb.J_at(i, j) * pb.J_at(i, j) * pb.W[i] * pb.W[i];
    EXPECT_EQ(map[j], S) << j;
  }
  EXPECT_EQ(map[4], 0.0);
}

// Each column converges to rounding: the map is the diagonal of
// (J^T W^2 J + alpha C)^-1 J^T W^2 J, with no parameter scale and no joint
// term even in a joint run.
TEST(Resolution, MatchesDenseDiagonal) {
  const int n = 4, P = 32;
  Problem pb = hadamard_problem(n, P, 21);
  for (int j = 0; j < P; ++j) pb.c[j] = 2.0 + j;
  Vec G, R;
  dense_parts(pb, 0.4, 0.0, &G, &R);
  for (int a = 0; a < P; ++a) R[a * P + a] /= pb.c[a];  // no parameter scale
  for (std::size_t t = 0; t < R.size(); ++t) R[t] += G[t];
  const Vec X = builders::dense_solve(R, G, P, P);
  Solved s = run(pb, 0.4, 0.25, 1, true);
  EXPECT_EQ(s.flag, 0);
  EXPECT_EQ(s.result, 0.0);
  for (int k = 0; k < P; ++k) EXPECT_NEAR(s.x[k], X[k * P + k], 64 * P * eps) << k;
}

// Columns that run out of steps count as failures, the worst ratio is kept,
// and their last value stands; a zero column has n0 = 0: it fails and its
// entry is NaN. The map keeps its bits.
TEST(Resolution, FailuresWorstRatioAndFingerprint) {
  Problem pb = make_problem(9, 30, 13, 43);
  pb.zero_column(6);
  Solved s = run(pb, 1.0, 0.0, 0, true);
  EXPECT_EQ(s.flag, 9);
  EXPECT_EQ(s.result, 0x1.05c7ea80d4704p-12);
  EXPECT_TRUE(std::isnan(s.x[6]));
  s.x[6] = 0.0;
  EXPECT_EQ(fingerprint(s.x), 5242639239265733222ull);
}

// The passes over J shared out among threads, the columns of the column
// sums in blocks and the rows of J times a vector in chunks, on a J large
// enough to be shared (more than 65,536 entries) with partial blocks and
// chunks: every sum is the double of a plain loop in one order, on any
// number of threads; and so an inner solve and a resolution map keep their
// bits.
TEST(InnerSolver, PassesOverJOnThreadsGiveThePlainSums) {
  const int n = 611, P = 173;
  Problem pb = make_problem(n, P, 5, 77);
  Vec x(n), p(P), D(P);
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (double& v : x) v = u(rng);
  for (int j = 0; j < P; ++j) p[j] = u(rng), D[j] = 0.5 + u(rng) * u(rng);
  Vec squares(P, 0.0), weighted(P, 0.0), dots(P, 0.0), product(n, 0.0);
  for (int j = 0; j < P; ++j)
    for (int i = 0; i < n; ++i) {
      squares[j] = squares[j] + ((pb.J_at(i, j) * pb.J_at(i, j)) * pb.W[i]) * pb.W[i];
      weighted[j] = weighted[j] + ((pb.J_at(i, j) * pb.W[i]) * pb.W[i]) * x[i];
      dots[j] = dots[j] + pb.J_at(i, j) * x[i];
    }
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < P; ++k) product[i] = product[i] + (pb.J_at(i, k) * p[k]) * D[k];
  Solved solve_one, map_one;
  for (int T : {1, 2, 3, 4}) {
    set_thread_count(T);
    Vec out(P, -1.0), t(n, -1.0);
    column_squares(pb.J.data(), pb.W.data(), n, P, out.data());
    EXPECT_EQ(fingerprint(out), fingerprint(squares)) << T;
    column_weighted_dots(pb.J.data(), pb.W.data(), x.data(), n, P, out.data());
    EXPECT_EQ(fingerprint(out), fingerprint(weighted)) << T;
    column_dots(pb.J.data(), x.data(), n, P, out.data());
    EXPECT_EQ(fingerprint(out), fingerprint(dots)) << T;
    scaled_product(pb.J.data(), p.data(), D.data(), n, P, t.data());
    EXPECT_EQ(fingerprint(t), fingerprint(product)) << T;
    const Solved solve = run(pb, 0.8, 0.0, 0), map = run(pb, 0.8, 0.0, 0, true);
    if (T == 1) {
      solve_one = solve, map_one = map;
      continue;
    }
    EXPECT_EQ(fingerprint(solve.x), fingerprint(solve_one.x)) << T;
    EXPECT_EQ(solve.result, solve_one.result) << T;
    EXPECT_EQ(fingerprint(map.x), fingerprint(map_one.x)) << T;
    EXPECT_EQ(map.result, map_one.result) << T;
  }
  set_thread_count(1);
}
