// Inner solver: the Gauss-Newton update of one trial alpha by conjugate
// gradients on the Jacobi-scaled normal equations, and the kernels it shares
// with the resolution map (the two passes over J, the operator, the loop).
#include <cmath>
#include <cstddef>

#include "inversion/inversion.h"
#include "inversion/solver_kernels.h"
#include "run/threads.h"
#include "run/timers.h"

namespace {

// Relative residual at which a solve has converged; fixed, no input sets it.
constexpr double tolerance = 0.0001;

// Columns of J per sweep. Every sum must run down its own column in order,
// so speed comes from width: sixteen independent column sums hide the add
// latency, and sixteen streams keep the memory busy, while the n-vectors
// of a sweep stay in cache.
constexpr int block = 16;

inline const double* column(const double* J, int n, int j) {
  return J + static_cast<std::size_t>(j) * n;
}

// Rows per chunk, and how far below the present row each column is fetched
// into cache (64 doubles, 512 bytes): the hardware prefetcher alone falls
// behind on sixteen streams, and the sweep then waits on memory.
constexpr int chunk = 8;
constexpr int ahead = 64;

// Fetches row i + ahead of each of the B columns; past the last row swept
// (end), the row as far into the rows first..end - 1 of its counterpart in
// the block swept next, `next` doubles away (0: none), so that short
// columns do not start each block cold.
// Forced inline: as a call of its own the compiler finds it without effect
// and drops it.
template <int B>
[[gnu::always_inline]] inline void fetch_ahead(const double* const* col,
                                               int i, int first, int end,
                                               std::ptrdiff_t next) {
  const int row = i + ahead;
  if (row < end) {
    for (int b = 0; b < B; ++b) __builtin_prefetch(col[b] + row);
  } else if (next != 0 && row - end < end - first) {
    for (int b = 0; b < B; ++b)
      __builtin_prefetch(col[b] + next + first + (row - end));
  }
}

// Threads for a pass over J of n by P: the team, unless J is so small that
// starting the threads costs more than the pass (about 64,000 entries, half
// a megabyte). Either way the same doubles come out.
int pass_threads(int n, int P) {
  const double entries = static_cast<double>(n) * P;
  return entries < 65536.0 ? 1 : thread_count();
}

// B adjacent columns starting at J(:, j0), one sum each, term(J(i,j), i)
// added in ascending i.
template <int B, class Term>
void sum_columns(const double* J, int n, int j0, std::ptrdiff_t next,
                 Term term, double* out) {
  const double* col[B];
  double s[B];
  for (int b = 0; b < B; ++b) {
    col[b] = column(J, n, j0 + b);
    s[b] = 0.0;
  }
  int i = 0;
  for (; i + chunk <= n; i += chunk) {
    fetch_ahead<B>(col, i, 0, n, next);
    for (int k = i; k < i + chunk; ++k) {
      for (int b = 0; b < B; ++b) s[b] = s[b] + term(col[b][k], k);
    }
  }
  for (; i < n; ++i) {
    for (int b = 0; b < B; ++b) s[b] = s[b] + term(col[b][i], i);
  }
  for (int b = 0; b < B; ++b) out[j0 + b] = s[b];
}

// Column sums of columns j0..j1 - 1 of J, taken from the last column down:
// scaled_product sweeps upward, so each pass starts on the columns the one
// before it left in cache. Column sums are independent, so the order
// changes no result.
template <class Term>
void column_range_sums(const double* J, int n, int j0, int j1, Term term,
                       double* out) {
  const int whole = j1 - (j1 - j0) % block;
  const std::ptrdiff_t next = -static_cast<std::ptrdiff_t>(block) * n;
  for (int j = j1 - 1; j >= whole; --j) sum_columns<1>(J, n, j, 0, term, out);
  for (int j = whole - block; j >= j0; j -= block) {
    sum_columns<block>(J, n, j, j >= j0 + block ? next : 0, term, out);
  }
}

// Calls range(first, end) for the items 0..count - 1 of a pass over J (n
// by P): one call for all on one thread or a small J, else one call per
// thread, the items shared out in whole units of `unit` (a block of
// columns, a chunk of rows) so that the sweeps keep their widths.
template <class Range>
void share_pass(int n, int P, int count, int unit, Range range) {
  const int units = (count + unit - 1) / unit;
  int T = pass_threads(n, P);
  if (T > units) T = units;
  if (T <= 1) return range(0, count);
  auto part = [&](int t) {
    int u0, u1;
    thread_range(t, T, units, &u0, &u1);
    range(u0 * unit, u1 * unit < count ? u1 * unit : count);
  };
  run_on_threads(T, part);
}

// Column sums of all of J, the columns shared out among the threads in whole
// blocks: each sum is made by one thread, in its own order.
template <class Term>
void column_sums(const double* J, int n, int P, Term term, double* out) {
  share_pass(n, P, P, block, [&](int j0, int j1) {
    column_range_sums(J, n, j0, j1, term, out);
  });
}

// t(i) += (J(i,k) * p_k) * D_k for the rows i = first..end - 1 and the B
// columns k = k0.. in ascending k: each t(i) gets its additions in column
// order whatever the sweep width. t is restrict so that the compiler may
// vectorise over i without checking it against every column.
template <int B>
void add_columns(const double* J, int n, int first, int end, int k0,
                 std::ptrdiff_t next, const double* p, const double* D,
                 double* __restrict t) {
  const double* col[B];
  double pk[B], Dk[B];
  for (int b = 0; b < B; ++b) {
    col[b] = column(J, n, k0 + b);
    pk[b] = p[k0 + b];
    Dk[b] = D[k0 + b];
  }
  int i = first;
  for (; i + chunk <= end; i += chunk) {
    fetch_ahead<B>(col, i, first, end, next);
    for (int k = i; k < i + chunk; ++k) {
      double s = t[k];
      for (int b = 0; b < B; ++b) s = s + (col[b][k] * pk[b]) * Dk[b];
      t[k] = s;
    }
  }
  for (; i < end; ++i) {
    double s = t[i];
    for (int b = 0; b < B; ++b) s = s + (col[b][i] * pk[b]) * Dk[b];
    t[i] = s;
  }
}

// q = D (J^T W^2 J + scale C [+ joint_weight I]) D p, scale_j = c_j alpha
// (alpha with c null); returns p . q. t (n) is work.
double apply_operator(const NormalEquations& op, const double* D,
                      const double* p, double* t, double* q) {
  scaled_product(op.J, p, D, op.n, op.P, t);
  column_weighted_dots(op.J, op.W, t, op.n, op.P, q);
  double pq = 0.0;
  for (int j = 0; j < op.P; ++j) {
    double u = regularisation_row(*op.C, j, p, D);
    if (op.joint) {
      u = u + ((p[j] * op.joint_weight) / (op.c[j] * op.alpha)) * D[j];
    }
    const double scale = op.c ? op.c[j] * op.alpha : op.alpha;
    q[j] = (scale * u + q[j]) * D[j];
    pq = pq + p[j] * q[j];
  }
  return pq;
}

}  // namespace

