// Inversion: the Jacobian, the regularisation matrix, the conjugate-gradient
// inner solver, the sensitivity and resolution maps, and the inverse job that
// runs the outer iteration over every dataset of protocol.dat.
#pragma once

#include <vector>

struct RunContext;
struct MeshModel;
struct ElectrodeTable;
struct MeasurementSet;
struct ConductanceMatrix;
struct ForwardWork;
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

// One Gauss-Newton update dm for the trial weight alpha by conjugate
// gradients on the Jacobi-scaled normal equations
//   (J^T W^2 J + alpha c C [+ joint_weight I]) dm
//       = J^T W^2 e - alpha c C(m - r) [- joint_weight (m - m0)],
// matrix-free, between the timer calls "sol0" and "sol1".
//   J         in: n by P, column j contiguous at J + j * n
//   m, m0     in: P, present and start parameter vectors (ln conductivity)
//   e, W      in: n, residuals and data weights
//   c         in: P, parameter scale (all 1)
//   C         in: the regularisation matrix
//   alpha, joint_weight  in
//   difference, joint    in: reg_mode 2, reg_mode 1
//   work      work: r, p, q (P), t (n), D (P)
//   dm        out: P
//   result    out: CG steps made (converged) or the ratio ||r|| / ||r0||
//   failed    out: 0 converged, 1 step limit P / 2 reached
void inner_solve(const double* J, const double* m, const double* m0,
                 const double* e, const double* W, const double* c,
                 const RegularisationMatrix& C, double alpha,
                 double joint_weight, int num_parameters, int num_measurements,
                 bool difference, bool joint, SolverWork* work, double* dm,
                 double* result, int* failed);

// ---- sensitivity and resolution ---------------------------------------------

// Diagonal of J^T W^2 J, between "res0" and "res1".
//   J  in: n by P column-contiguous;  W  in: n
//   map out: P
void sensitivity_map(const double* J, const double* W, int num_parameters,
                     int num_measurements, double* map);

// Diagonal of the model resolution matrix (J^T W^2 J + alpha C)^-1 J^T W^2 J,
// one conjugate-gradient solve per parameter, between "res0" and "res1".
//   map       out: P
//   failures  out: columns whose solve ran out of steps
//   worst     out: largest relative residual of those columns
void resolution_map(const double* J, const double* W,
                    const RegularisationMatrix& C, double alpha,
                    int num_parameters, int num_measurements, SolverWork* work,
                    double* map, int* failures, double* worst);

// ---- Jacobian ----------------------------------------------------------------

// Calculated data and the Jacobian of the model log_conductivity: all the
// solves of forward_solve, with the adjoint sum of every element's
// contribution accumulated per wavenumber.
//   log_conductivity  in: E, present element values
//   parameter_values  in: P, the vector the element values were scattered from
//   log_data          in: data_type 1
//   jacobian          out: n by P, column contiguous
//   transfer_resistance  out: n, ohm
//   jacobian_failed   out: 0, or the PARDISO code of the solve that failed
void compute_jacobian(const MeshModel& mesh, int nodes_per_element,
                      ConductanceMatrix* cm, const ElectrodeTable& table,
                      const MeasurementSet& ms, const double* log_conductivity,
                      const double* parameter_values, int num_parameters,
                      const double* wavenumbers, const double* wavenumber_weights,
                      int num_wavenumbers, double flux_type,
                      bool singularity_removal, bool log_data, ForwardWork* work,
                      double* jacobian, double* transfer_resistance,
                      int* jacobian_failed);

// ---- the inverse job -----------------------------------------------------

// What a dataset's inversion reads from the run: built before the dataset
// loop and shared by every dataset.
struct InverseRun {
  const RunContext* ctx;
  const MeshModel* mesh;
  ConductanceMatrix* cm;
  const ElectrodeTable* table;
  const ParameterMap* map;        // start_parameters: m0, P entries
  const OutputMask* mask;
  const RegularisationMatrix* C;  // unused by a qualitative run
  ForwardWork* work;
  double* log_conductivity;       // E, the element values the solver reads
};

// Puts a parameter vector into the model: every element with parameter p
// not 0 takes v(p); the others keep their value.
//   v  in: P doubles;  log_conductivity  in/out: E doubles
void scatter_parameters(const MeshModel& mesh, const double* v,
                        double* log_conductivity);

// Inverts one dataset whose block has been read into ms and whose files
// are open: background run (difference regularisation), the outer
// iteration with its step search, the ending that closes the files, and
// after convergence the sensitivity or resolution map. Stops the run only
// when the background solution fails.
void invert_dataset(const InverseRun& run, MeasurementSet* ms,
                    const double* wavenumbers, const double* wavenumber_weights,
                    int num_wavenumbers, const char* stem);
