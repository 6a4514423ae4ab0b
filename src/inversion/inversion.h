// Inversion: the Jacobian, the regularisation matrix, the conjugate-gradient
// inner solver, the sensitivity and resolution maps, and the inverse job that
// runs the outer iteration over every dataset of protocol.dat.
#pragma once

#include <vector>

#include "forward/forward.h"

struct RunContext;
struct MeshModel;
struct MeasurementSet;
struct ParameterMap;
struct OutputMask;

// The regularisation matrix C: P rows of L slots (5, or 13 with the
// quadratic filter), stored slot after slot: slot k (1..L) of row i (1..P)
// at (k - 1) * P + (i - 1). Slot 1 is the diagonal; the others hold
// off-diagonals in the order they were met, empty slots (index 0) anywhere.
struct RegularisationMatrix {
  int num_parameters;          // P
  int width;                   // L, 5 or 13
  std::vector<float> values;   // P * L, single precision
  std::vector<int> index;      // P * L, 1-based parameter numbers, 0 = empty
};

// ---- regularisation matrix -------------------------------------------------

// Builds C once for the run from the mesh, the parameter map in
// mesh.element_parameter and the settings of ctx (inverse_type flags,
// alpha_aniso, num_patch_x, num_patch_y, block_weights).
//   nodes_per_element  3 (triangles, coupling through shared edges) or 4
//                      (grid: stencil on the parameter grid)
//   num_parameters     P
//   C                  out: sized and filled
void build_regularisation(const RunContext& ctx, const MeshModel& mesh,
                          int nodes_per_element, int num_parameters,
                          RegularisationMatrix* C);

// ---- inner solver ----------------------------------------------------------

// Work vectors of the conjugate gradient, sized once per dataset.
struct SolverWork {
  std::vector<double> r;  // P, scaled residual
  std::vector<double> p;  // P, search direction
  std::vector<double> q;  // P, operator times direction
  std::vector<double> t;  // n, J times scaled direction
  std::vector<double> D;  // P, Jacobi scaling 1 / sqrt(diagonal)
};

// Sizes every vector of w for P parameters and n measurements.
void allocate_solver_work(int num_parameters, int num_measurements,
                          SolverWork* w);

// The regularised normal equations of one Gauss-Newton update,
//   (J^T W^2 J + alpha c C [+ joint_weight I]) dm
//       = J^T W^2 e - alpha c C(m - r) [- joint_weight (m - m0)],
// with r = m0 in a difference or joint run and 0 otherwise. The maps read
// J, W, C, alpha, n and P only.
struct NormalEquations {
  const double* J;               // n by P, column j contiguous at J + j * n
  const double* W;               // n, data weights
  const double* e;               // n, residuals
  const double* m;               // P, present parameters, ln S/m
  const double* m0;              // P, start parameters, ln S/m
  const double* c;               // P, parameter scale (all 1); null: scale 1, as in the resolution operator
  const RegularisationMatrix* C;
  double alpha;                  // trade-off weight
  double joint_weight;           // reg_mode 1
  bool difference;               // reg_mode 2
  bool joint;                    // reg_mode 1
  int n;                         // measurements
  int P;                         // parameters
};

// One update dm of eq by conjugate gradients on the Jacobi-scaled normal
// equations, matrix-free, between the timer calls "sol0" and "sol1".
//   work      work: r, p, q (P), t (n), D (P)
//   dm        out: P
//   result    out: CG steps made (converged) or the ratio ||r|| / ||r0||
//   failed    out: 0 converged, 1 step limit P / 2 reached
void inner_solve(const NormalEquations& eq, SolverWork* work, double* dm,
                 double* result, int* failed);

// ---- sensitivity and resolution ---------------------------------------------

// Diagonal of J^T W^2 J of eq, between "res0" and "res1".
//   map out: P
void sensitivity_map(const NormalEquations& eq, double* map);

// Diagonal of the model resolution matrix (J^T W^2 J + alpha C)^-1 J^T W^2 J
// of eq (no parameter scale, no joint term whatever the mode), one
// conjugate-gradient solve per parameter, between "res0" and "res1".
//   map       out: P
//   failures  out: columns whose solve ran out of steps
//   worst     out: largest relative residual of those columns
void resolution_map(const NormalEquations& eq, SolverWork* work, double* map,
                    int* failures, double* worst);

// ---- Jacobian ----------------------------------------------------------------

// The model of an iteration in both its forms.
struct ParameterModel {
  const double* log_conductivity;  // E, ln S/m, the element values the solver reads
  const double* values;            // P, ln S/m, the vector they were scattered from
  int num_parameters;              // P
};

// Calculated data and the Jacobian of the model: all the solves of
// forward_solve, with the adjoint sum of every element's contribution
// accumulated per wavenumber. The team's threads solve a round of
// wavenumbers side by side, then each adds the round to its own range of
// columns.
//   log_data             in: data_type 1, d(ln R)/d(ln rho); else dR/d(ln sigma)
//   jacobian             out: n by P, column contiguous
//   transfer_resistance  out: n, ohm
// Returns 0, or the PARDISO code of the first wavenumber, in order, whose
// solve failed (reported here; J and the data are then incomplete).
int compute_jacobian(const ForwardMesh& fm, const MeasurementSet& ms,
                     const ParameterModel& model, const Quadrature& q,
                     bool log_data, ForwardTeam* team, double* jacobian,
                     double* transfer_resistance);

// ---- the inverse job -----------------------------------------------------

// What a dataset's inversion reads from the run: built before the dataset
// loop and shared by every dataset.
struct InverseRun {
  const RunContext* ctx;
  ForwardMesh forward;            // mesh, pattern and electrodes
  const ParameterMap* map;        // start_parameters: m0, P entries
  const OutputMask* mask;
  const RegularisationMatrix* C;  // unused by a qualitative run
  ForwardTeam* team;              // one forward work per thread
  double* log_conductivity;       // E, the element values the solver reads
};

// Puts a parameter vector into the model: every element with parameter p
// not 0 takes v(p); the others keep their value.
//   v  in: P doubles;  log_conductivity  in/out: E doubles
void scatter_parameters(const MeshModel& mesh, const double* v,
                        double* log_conductivity);

// Inverts dataset number `dataset`, whose block has been read into ms and
// whose files are open, with the wavenumbers of q: background run
// (difference regularisation), the outer iteration with its step search,
// the ending that closes the files, and after convergence the sensitivity or
// resolution map. Stops the run only when the background solution fails.
void invert_dataset(const InverseRun& run, MeasurementSet* ms,
                    const Quadrature& q, int dataset);
