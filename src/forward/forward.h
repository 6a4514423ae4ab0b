// Forward solver: matrix pattern, element equations, wavenumber quadrature,
// primary potentials, the PARDISO adapter and the forward loop. Turns a
// conductivity model into transfer resistances.
#pragma once

#include <vector>

struct MeshModel;
struct ElectrodeTable;
struct MeasurementSet;

// Row may hold at most this many entries beyond the diagonal.
enum { CONNECTED_LIMIT = 100 };

// Which entries of the upper triangle of the symmetric conductance matrix
// are stored: 1-based compressed rows, diagonal first in each row, then the
// higher columns in ascending order. Fixed by the mesh; read only once
// built, and shared by every wavenumber.
struct MatrixPattern {
  int num_entries;                     // M, stored entries
  std::vector<int> matrix_row_start;   // N + 1, 1-based positions; last is M + 1
  std::vector<int> matrix_columns;     // M, 1-based columns
  // Entry (e - 1) * p * p + (i - 1) * p + (j - 1) belongs to local pair (i, j)
  // of element e (p nodes per element).
  std::vector<int> element_positions;  // E * p * p, 1-based position in matrix_values that takes s * ae(i, j), 0 when the pair adds nothing
};

// The mesh a forward solution runs on, read only.
struct ForwardMesh {
  const MeshModel* mesh;          // N nodes, E elements, pin_flags set
  int nodes_per_element;          // p: 3 triangles, 4 four-node elements
  const MatrixPattern* pattern;   // of this mesh
  const ElectrodeTable* table;    // L electrodes, each one a unit source
};

// The sum over wavenumbers along strike (point sources, flux_type above
// 2.0), or the one plain solve of two-dimensional flow, and the half-space
// of the singularity removal.
struct Quadrature {
  const double* wavenumbers;  // num_wavenumbers, 1/m, increasing; not read for two-dimensional flow
  const double* weights;      // num_wavenumbers, 1/m, the 1/pi of the transform included
  int num_wavenumbers;        // W, 1 for two-dimensional flow
  double flux_type;           // 2.0 or less: one term, k = 0 and weight 1
  bool singularity_removal;   // solve for the secondary potential
  double sigma_0;             // S/m, primary half-space; forward_solve and compute_jacobian set it from the model
};

// Wall-clock seconds of the solver's stages, one record per wavenumber (a
// record starts at each reordering), kept only while `enabled` is set and
// only for a work that points to it. For the benchmark; the run itself
// never keeps one.
struct SolverStageRecord {
  double assembly;       // element matrices and assembly
  double reordering;     // phase 11
  double factorisation;  // phase 22
  double right_hand_side;  // building right-hand sides
  double solve;          // phase 33, all electrodes
  double release;        // phase -1
  int solves;            // phase 33 calls
};
enum { MAX_STAGE_RECORDS = 256 };
struct SolverStageLog {
  bool enabled;
  int count;             // records in use
  SolverStageRecord records[MAX_STAGE_RECORDS];
};

// What the solution of one wavenumber writes: its matrix, the solver's
// state, the element matrices it is assembled from, the right-hand side and
// the potentials of every source. Sized by build_matrix_pattern and
// allocate_forward_vectors; one for each solution in progress.
struct ForwardWork {
  std::vector<double> matrix_values;      // M, the matrix of one wavenumber at the pattern's positions
  std::vector<int> matrix_permutation;    // N, PARDISO's perm
  std::vector<double> element_matrices;   // E * p * p, ae(i, j) of every element at element_matrices_k, laid out as element_positions
  double element_matrices_k;              // 1/m; NaN while the store holds none
  void* solver_handle[64];                // PARDISO's handle, zeroed before each reordering
  int solver_control[64];                 // PARDISO's control words (iparm)
  std::vector<double> right_hand_side;    // N
  std::vector<double> primary_potential;  // N, V/A, of the present source
  std::vector<double> potentials;         // N * L, V/A, column c (contiguous) for the unit source at electrode c
  double k;                               // 1/m, wavenumber of the potentials
  double w;                               // 1/m, its weight; 1 for two-dimensional flow
  int failed_stage = 0;                   // SolverStage of the last failed solver call
  int term_calls[2] = {0, 0};             // timer calls of "ele" and "for" in the last forward_term
  SolverStageLog* stage_log = nullptr;    // null: no stage times kept
};

// The solver call that failed, for its words in the report.
enum SolverStage { STAGE_REORDERING = 1, STAGE_FACTORISATION, STAGE_SOLVE, STAGE_RELEASE };

