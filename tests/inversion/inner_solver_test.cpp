// Tests of the inner solver, the sensitivity map and the resolution map:
// against dense solves of the same equations, against a literal, plainly
// ordered conjugate gradient (bit for bit), and at the edges of the step limit.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "inversion/inversion.h"

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
// times a + 1, then a zero row (an ignored measurement, e = 0). Every column
// has the same weighted norm, so D is uniform and the scaled operator has n
// well separated eigenvalues: the CG reaches rounding level in n steps and
// must agree with a dense solve to rounding.
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

// ---- literal references: plain loops, each product left to right as the
// solver defines it ----------------------------------------------------------

// C(u)_j over the slots of row j, empty ones skipped, each term times D_x if given.
double C_row(Problem& pb, int j, const Vec& u, const Vec* D) {
  double s = 0.0;
  for (int k = 1; k <= pb.C.width; ++k) {
    const int x = pb.idx(j, k);
    if (x != 0) s = D ? s + pb.val(j, k) * u[x - 1] * (*D)[x - 1] : s + pb.val(j, k) * u[x - 1];
  }
  return s;
}

// D_j = 1 / sqrt(scale_j * value(j,1) + sum J J W W + extra).
Vec literal_scaling(Problem& pb, const Vec& scale, double extra) {
  Vec D(pb.P);
  for (int j = 0; j < pb.P; ++j) {
    double S = 0.0;
    for (int i = 0; i < pb.n; ++i) S = S + pb.J_at(i, j) * pb.J_at(i, j) * pb.W[i] * pb.W[i];
    D[j] = 1.0 / std::sqrt(scale[j] * pb.val(j, 1) + S + extra);
  }
  return D;
}

// CG from y = 0 on the scaled system with right-hand side r; scale_j
// multiplies C(p D)_j. Returns y; result and flag as the solver sets them.
Vec literal_cg(Problem& pb, Vec r, const Vec& D, const Vec& scale, double jw, bool joint,
               double alpha, double* result, int* failed) {
  const int n = pb.n, P = pb.P;
  Vec y(P, 0.0), p = r, q(P), t(n);
  double rr = 0.0, res = 0.0;
  for (int j = 0; j < P; ++j) rr = rr + r[j] * r[j];
  const double n0 = std::sqrt(rr);
  for (int step = 1; step <= P / 2; ++step) {
    for (int i = 0; i < n; ++i) {
      t[i] = 0.0;
      for (int k = 0; k < P; ++k) t[i] = t[i] + pb.J_at(i, k) * p[k] * D[k];
    }
    double pq = 0.0;
    for (int j = 0; j < P; ++j) {
      double u = C_row(pb, j, p, &D), s = 0.0;
      if (joint) u = u + p[j] * jw / (pb.c[j] * alpha) * D[j];
      for (int i = 0; i < n; ++i) s = s + pb.J_at(i, j) * pb.W[i] * pb.W[i] * t[i];
      q[j] = (scale[j] * u + s) * D[j];
      pq = pq + p[j] * q[j];
    }
    const double a = rr / pq;
    double rr_new = 0.0;
    for (int j = 0; j < P; ++j) {
      r[j] = r[j] - a * q[j];
      y[j] = y[j] + a * p[j];
      rr_new = rr_new + r[j] * r[j];
    }
    res = std::sqrt(rr_new);
    if (0.0001 >= res / n0) {
      *failed = 0, *result = step;
      return y;
    }
    const double beta = rr_new / rr;
    for (int j = 0; j < P; ++j) p[j] = r[j] + beta * p[j];
    rr = rr_new;
  }
  *failed = 1, *result = res / n0;
  return y;
}