void column_squares(const double* J, const double* W, int n, int P,
                    double* out) {
  column_sums(J, n, P,
              [W](double x, int i) { return ((x * x) * W[i]) * W[i]; }, out);
}

void column_weighted_dots(const double* J, const double* W, const double* x,
                          int n, int P, double* out) {
  column_sums(J, n, P,
              [W, x](double v, int i) { return ((v * W[i]) * W[i]) * x[i]; },
              out);
}

void column_dots(const double* J, const double* x, int n, int P, double* out) {
  column_sums(J, n, P, [x](double v, int i) { return v * x[i]; }, out);
}

// The rows are shared out among the threads in whole chunks; each t(i) is
// made by one thread, its additions in column order.
void scaled_product(const double* J, const double* p, const double* D, int n,
                    int P, double* t) {
  const int whole = P - P % block;
  const std::ptrdiff_t next = static_cast<std::ptrdiff_t>(block) * n;
  auto rows = [&](int first, int end) {
    for (int i = first; i < end; ++i) t[i] = 0.0;
    for (int k = 0; k < whole; k += block) {
      add_columns<block>(J, n, first, end, k, k + block < whole ? next : 0, p,
                         D, t);
    }
    for (int k = whole; k < P; ++k)
      add_columns<1>(J, n, first, end, k, 0, p, D, t);
  };
  share_pass(n, P, n, chunk, rows);
}

double regularisation_row(const RegularisationMatrix& C, int j,
                          const double* x, const double* D) {
  const std::size_t P = static_cast<std::size_t>(C.num_parameters);
  const float* value = C.values.data();
  const int* index = C.index.data();
  // Slot 1 is the diagonal of row j, always present.
  double s = static_cast<double>(value[j]) * x[j];
  if (D) s = s * D[j];
  for (int k = 1; k < C.width; ++k) {
    const std::size_t at = k * P + j;
    const int other = index[at];
    if (other == 0) continue;
    double term = static_cast<double>(value[at]) * x[other - 1];
    if (D) term = term * D[other - 1];
    s = s + term;
  }
  return s;
}

