// Inverse-kernel benchmark: the rate at which the inner solver's conjugate
// gradient reads the Jacobian, against a plain streaming read of the same
// array in the same run. Not part of the tests.
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <random>
#include <vector>

#include "bench.h"
#include "inversion/inversion.h"

namespace {

// Where the streaming sums go, so that they are not optimised away.
volatile double sink;

// Sum of the array with eight independent sums: as fast as one core reads.
// The pointer goes through an empty asm so repeated calls are not merged.
__attribute__((noinline)) double streaming_sum(const double* a, std::size_t N) {
  asm volatile("" : "+r"(a));
  double s[8] = {};
  std::size_t i = 0;
  for (; i + 8 <= N; i += 8) {
    for (int b = 0; b < 8; ++b) s[b] += a[i + b];
  }
  for (; i < N; ++i) s[0] += a[i];
  return ((s[0] + s[1]) + (s[2] + s[3])) + ((s[4] + s[5]) + (s[6] + s[7]));
}

// Marquardt regularisation (identity rows of width 5, off-diagonals empty).
RegularisationMatrix identity_rows(int P) {
  RegularisationMatrix C{P, 5, std::vector<float>(5 * (std::size_t)P, 0.0f),
                         std::vector<int>(5 * (std::size_t)P, 0)};
  for (int i = 0; i < P; ++i) {
    C.values[i] = 1.0f;
    C.index[i] = i + 1;
  }
  return C;
}

}  // namespace

void bench_cg_rate(int n, int P) {
  const std::size_t N = (std::size_t)n * P;
  std::mt19937_64 rng(5);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> J(N), m(P), m0(P, 0.0), c(P, 1.0), dm(P), e(n), W(n);
  for (double& x : J) x = u(rng);
  for (double& x : m) x = 0.1 * u(rng);
  for (double& x : e) x = u(rng);
  for (double& x : W) x = 1.0 + 0.5 * u(rng);
  const RegularisationMatrix C = identity_rows(P);
  SolverWork work;
  allocate_solver_work(P, n, &work);

  // The column sums of squares are about 0.36 n; an alpha of a seventh of
  // that keeps the scaled system well conditioned: some 30 steps.
  const double alpha = 0.05 * n;
  double result = 0.0;
  int failed = 0;
  const NormalEquations eq{J.data(), W.data(), e.data(), m.data(), m0.data(),
                           c.data(), &C, alpha, 0.0, false, false, n, P};
  auto solve = [&] { inner_solve(eq, &work, dm.data(), &result, &failed); };
  // Rounds of one solve and one streaming read; the best of each, so that
  // both see the machine at its least disturbed.
  double solve_time = 1e30, read_time = 1e30, sum = 0.0;
  solve();
  for (int round = 0; round < 3; ++round) {
    double t0 = bench_seconds();
    solve();
    solve_time = std::min(solve_time, bench_seconds() - t0);
    t0 = bench_seconds();
    sum += streaming_sum(J.data(), N);
    read_time = std::min(read_time, bench_seconds() - t0);
  }
  const int steps = failed ? P / 2 : (int)result;
  // Two passes per step, one for the scaling and one for the right-hand side.
  const double bytes = 8.0 * (double)N;
  const double cg_rate = (2.0 * steps + 2.0) * bytes / solve_time / 1e9;
  const double read_rate = bytes / read_time / 1e9;
  sink = sum;
  std::printf("CG: %d steps, %.3f s, %.1f GB/s of J read against %.1f GB/s "
              "plain streaming read (%.0f%%)\n",
              steps, solve_time, cg_rate, read_rate,
              100.0 * cg_rate / read_rate);
}