Vec literal_inner(Problem& pb, double alpha, double jw, bool difference, bool joint,
                  double* result, int* failed) {
  const int P = pb.P;
  Vec u(P), scale(P), r(P);
  for (int j = 0; j < P; ++j) {
    u[j] = difference || joint ? pb.m[j] - pb.m0[j] : pb.m[j];
    scale[j] = pb.c[j] * alpha;
  }
  const Vec D = literal_scaling(pb, scale, joint ? jw : 0.0);
  for (int j = 0; j < P; ++j) {
    double v = C_row(pb, j, u, nullptr), s = 0.0;
    if (joint) v = v + jw / (pb.c[j] * alpha) * (pb.m[j] - pb.m0[j]);
    for (int i = 0; i < pb.n; ++i) s = s + pb.J_at(i, j) * pb.W[i] * pb.W[i] * pb.e[i];
    r[j] = (s - pb.c[j] * alpha * v) * D[j];
  }
  Vec y = literal_cg(pb, r, D, scale, jw, joint, alpha, result, failed);
  for (int j = 0; j < P; ++j) y[j] = y[j] * D[j];
  return y;
}

// ---- dense references ----------------------------------------------------

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

// Solves (G + R) X = B, B P by m row-major, by Gaussian elimination with
// partial pivoting.
Vec gauss_solve(const Vec& G, const Vec& R, Vec B, int P, int m) {
  Vec A(G);
  for (std::size_t i = 0; i < A.size(); ++i) A[i] += R[i];
  for (int k = 0; k < P; ++k) {
    int piv = k;
    for (int i = k + 1; i < P; ++i)
      if (std::fabs(A[i * P + k]) > std::fabs(A[piv * P + k])) piv = i;
    std::swap_ranges(A.begin() + k * P, A.begin() + (k + 1) * P, A.begin() + piv * P);
    std::swap_ranges(B.begin() + k * m, B.begin() + (k + 1) * m, B.begin() + piv * m);
    for (int i = k + 1; i < P; ++i) {
      const double f = A[i * P + k] / A[k * P + k];
      for (int j = k; j < P; ++j) A[i * P + j] -= f * A[k * P + j];
      for (int j = 0; j < m; ++j) B[i * m + j] -= f * B[k * m + j];
    }
  }
  for (int k = P - 1; k >= 0; --k)
    for (int j = 0; j < m; ++j) {
      for (int i = k + 1; i < P; ++i) B[k * m + j] -= A[k * P + i] * B[i * m + j];
      B[k * m + j] /= A[k * P + k];
    }
  return B;
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

struct Solved {
  Vec x;  // dm, or the map
  double result;
  int flag;  // failed, or the number of failures
};

Solved run_inner(Problem& pb, double alpha, double jw, bool difference, bool joint) {
  SolverWork w;
  allocate_solver_work(pb.P, pb.n, &w);
  Solved s{Vec(pb.P, -1.0), -1.0, -1};
  inner_solve(pb.J.data(), pb.m.data(), pb.m0.data(), pb.e.data(), pb.W.data(), pb.c.data(),
              pb.C, alpha, jw, pb.P, pb.n, difference, joint, &w, s.x.data(), &s.result, &s.flag);
  return s;
}

Solved run_resolution(Problem& pb, double alpha) {
  SolverWork w;
  allocate_solver_work(pb.P, pb.n, &w);
  Solved s{Vec(pb.P, -1.0), -1.0, -1};
  resolution_map(pb.J.data(), pb.W.data(), pb.C, alpha, pb.P, pb.n, &w, s.x.data(), &s.flag,
                 &s.result);
  return s;
}

}  // namespace

// The update solves the normal equations of each regularisation mode, and
// converged means: result = the number of steps.
TEST(InnerSolver, MatchesDenseSolveOfNormalEquations) {
  const int n = 4, P = 32;
  for (int mode = 0; mode < 3; ++mode) {
    Problem pb = hadamard_problem(n, P, 11 + mode);
    const double alpha = 0.7, jw = mode == 1 ? 0.3 : 0.0;
    Vec G, R;
    dense_parts(pb, alpha, jw, &G, &R);
    const Vec x = gauss_solve(G, R, dense_rhs(pb, R, mode != 0), P, 1);
    Solved s = run_inner(pb, alpha, jw, mode == 2, mode == 1);
    ASSERT_EQ(s.flag, 0) << "mode " << mode;
    EXPECT_EQ(s.result, n);  // one step per distinct eigenvalue
    double scale = 0.0;
    for (double v : x) scale = std::max(scale, std::fabs(v));
    for (int j = 0; j < P; ++j) EXPECT_NEAR(s.x[j], x[j], 64 * P * eps * scale) << j;
  }
}