void jacobi_scaling(const NormalEquations& op, double* D) {
  column_squares(op.J, op.W, op.n, op.P, D);
  const float* diagonal = op.C->values.data();
  for (int j = 0; j < op.P; ++j) {
    const double scale = op.c ? op.c[j] * op.alpha : op.alpha;
    double g = scale * static_cast<double>(diagonal[j]) + D[j];
    if (op.joint) g = g + op.joint_weight;
    D[j] = 1.0 / std::sqrt(g);
  }
}

// The step limit is half the number of parameters by design. No guard on a
// zero p . q or a zero ||r0||: the ratio then comes out NaN and the solve
// runs out of steps.
bool conjugate_gradient(const NormalEquations& op, SolverWork* work, double* y,
                        int first, int count, int* steps, double* ratio) {
  const int P = op.P;
  double* r = work->r.data();
  double* p = work->p.data();
  double* q = work->q.data();
  double* t = work->t.data();
  const double* D = work->D.data();
  for (int j = 0; j < count; ++j) y[j] = 0.0;
  double rr = 0.0;
  for (int j = 0; j < P; ++j) {
    p[j] = r[j];
    rr = rr + r[j] * r[j];
  }
  const double n0 = std::sqrt(rr);
  double res = 0.0;
  const int limit = P / 2;
  for (int step = 1; step <= limit; ++step) {
    const double a = rr / apply_operator(op, D, p, t, q);
    double rr_new = 0.0;
    for (int j = 0; j < P; ++j) {
      r[j] = r[j] - a * q[j];
      rr_new = rr_new + r[j] * r[j];
    }
    for (int j = 0; j < count; ++j) y[j] = y[j] + a * p[first + j];
    res = std::sqrt(rr_new);
    if (tolerance >= res / n0) {
      *steps = step;
      *ratio = res / n0;
      return true;
    }
    const double beta = rr_new / rr;
    for (int j = 0; j < P; ++j) p[j] = r[j] + beta * p[j];
    rr = rr_new;
  }
  *steps = limit;
  *ratio = res / n0;
  return false;
}

void allocate_solver_work(int num_parameters, int num_measurements,
                          SolverWork* w) {
  const std::size_t P = static_cast<std::size_t>(num_parameters);
  w->r.resize(P);
  w->p.resize(P);
  w->q.resize(P);
  w->D.resize(P);
  w->t.resize(static_cast<std::size_t>(num_measurements));
}

// Inputs: eq (J n by P; m, m0, c P; e, W n; C, alpha, joint_weight, the
// difference (reg_mode 2) and joint (reg_mode 1) flags).
// Work: work->r, p, q, D (P), work->t (n); dm (P) holds the scaled
// solution y until the last loop turns it into D y.
// Outputs: dm (P); result = steps made (converged, failed 0) or the ratio
// ||r|| / ||r0|| reached (failed 1).
void inner_solve(const NormalEquations& eq, SolverWork* work, double* dm,
                 double* result, int* failed) {
  timer("sol0");
  const int P = eq.P;
  const double* m = eq.m;
  const double* m0 = eq.m0;
  const double* c = eq.c;
  const double alpha = eq.alpha;
  double* r = work->r.data();
  double* p = work->p.data();
  double* v = work->q.data();
  double* D = work->D.data();
  // Penalty of the present model, v = C(m) or C(m - m0) [+ the pull of the
  // joint term towards m0], so that the update solves for the new model.
  const bool from_m0 = eq.difference || eq.joint;
  for (int j = 0; j < P; ++j) p[j] = from_m0 ? m[j] - m0[j] : m[j];
  for (int j = 0; j < P; ++j) {
    v[j] = regularisation_row(*eq.C, j, p, nullptr);
    if (eq.joint)
      v[j] = v[j] + (eq.joint_weight / (c[j] * alpha)) * (m[j] - m0[j]);
  }
  jacobi_scaling(eq, D);
  column_weighted_dots(eq.J, eq.W, eq.e, eq.n, P, r);
  for (int j = 0; j < P; ++j) r[j] = (r[j] - (c[j] * alpha) * v[j]) * D[j];

  int steps = 0;
  double ratio = 0.0;
  if (conjugate_gradient(eq, work, dm, 0, P, &steps, &ratio)) {
    *failed = 0;
    *result = static_cast<double>(steps);
  } else {
    *failed = 1;
    *result = ratio;
  }
  for (int j = 0; j < P; ++j) dm[j] = dm[j] * D[j];
  timer("sol1");
}
