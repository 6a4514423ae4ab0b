// Sensitivity and resolution maps of a converged dataset: the diagonal of
// J^T W^2 J, and the diagonal of the model resolution matrix by one
// conjugate-gradient solve per parameter.
#include <algorithm>
#include <cstddef>

#include "inversion/inversion.h"
#include "inversion/solver_kernels.h"
#include "run/timers.h"

// Inputs: eq.J (n by P, column-contiguous), eq.W (n). Output: map (P), the
// raw sums of ((J * J) * W) * W down each column, unnormalised.
void sensitivity_map(const NormalEquations& eq, double* map) {
  timer("res0");
  column_squares(eq.J, eq.W, eq.n, eq.P, map);
  timer("res1");
}

// Inputs: eq.J (n by P), eq.W (n), eq.C, eq.alpha. Work: work->r, p, q, D
// (P), work->t (n). Outputs: map (P), 0-based; failures, the columns that
// ran out of steps; worst, the largest ratio ||r|| / ||r0|| among them.
// Column k solves (J^T W^2 J + alpha C) x = column k of J^T W^2 J and keeps
// x_k. The operator has no parameter scale and no joint term whatever the
// regularisation mode; each column starts from zero.
void resolution_map(const NormalEquations& eq, SolverWork* work, double* map,
                    int* failures, double* worst) {
  timer("res0");
  *failures = 0;
  *worst = 0.0;
  const int P = eq.P;
  const int n = eq.n;
  if (P == 0) {
    timer("res1");
    return;
  }
  NormalEquations op = eq;
  op.c = nullptr;
  op.joint = false;
  op.joint_weight = 0.0;
  const double* J = eq.J;
  const double* W = eq.W;
  double* r = work->r.data();
  double* g = work->t.data();
  const double* D = work->D.data();
  jacobi_scaling(op, work->D.data());
  for (int k = 0; k < P; ++k) {
    // Right-hand side: J^T (W (W J(:,k))), scaled.
    const double* Jk = J + static_cast<std::size_t>(k) * n;
    for (int i = 0; i < n; ++i) g[i] = W[i] * (W[i] * Jk[i]);
    column_dots(J, g, n, P, r);
    for (int j = 0; j < P; ++j) r[j] = r[j] * D[j];

    double yk = 0.0, ratio = 0.0;
    int steps = 0;
    if (!conjugate_gradient(op, work, &yk, k, 1, &steps, &ratio)) {
      *worst = std::max(ratio, *worst);
      *failures += 1;
    }
    // The last step's value counts whether or not the column converged.
    map[k] = yk * D[k];
  }
  timer("res1");
}