// A general C with gaps between its slots: the update satisfies the dense
// normal equations to the solver's tolerance, in the scaled norm.
TEST(InnerSolver, ResidualOfDenseEquationsWithinTolerance) {
  const int n = 200, P = 40;
  Problem pb = make_problem(n, P, 13, 7);
  Solved s = run_inner(pb, 1.0, 0.0, false, false);
  ASSERT_EQ(s.flag, 0);
  Vec G, R;
  dense_parts(pb, 1.0, 0.0, &G, &R);
  const Vec b = dense_rhs(pb, R, false), D = literal_scaling(pb, Vec(P, 1.0), 0.0);
  double r2 = 0.0, b2 = 0.0;
  for (int a = 0; a < P; ++a) {
    double res = b[a];
    for (int j = 0; j < P; ++j) res -= (G[a * P + j] + R[a * P + j]) * s.x[j];
    r2 += res * D[a] * res * D[a];
    b2 += b[a] * D[a] * b[a] * D[a];
  }
  EXPECT_LE(std::sqrt(r2), 0.0001 * std::sqrt(b2) * (1 + 1e3 * P * eps));
}

// Sizes that leave partial column blocks and row chunks, widths 5 and 13,
// random parameter scales, every mode: dm, result and flag are those of the
// literal order bit for bit, on both exits of the iteration.
TEST(InnerSolver, MatchesLiteralOrderBitForBit) {
  struct Case { int n, P, L; double alpha; };
  const Case cases[] = {{150, 53, 13, 1.5}, {83, 37, 5, 0.3}, {5, 40, 13, 1e-4}, {70, 3, 5, 1.0}};
  int exits[2] = {0, 0};
  for (const Case& k : cases)
    for (int mode = 0; mode < 3; ++mode) {
      Problem pb = make_problem(k.n, k.P, k.L, 100 + mode);
      std::mt19937 rng(mode);
      for (double& x : pb.c) x = std::uniform_real_distribution<double>(0.5, 2.0)(rng);
      double result;
      int failed;
      const Vec dm = literal_inner(pb, k.alpha, 0.25, mode == 2, mode == 1, &result, &failed);
      Solved s = run_inner(pb, k.alpha, 0.25, mode == 2, mode == 1);
      EXPECT_EQ(s.flag, failed) << k.P << " mode " << mode;
      EXPECT_EQ(s.result, result) << k.P << " mode " << mode;
      for (int j = 0; j < k.P; ++j) EXPECT_EQ(s.x[j], dm[j]) << k.P << " mode " << mode << " j " << j;
      exits[failed] += 1;
    }
  EXPECT_GT(exits[0], 0);
  EXPECT_GT(exits[1], 0);
}

// Below 2 parameters the limit is 0 steps: flag 1, ratio 0 / n0, dm 0; with
// none, n0 is 0 too and the ratio NaN. A zero right-hand side (no residual,
// joint mode at m = m0) is not guarded either: NaN, and the steps run out.
TEST(InnerSolver, StepLimitBelowTwoParametersAndZeroRightHandSide) {
  Problem one = make_problem(4, 1, 5, 3), none = make_problem(4, 0, 5, 3), zero = make_problem(6, 8, 5, 5);
  Solved s = run_inner(one, 1.0, 0.0, false, false);
  EXPECT_EQ(s.flag, 1);
  EXPECT_EQ(s.result, 0.0);
  EXPECT_EQ(s.x[0], 0.0);
  s = run_inner(none, 1.0, 0.0, false, false);
  EXPECT_EQ(s.flag, 1);
  EXPECT_TRUE(std::isnan(s.result));
  zero.m0 = zero.m;
  std::fill(zero.e.begin(), zero.e.end(), 0.0);
  s = run_inner(zero, 1.0, 0.5, false, true);
  EXPECT_EQ(s.flag, 1);
  EXPECT_TRUE(std::isnan(s.result));
}