// The works of the threads a solution runs on, one whole ForwardWork each,
// so that wavenumbers are solved side by side; work[0] serves the calling
// thread. One work is the single-threaded program.
struct ForwardTeam {
  std::vector<ForwardWork> work;  // T, at most thread_count()
};

// ---- matrix pattern ------------------------------------------------------

// Counts the stored entries of the mesh's pattern, sizes the pattern and the
// matrix arrays of work (values, permutation, element store), then fills the
// pattern; each pass writes its progress line to the console. A row with
// more than CONNECTED_LIMIT higher neighbours is fatal.
//   nodes_per_element  in: 3 or 4
void build_matrix_pattern(const MeshModel& mesh, int nodes_per_element,
                          MatrixPattern* pattern, ForwardWork* work);

// Sizes the vectors of work for N nodes and L electrodes: right-hand side
// and primary potential (N), potentials (N * L).
void allocate_forward_vectors(int num_nodes, int num_electrodes,
                              ForwardWork* work);

// Makes team->work num_threads works, each sized as work[0], which
// build_matrix_pattern and allocate_forward_vectors have sized. With more
// than one thread the memory guard first weighs all of them.
void allocate_forward_team(int num_threads, const MeshModel& mesh,
                           ForwardTeam* team);

// ---- element equations ---------------------------------------------------

// Element matrices of every element at wavenumber k (1/m), laid out as
// work->element_matrices, computed on the first call for this k and kept
// until another k is asked for: they depend on geometry and k alone.
const double* element_matrices(const MeshModel& mesh, int nodes_per_element,
                               double k, ForwardWork* work);

// Chooses the pinned node and sets mesh->pin_flags: node 1 on a grid; on
// mesh.dat the first node with the largest electrode sum (node 1 if no sum
// exceeds 0).
void choose_pinned_node(int mesh_type, const ElectrodeTable& table,
                        MeshModel* mesh);

// ---- wavenumber quadrature -----------------------------------------------

// Smallest and largest current-to-potential electrode distance over all
// measurements, metres.
void measurement_spacing(const MeshModel& mesh, const ElectrodeTable& table,
                         const MeasurementSet& ms, double* min_spacing,
                         double* max_spacing);

// Fills wavenumbers and wavenumber_weights (table_size entries each) and sets
// *num_wavenumbers: Gauss-Legendre terms below and four Gauss-Laguerre terms
// above k0 = 0.5 / min_spacing.
void wavenumber_rule(int table_size, double min_spacing, double max_spacing,
                     double* wavenumbers, double* wavenumber_weights,
                     int* num_wavenumbers);

// ---- primary potentials --------------------------------------------------

// Area-weighted geometric mean conductivity of the model, times 0.95 (in
// single precision) when every element lies within 1e-6 S/m of it.
double reference_conductivity(const MeshModel& mesh, int nodes_per_element,
                              const double* log_conductivity);

// ---- solver adapter and forward loop -------------------------------------


// Term j (0-based) of the wavenumber sum: sets work->k and work->w to the
// term's wavenumber and weight (k = 0, w = 1 for two-dimensional flow),
// solves for the potentials of every electrode's unit source into
// work->potentials (one assembly and factorisation, one solve per
// electrode), then adds each measurement's share to transfer_resistance
// (num_measurements, ohm). Reads q.sigma_0 with singularity removal.
// Returns 0, or the PARDISO error code that stopped it (nothing is added
// then; work->failed_stage names the call, and nothing is reported: see
// report_solver_failure).
int forward_term(const ForwardMesh& fm, const MeasurementSet& ms,
                 const double* log_conductivity, const Quadrature& q, int j,
                 ForwardWork* work, double* transfer_resistance);

// Takes the timer calls of `count` terms (calls: 2 * count, "ele" then "for"
// of each, as in ForwardWork::term_calls) back from the run's counts: terms
// solved on other threads beyond the first failed one.
void uncount_terms(const int* calls, int count);

// Writes the words of a failed solver call: the stage record and the code
// on the log (reordering, factorisation and solve), then the PARDISO report
// on both streams.
void report_solver_failure(int stage, int error);

// Transfer resistance of every measurement for the model log_conductivity
// (E, ln S/m), summed over the terms of q. The terms are shared out among
// the threads of the team and added in wavenumber order, so each sum is
// the same double on any number of threads.
//   transfer_resistance  out: num_measurements doubles, ohm
// Returns 0, or the PARDISO error code of the first term, in wavenumber
// order, that failed (reported here; the sums then hold the terms before
// it only).
int forward_solve(const ForwardMesh& fm, const MeasurementSet& ms,
                  const double* log_conductivity, const Quadrature& q,
                  ForwardTeam* team, double* transfer_resistance);