// The raw weighted sums of squares; a zero column gives 0.
TEST(Sensitivity, EqualsDirectSumsOfWeightedSquares) {
  Problem pb = make_problem(150, 37, 5, 9);
  pb.zero_column(4);
  Vec map(pb.P, -1.0);
  sensitivity_map(pb.J.data(), pb.W.data(), pb.P, pb.n, map.data());
  for (int j = 0; j < pb.P; ++j) {
    double S = 0.0;
    for (int i = 0; i < pb.n; ++i) S = S + pb.J_at(i, j) * pb.J_at(i, j) * pb.W[i] * pb.W[i];
    EXPECT_EQ(map[j], S) << j;
  }
  EXPECT_EQ(map[4], 0.0);
}

// Each column converges to rounding: the map is the diagonal of
// (J^T W^2 J + alpha C)^-1 J^T W^2 J.
TEST(Resolution, MatchesDenseDiagonal) {
  const int n = 4, P = 32;
  Problem pb = hadamard_problem(n, P, 21);
  Vec G, R;
  dense_parts(pb, 0.4, 0.0, &G, &R);
  const Vec X = gauss_solve(G, R, G, P, P);
  Solved s = run_resolution(pb, 0.4);
  EXPECT_EQ(s.flag, 0);
  EXPECT_EQ(s.result, 0.0);
  for (int k = 0; k < P; ++k) EXPECT_NEAR(s.x[k], X[k * P + k], 64 * P * eps) << k;
}

// Literal resolution solve: right-hand side J(i,j) * (W * (W * J(i,k))), no
// parameter scale, no joint term, y_k of the last step whether converged or
// not. A zero column has n0 = 0: it fails and its entry is NaN.
TEST(Resolution, MatchesLiteralOrderBitForBit) {
  for (int L : {5, 13}) {
    Problem pb = make_problem(L == 5 ? 150 : 9, L == 5 ? 37 : 30, L, 30 + L);
    pb.zero_column(6);
    const double alpha = 1.0;
    const int P = pb.P;
    const Vec scale(P, alpha), D = literal_scaling(pb, scale, 0.0);
    Vec map(P);
    int failures = 0;
    double worst = 0.0, ratio;
    for (int k = 0; k < P; ++k) {
      Vec r(P);
      for (int j = 0; j < P; ++j) {
        double s = 0.0;
        for (int i = 0; i < pb.n; ++i) s = s + pb.J_at(i, j) * (pb.W[i] * (pb.W[i] * pb.J_at(i, k)));
        r[j] = s * D[j];
      }
      int failed;
      const Vec y = literal_cg(pb, r, D, scale, 0.0, false, alpha, &ratio, &failed);
      if (failed) failures += 1, worst = std::max(ratio, worst);
      map[k] = y[k] * D[k];
    }
    Solved s = run_resolution(pb, alpha);
    EXPECT_EQ(s.flag, failures);
    EXPECT_TRUE(L == 5 ? failures == 1 : failures > 1 && failures < P) << failures;
    EXPECT_EQ(std::isnan(s.result), std::isnan(worst));
    if (!std::isnan(worst)) {
      EXPECT_EQ(s.result, worst);
    }
    EXPECT_TRUE(std::isnan(s.x[6]));
    map[6] = s.x[6] = 0.0;  // NaN, checked above
    for (int k = 0; k < P; ++k) EXPECT_EQ(s.x[k], map[k]) << "L " << L << " k " << k;
  }
}

// One parameter: no step, one failure, entry 0. None: nothing.
TEST(Resolution, StepLimitBelowTwoParameters) {
  Problem one = make_problem(5, 1, 5, 2), none = make_problem(5, 0, 5, 2);
  Solved s = run_resolution(one, 1.0);
  EXPECT_EQ(s.flag, 1);
  EXPECT_EQ(s.x[0], 0.0);
  EXPECT_EQ(s.result, 0.0);
  s = run_resolution(none, 1.0);
  EXPECT_EQ(s.flag, 0);
  EXPECT_EQ(s.result, 0.0);
}
